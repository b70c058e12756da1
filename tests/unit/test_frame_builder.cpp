// Request frames: handshake, reads, word/bit/value writes, byte for byte,
// with their bookkeeping fields, the split of long writes and the refusal of
// blocks that cannot be framed.
#include "kv_3000/frame_builder.h"

#include "kv3000_catalogue.h"
#include "protocol.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> hex(const char* text) {
    std::vector<unsigned char> out;
    for (const QString& b : QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts))
        out.push_back(static_cast<unsigned char>(b.toUInt(nullptr, 16)));
    return out;
}

std::vector<unsigned char> bytesOf(const FRAME_PRO& f) {
    const int n = f.sendLength < 0 ? 0 : f.sendLength > KV_BUFFER_SIZE ? KV_BUFFER_SIZE : f.sendLength;
    return std::vector<unsigned char>(f.frame, f.frame + n);
}

VARIABLE block(const char* reg, int address, int length, std::vector<unsigned char> data = {}) {
    VARIABLE v;
    v.id = 77;
    v.station = 3;
    v.reg = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    for (size_t i = 0; i < data.size() && i < sizeof v.data; ++i) v.data[i] = data[i];
    return v;
}

int read(const VARIABLE& v) {
    return getReadFrame(QList<VARIABLE>() << v);
}

// Low byte of the device's check sum, written out here as the device documents it.
unsigned char deviceCheck(const std::vector<unsigned char>& bytes, size_t from, size_t to) {
    unsigned sum = 0;
    for (size_t i = from; i < to; ++i) sum += bytes[i];
    return static_cast<unsigned char>(sum > 255 ? 256 - (sum & 0xFF) : sum);
}

class FrameBuilder : public ::testing::Test {
protected:
    void SetUp() override { driver.frameList.clear(); }
    void TearDown() override { driver.frameList.clear(); }
    const FRAME_PRO& frame(int i) const { return driver.frameList.at(i); }
};

TEST(ComputateCheck, SumNegatedAboveByteRangeElseKept) {
    unsigned char hs1[] = {0xFF, 0x02, 0x07, 0x01};
    EXPECT_EQ(computate_check(hs1, 4) & 0xFF, 0xF7);
    EXPECT_EQ(computate_check(hs1, 4), 0xFEF7);
    unsigned char hs2[] = {0xFF, 0x06, 0x20, 0x00, 0x01, 0x06, 0x00, 0x00};
    EXPECT_EQ(computate_check(hs2, 8) & 0xFF, 0xD4);
    unsigned char small[] = {100, 60, 40};
    EXPECT_EQ(computate_check(small, 3), 200);
    unsigned char edge[] = {0xFF};
    EXPECT_EQ(computate_check(edge, 1), 0xFF);
    EXPECT_EQ(computate_check(hs1, 0), 0);
    EXPECT_EQ(computate_check(nullptr, 5), 0);
}

TEST(WorkingBlock, BitBlocksBecomeCoveringWords) {
    VARIABLE w = workingBlock(block("DM_bit", 1603, 1));
    EXPECT_EQ(w.reg, QStringLiteral("DM"));
    EXPECT_EQ(w.address, 100);
    EXPECT_EQ(w.length, 1);
    w = workingBlock(block("MR_bit", 165, 20));
    EXPECT_EQ(w.reg, QStringLiteral("MR"));
    EXPECT_EQ(w.address, 10);
    EXPECT_EQ(w.length, 2);
    w = workingBlock(block("CM_bit", 16 * 7 + 15, 2));  // bits 15 of word 7 and 0 of word 8
    EXPECT_EQ(w.address, 7);
    EXPECT_EQ(w.length, 2);
    w = workingBlock(block("DM_bit", 48, 16));
    EXPECT_EQ(w.length, 1);
    w = workingBlock(block("DM_bit", 48, 0));
    EXPECT_EQ(w.length, 0);
    w = workingBlock(block("DM_bit", 47, INT_MAX));
    EXPECT_GT(w.length, 0);

    VARIABLE plain = block("R", 37, 4, {1, 2});
    w = workingBlock(plain);
    EXPECT_EQ(w.reg, QStringLiteral("R"));
    EXPECT_EQ(w.address, 37);
    EXPECT_EQ(w.length, 4);
    EXPECT_EQ(w.data[1], 2);
}

TEST_F(FrameBuilder, HandshakeIsFiveFramesWithTheirCheckBytes) {
    handShakeFrame();
    ASSERT_EQ(driver.frameList.size(), 5);
    const char* bytes[5] = {"06", "01 00 FF 02 07 01 F7 04", "06", "01 00 FF 06 20 00 01 06 00 00 D4 04",
                            "06"};
    const int send[5] = {1, 8, 1, 12, 1};
    const int reply[5] = {0, 9, 0, 10, 0};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(bytesOf(frame(i)), hex(bytes[i]));
        EXPECT_EQ(frame(i).sendLength, send[i]);
        EXPECT_EQ(frame(i).replyLength, reply[i]);
        EXPECT_EQ(frame(i).dataOffset, 0);
        EXPECT_EQ(frame(i).elementCount, 0);
        EXPECT_EQ(frame(i).id, 0);
        EXPECT_EQ(frame(i).station, 0);
        EXPECT_TRUE(frame(i).reg.isEmpty());
        EXPECT_EQ(frame(i).address, 0);
        EXPECT_EQ(frame(i).length, 0);
    }
}

struct ReadCase {
    const char* reg;
    int address, length;
    const char* bytes;
    int replyLength, elementCount;
    int recordAddress, recordLength;
};

TEST_F(FrameBuilder, ReadFramesByKind) {
    const ReadCase cases[] = {
        {"DM", 100, 3, "06 01 00 FF 0C 1E 00 00 06 00 00 00 03 00 00 00 64 6A 04", 17, 3, 100, 3},
        {"TC", 5, 2, "06 01 00 FF 0C 1E 00 00 02 00 00 00 02 00 00 00 05 CE 04", 29, 2, 5, 2},
        {"MR_bit", 165, 20, "06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04", 15, 2, 165, 20},
        {"MR", 10, 2, "06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04", 15, 2, 10, 2},
        {"R", 37, 4, "06 01 00 FF 0C 1E 00 00 00 00 00 00 01 00 00 00 20 B6 04", 13, 9, 32, 9},
        {"R", 30, 4, "06 01 00 FF 0C 1E 00 00 00 00 00 00 02 00 00 00 10 C5 04", 15, 18, 16, 18},
        {"B", 0x25, 3, "06 01 00 FF 0C 1E 00 00 1B 00 00 00 01 00 00 00 20 9B 04", 13, 8, 0x20, 8},
        {"Z", 3, 2, "06 01 00 FF 0C 1E 00 00 30 00 00 00 02 00 00 00 03 A2 04", 19, 2, 3, 2},
        {"T", 7, 3, "06 01 00 FF 0C 1E 00 00 02 00 00 00 03 00 00 00 07 CB 04", 38, 3, 7, 3},
    };
    for (const ReadCase& c : cases) {
        SCOPED_TRACE(c.reg + std::string(" ") + std::to_string(c.address));
        driver.frameList.clear();
        ASSERT_EQ(read(block(c.reg, c.address, c.length, {0xAB})), 1);
        ASSERT_EQ(driver.frameList.size(), 1);
        const FRAME_PRO& f = frame(0);
        EXPECT_EQ(bytesOf(f), hex(c.bytes));
        EXPECT_EQ(f.sendLength, 19);
        EXPECT_EQ(f.dataOffset, 9);
        EXPECT_EQ(f.replyLength, c.replyLength);
        EXPECT_EQ(f.elementCount, c.elementCount);
        EXPECT_EQ(f.reserved, 0);
        EXPECT_EQ(f.id, 77);
        EXPECT_EQ(f.station, 3);
        EXPECT_EQ(f.reg, QString::fromLatin1(c.reg));
        EXPECT_EQ(f.address, c.recordAddress);
        EXPECT_EQ(f.length, c.recordLength);
        EXPECT_EQ(f.data[0], 0xAB);
    }
}

TEST_F(FrameBuilder, ReadUsesOnlyTheFirstBlockAndLeavesTheCallersListAlone) {
    QList<VARIABLE> list;
    list << block("R", 37, 4) << block("DM", 1, 1);
    EXPECT_EQ(getReadFrame(list), 1);
    ASSERT_EQ(driver.frameList.size(), 1);
    EXPECT_EQ(list.first().address, 37);
    EXPECT_EQ(list.first().length, 4);
    EXPECT_EQ(frame(0).reg, QStringLiteral("R"));
}

TEST_F(FrameBuilder, ReadRefusesWhatCannotBeFramed) {
    const VARIABLE refused[] = {
        block("XX", 0, 1),           block("dm", 0, 1),
        block("Z_bit", 16, 1),       block("DM", 0, 0),
        block("DM", 0, -3),          block("DM_bit", 3, 0),
        block("DM", -1, 1),          block("R", -5, 4),
        block("DM", 0, 0x10000),     block("R", 0, 0xFFFF * 16 + 1),
        block("TC", 0, 0x10000),     block("MR", 0x10000000, 1),
        block("DM_bit", 0, INT_MAX),
    };
    for (const VARIABLE& v : refused) {
        SCOPED_TRACE(v.reg.toStdString() + " " + std::to_string(v.address) + " " + std::to_string(v.length));
        EXPECT_EQ(read(v), 0);
        EXPECT_TRUE(driver.frameList.isEmpty());
    }
    EXPECT_EQ(getReadFrame(QList<VARIABLE>()), 0);
    EXPECT_TRUE(driver.frameList.isEmpty());

    // The largest that still fits.
    EXPECT_EQ(read(block("DM", INT_MAX, 0xFFFF)), 1);
    EXPECT_EQ(read(block("MR", 0x0FFFFFFF, 1)), 1);
    EXPECT_EQ(bytesOf(frame(1)).at(13), 0xFF);
    EXPECT_EQ(bytesOf(frame(1)).at(16), 0xF0);
    EXPECT_EQ(read(block("R", 0, 0xFFFF * 16)), 1);
    EXPECT_EQ(frame(2).replyLength, 2 * 0xFFFF + 11);
}

struct WriteCase {
    const char* reg;
    int address, length;
    std::vector<unsigned char> data;
    const char* bytes;
    int replyLength, dataOffset;
};

TEST_F(FrameBuilder, WriteFramesByKind) {
    const WriteCase cases[] = {
        {"DM",
         100,
         2,
         {0x34, 0x12, 0x78, 0x56},
         "06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04",
         10,
         17},
        {"MR",
         10,
         2,
         {0x34, 0x12, 0x78, 0x56},
         "06 01 00 FF 10 1E 01 00 11 00 00 00 02 00 00 00 A0 12 34 56 78 0B 04",
         10,
         17},
        {"Z",
         3,
         2,
         {0x78, 0x56, 0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A},
         "06 01 00 FF 14 1E 01 00 30 00 00 00 02 00 00 00 03 12 34 56 78 9A BC DE F0 61 04",
         10,
         17},
        {"TC", 5, 1, {0xE8, 0x03, 0x00, 0x00}, "06 01 00 FF 0A 18 00 01 20 00 05 00 00 03 E8 CE 04", 9, 0},
        {"TS",
         9,
         2,
         {0x0F, 0x27, 0x00, 0x00, 0x11, 0x11, 0x11, 0x11},
         "06 01 00 FF 0A 18 00 01 21 00 09 00 00 27 0F 7E 04",
         9,
         0},
        {"R", 37, 1, {1}, "06 01 00 FF 06 32 00 01 00 00 25 A3 04", 9, 0},
        {"B", 16, 1, {0}, "06 01 00 FF 06 33 00 01 1B 00 10 9C 04", 9, 0},
        {"B", 16, 3, {1, 0, 0}, "06 01 00 FF 06 32 00 01 1B 00 10 9D 04", 9, 0},
    };
    for (const WriteCase& c : cases) {
        SCOPED_TRACE(c.reg + std::string(" ") + std::to_string(c.address));
        driver.frameList.clear();
        VARIABLE v = block(c.reg, c.address, c.length, c.data);
        getWriteFrame(v);
        // Bit and timer/counter value frames carry one element: one frame per element.
        const std::string r = c.reg;
        const bool perElement = r == "R" || r == "B" || r == "TC" || r == "TS" || r == "CC" || r == "CS";
        ASSERT_EQ(driver.frameList.size(), perElement ? c.length : 1);
        const FRAME_PRO& f = frame(0);
        EXPECT_EQ(bytesOf(f), hex(c.bytes));
        EXPECT_EQ(f.replyLength, c.replyLength);
        EXPECT_EQ(f.dataOffset, c.dataOffset);
        EXPECT_EQ(f.elementCount, 0);
        EXPECT_EQ(f.id, 77);
        EXPECT_EQ(f.station, 3);
        EXPECT_EQ(f.reg, QString::fromLatin1(c.reg));
        EXPECT_EQ(f.address, c.address);
        EXPECT_EQ(f.length, c.length);
        EXPECT_EQ(f.data[0], c.data[0]);
    }
    // The second value of the TS block goes in its own frame, at the next address.
    driver.frameList.clear();
    VARIABLE ts = block("TS", 9, 2, {0x0F, 0x27, 0x00, 0x00, 0x11, 0x11, 0x11, 0x11});
    getWriteFrame(ts);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(1)), hex("06 01 00 FF 0A 18 00 01 21 00 0A 11 11 11 11 6F 04"));
}

TEST_F(FrameBuilder, BitInWordWriteIsReadThenWrite) {
    VARIABLE v = block("DM_bit", 1603, 1, {1});
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(0)), hex("06 01 00 FF 0C 1E 00 00 06 00 00 00 01 00 00 00 64 6C 04"));
    EXPECT_EQ(frame(0).replyLength, 13);
    EXPECT_EQ(frame(0).elementCount, 1);
    EXPECT_EQ(frame(0).dataOffset, 9);
    EXPECT_EQ(bytesOf(frame(1)), hex("06 01 00 FF 0E 1E 01 00 06 00 00 00 01 00 00 00 64 00 00 69 04"));
    EXPECT_EQ(frame(1).sendLength, 21);
    EXPECT_EQ(frame(1).replyLength, 10);
    EXPECT_EQ(frame(1).dataOffset, 17);
    EXPECT_EQ(frame(1).elementCount, 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(frame(i).reg, QStringLiteral("DM_bit"));
        EXPECT_EQ(frame(i).address, 1603);
        EXPECT_EQ(frame(i).length, 1);
        EXPECT_EQ(frame(i).data[0], 1);
    }

    driver.frameList.clear();
    VARIABLE mr = block("MR_bit", 165, 20);
    getWriteFrame(mr);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(0)), hex("06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04"));
    EXPECT_EQ(bytesOf(frame(1)), hex("06 01 00 FF 10 1E 01 00 11 00 00 00 02 00 00 00 A0 00 00 00 00 1F 04"));
}

TEST_F(FrameBuilder, WritesThatAppendNothing) {
    const VARIABLE refused[] = {
        block("C", 5, 1, {1}),       block("T", 5, 1, {1}),    block("XX", 0, 1),
        block("Z_bit", 0, 1),        block("DM", 0, 0),        block("DM", -1, 1),
        block("R", 0x10000, 1, {1}), block("B", -1, 1),        block("TC", 0x10000, 1),
        block("CS", 3, 0),           block("DM", 0, 513),      block("Z", 0, 257),
        block("MR", 0x0FFFFFFF, 2),  block("DM_bit", 0, 1025), block("DM_bit", 0, 0),
        block("DM_bit", -16, 1),
    };
    for (VARIABLE v : refused) {
        SCOPED_TRACE(v.reg.toStdString() + " " + std::to_string(v.address) + " " + std::to_string(v.length));
        getWriteFrame(v);
        EXPECT_TRUE(driver.frameList.isEmpty());
    }
    // The limits themselves still go out.
    VARIABLE bits = block("DM_bit", 15, 1024);
    getWriteFrame(bits);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(frame(1).frame[4], 65 * 2 + 12);
    VARIABLE r = block("R", 0xFFFF, 1, {1});
    getWriteFrame(r);
    ASSERT_EQ(driver.frameList.size(), 3);
    EXPECT_EQ(bytesOf(frame(2)), hex("06 01 00 FF 06 32 00 01 00 FF FF CA 04"));
}

// The expected frame of one slice of a long write, built from its parts.
std::vector<unsigned char> wordWrite(int area, int n, uint32_t start,
                                     const std::vector<unsigned char>& valuesMsbFirst) {
    std::vector<unsigned char> f = {0x06,
                                    0x01,
                                    0x00,
                                    0xFF,
                                    static_cast<unsigned char>(valuesMsbFirst.size() + 12),
                                    0x1E,
                                    0x01,
                                    0x00,
                                    static_cast<unsigned char>(area),
                                    0x00,
                                    0x00,
                                    static_cast<unsigned char>(n >> 8),
                                    static_cast<unsigned char>(n),
                                    static_cast<unsigned char>(start >> 24),
                                    static_cast<unsigned char>(start >> 16),
                                    static_cast<unsigned char>(start >> 8),
                                    static_cast<unsigned char>(start)};
    for (unsigned char b : valuesMsbFirst) f.push_back(b);
    f.push_back(deviceCheck(f, 3, f.size()));
    f.push_back(0x04);
    return f;
}

TEST_F(FrameBuilder, LongWordWriteIsSplitIntoFramesBelowTheLengthLimit) {
    VARIABLE v = block("DM", 1000, 128);
    for (int i = 0; i < 128; ++i) {
        v.data[2 * i] = static_cast<unsigned char>(i);                    // low byte
        v.data[2 * i + 1] = static_cast<unsigned char>(0x80 | (i >> 4));  // high byte
    }
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.size(), 2);
    const int first[2] = {0, 121};
    const int count[2] = {121, 7};
    for (int s = 0; s < 2; ++s) {
        SCOPED_TRACE(s);
        std::vector<unsigned char> values;
        for (int i = first[s]; i < first[s] + count[s]; ++i) {
            values.push_back(static_cast<unsigned char>(0x80 | (i >> 4)));
            values.push_back(static_cast<unsigned char>(i));
        }
        const FRAME_PRO& f = frame(s);
        EXPECT_EQ(bytesOf(f), wordWrite(6, count[s], 1000 + first[s], values));
        EXPECT_EQ(f.sendLength, 2 * count[s] + 19);
        EXPECT_LT(f.frame[4], 256 - 1);
        EXPECT_EQ(f.replyLength, 10);
        EXPECT_EQ(f.dataOffset, 17);
        EXPECT_EQ(f.elementCount, 0);
        EXPECT_EQ(f.reg, QStringLiteral("DM"));
        EXPECT_EQ(f.address, 1000);
        EXPECT_EQ(f.length, 128);
        EXPECT_EQ(f.data[255], v.data[255]);
    }
    EXPECT_EQ(frame(0).sendLength, 261);
}

TEST_F(FrameBuilder, LongDoubleWordWriteIsSplitIntoSixtyValueFrames) {
    VARIABLE v = block("TRM", 2, 128);
    for (int i = 0; i < 4 * 128; ++i) v.data[i] = static_cast<unsigned char>(i * 7);
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.size(), 3);
    const int first[3] = {0, 60, 120};
    const int count[3] = {60, 60, 8};
    for (int s = 0; s < 3; ++s) {
        SCOPED_TRACE(s);
        std::vector<unsigned char> values;
        for (int i = first[s]; i < first[s] + count[s]; ++i)
            for (int b = 3; b >= 0; --b) values.push_back(static_cast<unsigned char>((4 * i + b) * 7));
        EXPECT_EQ(bytesOf(frame(s)), wordWrite(38, count[s], 2 + first[s], values));
        EXPECT_EQ(frame(s).sendLength, 4 * count[s] + 19);
        EXPECT_EQ(frame(s).address, 2);
        EXPECT_EQ(frame(s).length, 128);
    }
}

TEST_F(FrameBuilder, LongRelayWordWriteStartsEachSliceAtItsWordTimesSixteen) {
    VARIABLE v = block("LR", 5, 128);
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(0)), wordWrite(18, 121, 5 * 16, std::vector<unsigned char>(242, 0)));
    EXPECT_EQ(bytesOf(frame(1)), wordWrite(18, 7, (5 + 121) * 16, std::vector<unsigned char>(14, 0)));
}

// Whatever block comes in, every frame stays inside its buffer, its length
// byte matches what is sent and its check byte is right.
TEST_F(FrameBuilder, NoBlockYieldsAnOversizedOrBrokenFrame) {
    const int addresses[] = {0, 37, 0xFFFF, 0x10000, 0x0FFFFFFF, INT_MAX, -1, INT_MIN};
    const int lengths[] = {1, 2, 60, 61, 121, 122, 128, 512, 513, 1025, 0xFFFF, 0x10000, INT_MAX, 0, -1};
    for (int r = 0; r < REG_COUNT; ++r) {
        for (int a : addresses) {
            for (int n : lengths) {
                VARIABLE v = block(REG_LIST[r], a, n, {1, 2, 3, 4});
                driver.frameList.clear();
                read(v);
                getWriteFrame(v);
                for (const FRAME_PRO& f : driver.frameList) {
                    SCOPED_TRACE(std::string(REG_LIST[r]) + " " + std::to_string(a) + " " +
                                 std::to_string(n));
                    ASSERT_GE(f.sendLength, 13);
                    ASSERT_LE(f.sendLength, KV_BUFFER_SIZE);
                    const std::vector<unsigned char> b = bytesOf(f);
                    EXPECT_EQ(b[4] + 7, f.sendLength);
                    EXPECT_EQ(b.back(), 0x04);
                    EXPECT_EQ(b[b.size() - 2], deviceCheck(b, 3, b.size() - 2));
                    EXPECT_GT(f.replyLength, 0);
                }
            }
        }
    }
}

}  // namespace
