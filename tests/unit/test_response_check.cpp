// Reply acceptance against the outstanding frame: handshake lengths and its
// end, acknowledge frames, the envelope and check byte of read and write
// replies, and replies too short to hold an envelope.
#include "kv_3000/frame_builder.h"
#include "kv_3000/response_check.h"

#include "protocol.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <vector>

namespace {

class ResponseCheck : public ::testing::Test {
protected:
    void SetUp() override {
        driver.frameList.clear();
        driver.handShakeFlag = 0;
        driver.frameIndex = 0;
        driver.readFrameCount = 0;
    }
    void TearDown() override {
        driver.frameList.clear();
        driver.handShakeFlag = 0;
    }

    void expectOnly(int replyLength, int elementCount = 0) {
        FRAME_PRO f;
        f.replyLength = replyLength;
        f.elementCount = elementCount;
        driver.frameList.append(f);
    }

    static int check(std::vector<unsigned char> reply) {
        return check_rcv_data(reply.empty() ? nullptr : reply.data(), QList<VARIABLE>(), int(reply.size()));
    }
};

// A read reply of "DM" 3 words as the device sends it: the check byte at 15
// is the low byte of the negated sum of positions 3 .. 14.
std::vector<unsigned char> dmReply() {
    return {0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x00,
            0x12, 0x34, 0x00, 0x05, 0xAB, 0xCD, 0x14, 0x04};
}

TEST_F(ResponseCheck, HandshakeChecksOnlyTheLength) {
    driver.handShakeFlag = 1;
    handShakeFrame();
    driver.frameList.removeFirst();  // the first acknowledge went out
    EXPECT_EQ(check(std::vector<unsigned char>(9, 0x55)), 2);
    EXPECT_EQ(driver.handShakeFlag, 1);
    EXPECT_EQ(check(std::vector<unsigned char>(8, 0x06)), 0);
    EXPECT_EQ(check(std::vector<unsigned char>(10, 0x06)), 0);
    EXPECT_EQ(driver.handShakeFlag, 1);

    driver.frameList.removeFirst();
    EXPECT_EQ(check({}), 2);  // acknowledge frame, nothing comes back
    EXPECT_EQ(check({0x06}), 0);
    EXPECT_EQ(driver.handShakeFlag, 1);

    driver.frameList.removeFirst();
    EXPECT_EQ(check(std::vector<unsigned char>(9, 0)), 0);
    EXPECT_EQ(driver.handShakeFlag, 1);
    EXPECT_EQ(check(std::vector<unsigned char>(10, 0)), 2);
    EXPECT_EQ(driver.handShakeFlag, 0);

    // After the 10-byte answer the last acknowledge accepts anything.
    driver.frameList.removeFirst();
    EXPECT_EQ(check({0x13}), 2);
    EXPECT_EQ(check({}), 2);
}

TEST_F(ResponseCheck, TenBytesEndTheHandshakeOnlyWhenTenAreExpected) {
    driver.handShakeFlag = 1;
    expectOnly(9);
    EXPECT_EQ(check(std::vector<unsigned char>(10, 0)), 0);
    EXPECT_EQ(driver.handShakeFlag, 1);
}

TEST_F(ResponseCheck, ReadReplyWithValues) {
    ASSERT_EQ(getReadFrame(QList<VARIABLE>() <<
                           [] {
                               VARIABLE v;
                               v.reg = QStringLiteral("DM");
                               v.address = 100;
                               v.length = 3;
                               return v;
                           }()),
              1);
    ASSERT_EQ(driver.frameList.first().replyLength, 17);
    EXPECT_EQ(check(dmReply()), 1);

    std::vector<unsigned char> r = dmReply();
    r[15] ^= 0x01;
    EXPECT_EQ(check(r), 0);
    r = dmReply();
    r[9] ^= 0x01;  // a covered byte
    EXPECT_EQ(check(r), 0);
    r = dmReply();
    r.pop_back();
    EXPECT_EQ(check(r), 0);
    r = dmReply();
    r[0] = 0x15;
    EXPECT_EQ(check(r), 0);
    r = dmReply();
    r[16] = 0x03;
    EXPECT_EQ(check(r), 0);
    r = dmReply();
    r[1] = 0xEE;  // not covered
    r[2] = 0xEE;
    EXPECT_EQ(check(r), 1);
}

TEST_F(ResponseCheck, WriteRepliesCarryNoValues) {
    VARIABLE v;
    v.reg = QStringLiteral("DM");
    v.address = 100;
    v.length = 1;
    getWriteFrame(v);
    ASSERT_EQ(driver.frameList.first().replyLength, 10);
    // Positions 3..7 sum to 0x123: check byte 0xDD.
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0xFF, 0x05, 0x1E, 0x01, 0x00, 0xDD, 0x04}), 2);
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0xFF, 0x05, 0x1E, 0x01, 0x00, 0x23, 0x04}), 0);
}

TEST_F(ResponseCheck, SmallSumIsItsOwnCheckByte) {
    expectOnly(9);
    // Positions 3..6 sum to 0xA0, below 256: no negation.
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0x10, 0x20, 0x30, 0x40, 0xA0, 0x04}), 2);
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0x10, 0x20, 0x30, 0x40, 0x60, 0x04}), 0);
    // A sum of exactly 255 is kept as well.
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0xFF, 0x00, 0x00, 0x00, 0xFF, 0x04}), 2);
    EXPECT_EQ(check({0x06, 0x01, 0x00, 0xFF, 0x01, 0x00, 0x00, 0x00, 0x04}), 2);
}

TEST_F(ResponseCheck, AcknowledgeFrameOutsideHandshakeAcceptsAnything) {
    expectOnly(0);
    EXPECT_EQ(check({}), 2);
    EXPECT_EQ(check({0xFF, 0xFF, 0xFF}), 2);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), -4), 2);
}

TEST_F(ResponseCheck, TinyAndMissingRepliesAreRefusedWithoutReadingPastThem) {
    expectOnly(17, 3);
    for (int size : {-1, 0, 1, 2}) {
        std::vector<unsigned char> r(size > 0 ? size : 0, 0x06);
        EXPECT_EQ(check_rcv_data(r.empty() ? nullptr : r.data(), QList<VARIABLE>(), size), 0) << size;
    }
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), 17), 0);

    // Frames that claim replies shorter than the envelope.
    for (int size : {1, 2, 3, 4}) {
        driver.frameList.clear();
        expectOnly(size, 1);
        std::vector<unsigned char> r(size, 0x04);
        r[0] = 0x06;
        EXPECT_EQ(check(r), 0) << size;
    }
    driver.frameList.clear();
    expectOnly(5, 1);
    EXPECT_EQ(check({0x06, 0x00, 0x00, 0x00, 0x04}), 1);  // nothing covered, sum 0

    driver.handShakeFlag = 1;
    expectOnly(9);
    driver.frameList.removeFirst();
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), 9), 0);
    EXPECT_EQ(check_rcv_data(nullptr, QList<VARIABLE>(), -9), 0);
}

TEST_F(ResponseCheck, EmptyFrameListIsNoMatch) {
    std::vector<unsigned char> r = dmReply();
    EXPECT_EQ(check(r), 0);
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

TEST_F(ResponseCheck, DataStartPosition) {
    expectOnly(17, 3);
    driver.frameList.first().dataOffset = 9;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 3), 9);
    driver.readFrameCount = 1;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 3), 13);
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 0), 9);
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), -2), 1);  // min(1, -2) blocks
    driver.readFrameCount = 3;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 2), 17);
    driver.frameIndex = 1;
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 2), -1);
    driver.frameIndex = 0;
    driver.frameList.clear();
    EXPECT_EQ(allMix_GetDataStartPosition(QByteArray(), QList<VARIABLE>(), 2), -1);
    EXPECT_EQ(allMix_GetRecvLenFromReadList(QList<VARIABLE>()), 0);
}

}  // namespace
