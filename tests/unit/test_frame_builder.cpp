// Request frames: handshake, reads, word/bit/value writes, byte for byte,
// with their bookkeeping fields, the split of long writes and the refusal of
// blocks that cannot be framed.
#include "kv_3000/frame_builder.h"

#include "kv3000_catalogue.h"
#include "protocol.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <sstream>
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

// "replyLength dataOffset elementCount @address x length"
std::string book(const FRAME_PRO& f) {
    std::ostringstream s;
    s << f.replyLength << ' ' << f.dataOffset << ' ' << f.elementCount << " @" << f.address << 'x'
      << f.length;
    return s.str();
}

VARIABLE block(const char* reg, int address, int length, const char* data = "") {
    VARIABLE v;
    v.id = 77;
    v.station = 3;
    v.reg = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    const std::vector<unsigned char> bytes = hex(data);
    std::copy(bytes.begin(), bytes.end(), v.data);
    return v;
}

// Every frame carries a copy of the block it serves.
void expectRecordOf(const FRAME_PRO& f, const VARIABLE& v) {
    EXPECT_EQ(f.id, v.id);
    EXPECT_EQ(f.station, v.station);
    EXPECT_EQ(f.reg, v.reg);
    EXPECT_EQ(f.reserved, 0);
    EXPECT_TRUE(std::equal(f.data, f.data + KV_BUFFER_SIZE, v.data));
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
    unsigned char hs1[] = {0xFF, 0x02, 0x07, 0x01}, small[] = {100, 60, 40}, edge[] = {0xFF};
    EXPECT_EQ(computate_check(hs1, 4), 0xFEF7);
    EXPECT_EQ(computate_check(small, 3), 200);
    EXPECT_EQ(computate_check(edge, 1), 0xFF);
    EXPECT_EQ(computate_check(hs1, 0), 0);
    EXPECT_EQ(computate_check(nullptr, 5), 0);
}

TEST(WorkingBlock, BitBlocksBecomeCoveringWords) {
    const struct {
        const char *reg, *wreg;
        int address, length, waddress, wlength;
    } cases[] = {
        {"DM_bit", "DM", 1603, 1, 100, 1}, {"MR_bit", "MR", 165, 20, 10, 2},
        {"CM_bit", "CM", 127, 2, 7, 2},  // bit 15 of word 7 and bit 0 of word 8
        {"DM_bit", "DM", 48, 16, 3, 1},    {"DM_bit", "DM", 48, 0, 3, 0},
        {"R", "R", 37, 4, 37, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " " + std::to_string(c.address));
        const VARIABLE w = workingBlock(block(c.reg, c.address, c.length, "01 02"));
        EXPECT_EQ(w.reg, QString::fromLatin1(c.wreg));
        EXPECT_EQ(w.address, c.waddress);
        EXPECT_EQ(w.length, c.wlength);
        EXPECT_EQ(w.data[1], 2);
    }
    EXPECT_GT(workingBlock(block("DM_bit", 47, INT_MAX)).length, 0);
}

TEST_F(FrameBuilder, HandshakeIsFiveFramesWithTheirCheckBytes) {
    handShakeFrame();
    ASSERT_EQ(driver.frameList.size(), 5);
    const char* bytes[5] = {"06", "01 00 FF 02 07 01 F7 04", "06", "01 00 FF 06 20 00 01 06 00 00 D4 04",
                            "06"};
    const char* books[5] = {"0 0 0 @0x0", "9 0 0 @0x0", "0 0 0 @0x0", "10 0 0 @0x0", "0 0 0 @0x0"};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(bytesOf(frame(i)), hex(bytes[i]));
        EXPECT_EQ(book(frame(i)), books[i]);
        expectRecordOf(frame(i), VARIABLE());
    }
}

TEST_F(FrameBuilder, ReadFramesByKind) {
    const struct {
        const char* reg;
        int address, length;
        const char *bytes, *book;
    } cases[] = {
        {"DM", 100, 3, "06 01 00 FF 0C 1E 00 00 06 00 00 00 03 00 00 00 64 6A 04", "17 9 3 @100x3"},
        {"TC", 5, 2, "06 01 00 FF 0C 1E 00 00 02 00 00 00 02 00 00 00 05 CE 04", "29 9 2 @5x2"},
        {"MR_bit", 165, 20, "06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04", "15 9 2 @165x20"},
        {"MR", 10, 2, "06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04", "15 9 2 @10x2"},
        // Relay bits are read from the word holding the first one: the block grows to it.
        {"R", 37, 4, "06 01 00 FF 0C 1E 00 00 00 00 00 00 01 00 00 00 20 B6 04", "13 9 9 @32x9"},
        {"R", 30, 4, "06 01 00 FF 0C 1E 00 00 00 00 00 00 02 00 00 00 10 C5 04", "15 9 18 @16x18"},
        {"B", 0x25, 3, "06 01 00 FF 0C 1E 00 00 1B 00 00 00 01 00 00 00 20 9B 04", "13 9 8 @32x8"},
        {"Z", 3, 2, "06 01 00 FF 0C 1E 00 00 30 00 00 00 02 00 00 00 03 A2 04", "19 9 2 @3x2"},
        {"T", 7, 3, "06 01 00 FF 0C 1E 00 00 02 00 00 00 03 00 00 00 07 CB 04", "38 9 3 @7x3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reg + std::string(" ") + std::to_string(c.address));
        driver.frameList.clear();
        const VARIABLE v = block(c.reg, c.address, c.length, "AB");
        ASSERT_EQ(read(v), 1);
        ASSERT_EQ(driver.frameList.size(), 1);
        EXPECT_EQ(bytesOf(frame(0)), hex(c.bytes));
        EXPECT_EQ(book(frame(0)), c.book);
        expectRecordOf(frame(0), v);
    }
    // Only the first block counts; the caller's list is left alone.
    QList<VARIABLE> list;
    list << block("R", 37, 4) << block("DM", 1, 1);
    EXPECT_EQ(getReadFrame(list), 1);
    EXPECT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(list.first().address, 37);
    EXPECT_EQ(list.first().length, 4);
    EXPECT_EQ(frame(1).reg, QStringLiteral("R"));
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

TEST_F(FrameBuilder, WriteFramesByKind) {
    // Bit and timer/counter value frames carry one element: one frame per element.
    const struct {
        const char* reg;
        int address, length;
        const char *data, *frames;  // frames separated by commas
    } cases[] = {
        {"DM", 100, 2, "34 12 78 56", "06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04"},
        {"MR", 10, 2, "34 12 78 56", "06 01 00 FF 10 1E 01 00 11 00 00 00 02 00 00 00 A0 12 34 56 78 0B 04"},
        {"Z", 3, 2, "78 56 34 12 F0 DE BC 9A",
         "06 01 00 FF 14 1E 01 00 30 00 00 00 02 00 00 00 03 12 34 56 78 9A BC DE F0 61 04"},
        {"TC", 5, 1, "E8 03 00 00", "06 01 00 FF 0A 18 00 01 20 00 05 00 00 03 E8 CE 04"},
        {"TS", 9, 2, "0F 27 00 00 11 11 11 11",
         "06 01 00 FF 0A 18 00 01 21 00 09 00 00 27 0F 7E 04, "
         "06 01 00 FF 0A 18 00 01 21 00 0A 11 11 11 11 6F 04"},
        {"R", 37, 1, "01", "06 01 00 FF 06 32 00 01 00 00 25 A3 04"},
        {"B", 16, 3, "01 00 00",
         "06 01 00 FF 06 32 00 01 1B 00 10 9D 04, 06 01 00 FF 06 33 00 01 1B 00 11 9B 04, "
         "06 01 00 FF 06 33 00 01 1B 00 12 9A 04"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reg + std::string(" ") + std::to_string(c.address));
        driver.frameList.clear();
        VARIABLE v = block(c.reg, c.address, c.length, c.data);
        getWriteFrame(v);
        const QStringList frames = QString::fromLatin1(c.frames).split(QLatin1Char(','));
        ASSERT_EQ(driver.frameList.size(), frames.size());
        const bool wordWrite = hex(c.frames)[5] == 0x1E;
        for (int i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(bytesOf(frame(i)), hex(frames[i].toLatin1().constData())) << i;
            EXPECT_EQ(book(frame(i)), (wordWrite ? "10 17 0 @" : "9 0 0 @") + std::to_string(c.address) +
                                          "x" + std::to_string(c.length));
            expectRecordOf(frame(i), v);
        }
    }
}

TEST_F(FrameBuilder, BitInWordWriteIsReadThenWrite) {
    VARIABLE v = block("DM_bit", 1603, 1, "01");
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(0)), hex("06 01 00 FF 0C 1E 00 00 06 00 00 00 01 00 00 00 64 6C 04"));
    EXPECT_EQ(book(frame(0)), "13 9 1 @1603x1");
    EXPECT_EQ(bytesOf(frame(1)), hex("06 01 00 FF 0E 1E 01 00 06 00 00 00 01 00 00 00 64 00 00 69 04"));
    EXPECT_EQ(book(frame(1)), "10 17 0 @1603x1");
    for (int i = 0; i < 2; ++i) expectRecordOf(frame(i), v);

    driver.frameList.clear();
    VARIABLE mr = block("MR_bit", 165, 20);
    getWriteFrame(mr);
    ASSERT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(bytesOf(frame(0)), hex("06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04"));
    EXPECT_EQ(bytesOf(frame(1)), hex("06 01 00 FF 10 1E 01 00 11 00 00 00 02 00 00 00 A0 00 00 00 00 1F 04"));
}

TEST_F(FrameBuilder, WritesThatAppendNothing) {
    const VARIABLE refused[] = {
        block("C", 5, 1, "01"),     block("T", 5, 1, "01"),   block("XX", 0, 1),
        block("Z_bit", 0, 1),       block("DM", 0, 0),        block("DM", -1, 1),
        block("B", -1, 1),          block("TC", 0x10000, 1),  block("R", 0x10000, 1, "01"),
        block("CS", 3, 0),          block("DM", 0, 513),      block("Z", 0, 257),
        block("MR", 0x0FFFFFFF, 2), block("DM_bit", 0, 1025), block("DM_bit", 0, 0),
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
    VARIABLE r = block("R", 0xFFFF, 1, "01");
    getWriteFrame(r);
    ASSERT_EQ(driver.frameList.size(), 3);
    EXPECT_EQ(bytesOf(frame(2)), hex("06 01 00 FF 06 32 00 01 00 FF FF CA 04"));
}

// Longer blocks go out as several frames whose length byte stays below 256:
// 121 words or 60 double words each, every slice at its own start address.
TEST_F(FrameBuilder, LongWritesAreSplitBelowTheLengthLimit) {
    const struct {
        const char* reg;
        int area, address, unitBytes, addressScale;
        std::vector<int> counts;
    } cases[] = {
        {"DM", 6, 1000, 2, 1, {121, 7}},
        {"TRM", 38, 2, 4, 1, {60, 60, 8}},
        {"LR", 18, 5, 2, 16, {121, 7}},  // relay words are addressed as word * 16
    };
    auto byteAt = [](int k) { return static_cast<unsigned char>(k * 7 + k / 256); };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reg);
        driver.frameList.clear();
        VARIABLE v = block(c.reg, c.address, 128);
        for (int k = 0; k < 128 * c.unitBytes; ++k) v.data[k] = byteAt(k);
        getWriteFrame(v);
        ASSERT_EQ(size_t(driver.frameList.size()), c.counts.size());
        int first = 0;
        for (size_t s = 0; s < c.counts.size(); ++s) {
            const int n = c.counts[s];
            const uint32_t start = uint32_t((c.address + first) * c.addressScale);
            std::vector<unsigned char> expected;
            for (int x : {0x06, 0x01, 0x00, 0xFF, n * c.unitBytes + 12, 0x1E, 0x01, 0x00, c.area, 0x00, 0x00,
                          n >> 8, n, int(start >> 24), int(start >> 16), int(start >> 8), int(start)})
                expected.push_back(static_cast<unsigned char>(x));
            for (int i = first; i < first + n; ++i)
                for (int b = c.unitBytes - 1; b >= 0; --b) expected.push_back(byteAt(c.unitBytes * i + b));
            expected.push_back(deviceCheck(expected, 3, expected.size()));
            expected.push_back(0x04);
            EXPECT_EQ(bytesOf(frame(int(s))), expected) << s;
            EXPECT_EQ(book(frame(int(s))), "10 17 0 @" + std::to_string(c.address) + "x128");
            expectRecordOf(frame(int(s)), v);
            first += n;
        }
    }
}

// Whatever block comes in, every frame stays inside its buffer, its length
// byte matches what is sent and its check byte is right.
TEST_F(FrameBuilder, NoBlockYieldsAnOversizedOrBrokenFrame) {
    const int addresses[] = {0, 37, 0xFFFF, 0x10000, 0x0FFFFFFF, INT_MAX, -1, INT_MIN};
    const int lengths[] = {1, 2, 60, 61, 121, 122, 128, 512, 513, 1025, 0xFFFF, 0x10000, INT_MAX, 0, -1};
    for (int r = 0; r < REG_COUNT; ++r) {
        for (int a : addresses) {
            for (int n : lengths) {
                VARIABLE v = block(REG_LIST[r], a, n, "01 02 03 04");
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
