// Reply acceptance against the outstanding frame: handshake lengths and its
// end, acknowledge frames, the envelope and check byte of read and write
// replies, and replies too short to hold an envelope.
#include "kv_3000/response_check.h"

#include "protocol.h"

#include <QByteArray>
#include <QStringList>

#include <gtest/gtest.h>

#include <vector>

namespace {

class ResponseCheck : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        driver.frameList.clear();
        driver.handShakeFlag = 0;
        driver.frameIndex = 0;
        driver.readFrameCount = 0;
    }
    static void expectOnly(int replyLength, int elementCount = 0) {
        FRAME_PRO f;
        f.replyLength = replyLength;
        f.elementCount = elementCount;
        driver.frameList.clear();
        driver.frameList.append(f);
    }
    static int check(std::vector<unsigned char> reply) {
        return check_rcv_data(reply.empty() ? nullptr : reply.data(), QList<VARIABLE>(), int(reply.size()));
    }
};

// Hex bytes; "55*9" is nine bytes 55.
std::vector<unsigned char> bytes(const char* text) {
    std::vector<unsigned char> out;
    for (const QString& b : QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QStringList repeat = b.split(QLatin1Char('*'));
        out.insert(out.end(), repeat.size() > 1 ? repeat[1].toUInt() : 1,
                   static_cast<unsigned char>(repeat[0].toUInt(nullptr, 16)));
    }
    return out;
}

TEST_F(ResponseCheck, RepliesAgainstTheOutstandingFrame) {
    // A read reply of "DM" 3 words as the device sends it: the check byte at 15
    // is the low byte of the negated sum of positions 3 .. 14.
    const char* dm = "06 01 00 FF 0C 1E 00 00 00 12 34 00 05 AB CD 14 04";
    const struct {
        int handshake, replyLength, elementCount;
        const char* reply;
        int result, handshakeAfter;
    } cases[] = {
        // The handshake checks only the length; the 10-byte answer ends it.
        {1, 9, 0, "55*9", 2, 1},
        {1, 9, 0, "06*8", 0, 1},
        {1, 9, 0, "00*10", 0, 1},
        {1, 0, 0, "", 2, 1},  // acknowledge frame: nothing comes back
        {1, 0, 0, "06", 0, 1},
        {1, 10, 0, "00*9", 0, 1},
        {1, 10, 0, "00*10", 2, 0},
        // Outside the handshake an acknowledge frame accepts anything.
        {0, 0, 0, "13", 2, 0},
        {0, 0, 0, "", 2, 0},
        {0, 0, 0, "FF FF FF", 2, 0},
        // Read replies: good, bad check byte, a covered byte changed, short, no 06, no 04;
        // positions 1 and 2 are not covered.
        {0, 17, 3, dm, 1, 0},
        {0, 17, 3, "06 01 00 FF 0C 1E 00 00 00 12 34 00 05 AB CD 15 04", 0, 0},
        {0, 17, 3, "06 01 00 FF 0C 1E 00 00 00 13 34 00 05 AB CD 14 04", 0, 0},
        {0, 17, 3, "06 01 00 FF 0C 1E 00 00 00 12 34 00 05 AB CD 14", 0, 0},
        {0, 17, 3, "15 01 00 FF 0C 1E 00 00 00 12 34 00 05 AB CD 14 04", 0, 0},
        {0, 17, 3, "06 01 00 FF 0C 1E 00 00 00 12 34 00 05 AB CD 14 03", 0, 0},
        {0, 17, 3, "06 EE EE FF 0C 1E 00 00 00 12 34 00 05 AB CD 14 04", 1, 0},
        {0, 17, 3, "", 0, 0},
        {0, 17, 3, "06", 0, 0},
        {0, 17, 3, "06 06", 0, 0},
        // Write replies carry no values: positions 3..7 sum to 0x123, check byte 0xDD.
        {0, 10, 0, "06 01 00 FF 05 1E 01 00 DD 04", 2, 0},
        {0, 10, 0, "06 01 00 FF 05 1E 01 00 23 04", 0, 0},
        // A sum up to 255 is its own check byte, not negated.
        {0, 9, 0, "06 01 00 10 20 30 40 A0 04", 2, 0},
        {0, 9, 0, "06 01 00 10 20 30 40 60 04", 0, 0},
        {0, 9, 0, "06 01 00 FF 00 00 00 FF 04", 2, 0},
        {0, 9, 0, "06 01 00 FF 01 00 00 00 04", 2, 0},
        // Frames that claim replies shorter than the envelope.
        {0, 1, 1, "06", 0, 0},
        {0, 2, 1, "06 04", 0, 0},
        {0, 3, 1, "06 04 04", 0, 0},
        {0, 4, 1, "06 04 04 04", 0, 0},
        {0, 5, 1, "06 00 00 00 04", 1, 0},  // nothing covered, sum 0
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.replyLength) + ": " + c.reply);
        expectOnly(c.replyLength, c.elementCount);
        driver.handShakeFlag = c.handshake;
        EXPECT_EQ(check(bytes(c.reply)), c.result);
        EXPECT_EQ(driver.handShakeFlag, c.handshakeAfter);
    }
    // Missing and negative-sized replies are refused without reading them.
    expectOnly(17, 3);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), 17), 0);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), -1), 0);
    driver.handShakeFlag = 1;
    expectOnly(9);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), 9), 0);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), -9), 0);
    driver.handShakeFlag = 0;
    expectOnly(0);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), -4), 2);
    // An empty frame list is no match.
    driver.frameList.clear();
    EXPECT_EQ(check(bytes(dm)), 0);
}

TEST_F(ResponseCheck, LongReplyCheckByteCoversEveryByte) {
    // A "T" read of 8000 records: 72011 bytes, longer than a 16-bit count.
    const int size = 9 * 8000 + 11;
    expectOnly(size, 8000);
    std::vector<unsigned char> r(size, 0x01);
    r[0] = 0x06;
    r[size - 1] = 0x04;
    const unsigned sum = size - 5;
    r[size - 2] = static_cast<unsigned char>(256 - (sum & 0xFF));
    EXPECT_EQ(check(r), 1);
    r[size - 3] = 0x02;
    EXPECT_EQ(check(r), 0);
}

// Nothing in the driver asks for these two.
TEST_F(ResponseCheck, DataStartPosition) {
    expectOnly(17, 3);
    driver.frameList.first().dataOffset = 9;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 3), 9);
    driver.readFrameCount = 3;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 2), 17);  // 4 per block, at most 2
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), -2), 1);  // min(3, -2) blocks
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 0), 9);
    driver.frameIndex = 1;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 2), -1);
    EXPECT_EQ(allMix_GetRecvLenFromReadList(QList<VARIABLE>()), 0);
}

}  // namespace
