// What the driver keeps from one transaction to the next (message texts,
// names in the runtime's frame record, register lookups) must never leak a
// previous frame's fields into the next one.
#include "kv3000_catalogue.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <QByteArray>

namespace {

class RepeatedFrames : public RuntimeFixture {
protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        runLoop(plc, 5);
        ASSERT_EQ(driver.handShakeFlag, 0);
    }
    void addRead(int station, const char* reg, int address, int length) {
        VARIABLE v;
        v.id = 4;
        v.station = station;
        v.reg = QString::fromLatin1(reg);
        v.address = address;
        v.length = length;
        driver.readList.append(v);
    }
    // One transaction through the runtime's own, reused records.
    int transact(const QByteArray& tampered = QByteArray()) {
        EXPECT_EQ(intf_getSendFrame(&frame), 1);
        QByteArray reply = tampered.isNull() ? plc.answer(frame) : tampered;
        return intf_dealRcvFrame(&reply, &message);
    }
    SimPlc plc;
    FRAME_PRO frame;
    QString message;
};

TEST_F(RepeatedFrames, RotatingBlocksEachGetTheirOwnMessageAndName) {
    addRead(1, "DM", 100, 5);
    addRead(1, "EM", 100, 5);
    addRead(2, "DM", 100, 5);
    addRead(1, "DM", 100, 6);
    addRead(1, "R", 37, 4);
    const char* expected[][2] = {
        {"DM", "1#DM100(5)"}, {"EM", "1#EM100(5)"}, {"DM", "2#DM100(5)"},
        {"DM", "1#DM100(6)"}, {"R", "1#R2.0(9)"},
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto& e : expected) {
            EXPECT_EQ(transact(), 1);
            EXPECT_EQ(frame.reg, QLatin1String(e[0]));
            EXPECT_EQ(message, QLatin1String(e[1]));
        }
    }
}

TEST_F(RepeatedFrames, MessageFollowsTheHandshakeAgain) {
    addRead(1, "DM", 100, 5);
    EXPECT_EQ(transact(), 1);
    EXPECT_EQ(message, "1#DM100(5)");
    int status = -1;
    ASSERT_EQ(intf_initProperty(shm, nullptr, recipe, &status, "1#0#0#3#10", &shareMutex), 1);
    // The first handshake frame expects no answer; the second one does.
    EXPECT_EQ(transact(QByteArray()), 1);
    EXPECT_EQ(message, "0#0(0)");
    EXPECT_EQ(transact(QByteArray("bad")), 8);
    EXPECT_EQ(message, "connection failed");
}

TEST_F(RepeatedFrames, NegativeNumbersInMessages) {
    addRead(-3, "DM", 100, 5);
    EXPECT_EQ(transact(QByteArray("bad")), 8);
    EXPECT_EQ(message, "-3#DM100(5)");
}

TEST_F(RepeatedFrames, WriteAfterReadOfTheSameUnitsIsDescribedAsTheWrite) {
    addRead(1, "DM", 100, 1);
    EXPECT_EQ(transact(), 1);
    QString dm = QStringLiteral("DM_bit");
    unsigned char bit = 1;
    intf_setData(1, &dm, 1600, 1, &bit, 7);
    EXPECT_EQ(transact(), 1);  // the read of the covering word
    EXPECT_EQ(frame.reg, "DM_bit");
    EXPECT_EQ(message, "1#DM_bit100.0(1)");
}

TEST(RegisterNames, LookupByFirstLetterStillComparesWholeNames) {
    EXPECT_EQ(getIndexFromRegName(QStringLiteral("C")), 6);
    EXPECT_EQ(getIndexFromRegName(QStringLiteral("CS")), 25);
    EXPECT_EQ(getIndexFromRegName(QStringLiteral("CR_bit")), 2);
    EXPECT_EQ(getIndexFromRegName(QStringLiteral("CR_bi")), -1);
    EXPECT_EQ(getIndexFromRegName(QStringLiteral("CR_bitt")), -1);
    EXPECT_EQ(getIndexFromRegName(QString::fromUtf8("\xc3\x84M")), -1);
    EXPECT_EQ(getIndexFromRegName(QString(QChar(0x144))), -1);  // 'D' + 256
    QString withNul = QStringLiteral("DM");
    withNul.append(QChar(0));
    EXPECT_EQ(getIndexFromRegName(withNul), -1);
    EXPECT_EQ(regTransferBits(22), 32);
    EXPECT_EQ(regElementBits(0), 1);
    EXPECT_EQ(regTransferBits(28), 0);
}

}  // namespace
