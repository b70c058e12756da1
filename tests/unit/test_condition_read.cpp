// Condition reads: pieces, unit conversion, the queueing rule and the end report.
#include "kv_responder.h"
#include "runtime_fixture.h"

#include <climits>

namespace {

class ConditionReads : public RuntimeFixture {
protected:
    static KEY_ADDRESS key(const char* reg, int address, int length, int dataType = 0) {
        KEY_ADDRESS k;
        k.station = 1;
        k.reg = QString::fromLatin1(reg);
        k.address = address;
        k.length = length;
        k.dataType = dataType;
        return k;
    }
    static QString shape(const QList<VARIABLE>& list) {
        QStringList s;
        for (const VARIABLE& v : list)
            s << QStringLiteral("%1(%2,%3)").arg(v.reg).arg(v.address).arg(v.length);
        return s.join(' ');
    }
};

TEST_F(ConditionReads, WordsCutIntoPiecesAndLastPieceRemembered) {
    EXPECT_EQ(intf_addConditionRead(key("DM", 100, 25), 5), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "DM(100,10) DM(110,10) DM(120,5)");
    EXPECT_EQ(driver.lastConditionVar.address, 120);
    EXPECT_EQ(driver.lastConditionVar.length, 5);
    EXPECT_EQ(driver.conditionReadList[0].id, 5);
}

TEST_F(ConditionReads, UnitsOfTheDevice) {
    intf_addConditionRead(key("TC", 4, 4), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "TC(4,2)");
    driver.conditionReadList.clear();
    intf_addConditionRead(key("TC", 4, 30), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "TC(4,5) TC(9,5) TC(14,5)");
    driver.conditionReadList.clear();
    intf_addConditionRead(key("DM_bit", 1605, 3, -1), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "DM(100,1)");
    driver.conditionReadList.clear();
    intf_addConditionRead(key("DM_bit", 207, 4, -1), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "DM(12,2)");
    driver.conditionReadList.clear();
    intf_addConditionRead(key("R", 32, 4, -1), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "R(32,64)");
}

TEST_F(ConditionReads, OddLimitKeepsDoubleWordsWhole) {
    initDriver("1#0#0#3#5");
    intf_addConditionRead(key("TC", 4, 10), 1);
    EXPECT_EQ(shape(driver.conditionReadList), "TC(4,2) TC(6,2) TC(8,1)");
}

TEST_F(ConditionReads, QueueingRule) {
    intf_addConditionRead(key("DM", 1, 1), 1);
    intf_addConditionRead(key("DM", 1, 1), 2);  // equal to the head only: appended
    EXPECT_EQ(driver.conditionReadList.size(), 2);
    intf_addConditionRead(key("DM", 1, 1), 3);  // replaces the waiting one
    ASSERT_EQ(driver.conditionReadList.size(), 2);
    EXPECT_EQ(driver.conditionReadList[1].id, 3);
    for (int i = 0; i < 600; ++i) intf_addConditionRead(key("TM", i, 1), 9);
    ASSERT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(driver.conditionReadList[512].address, 599);
}

TEST_F(ConditionReads, RefusedRequestsQueueNothingAndEndAsFailed) {
    intf_addConditionRead(key("XX", 1, 1), 1);
    intf_addConditionRead(key("DM", -4, 1), 1);
    intf_addConditionRead(key("DM", 0, 2147483647), 1);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    ASSERT_EQ(calls().size(), 3u);
    EXPECT_EQ(calls()[0], (CallbackRecord{-1, -1, "-1", -1}));
    initDriver("1#0#0#3#0");
    intf_addConditionRead(key("DM", 1, 1), 1);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(ConditionReads, RelayLengthWhoseBitCountLeavesIntIsRefused) {
    // 16 bits per relay word: -200000000 words would be -3.2e9 bits.
    intf_addConditionRead(key("R", 0, -200000000, -1), 1);
    intf_addConditionRead(key("B", 0, INT_MIN, -1), 1);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    ASSERT_EQ(calls().size(), 2u);
    EXPECT_EQ(calls()[1], (CallbackRecord{-1, -1, "-1", -1}));
    intf_addConditionRead(key("R", 0, -5, -1), 1);  // short but representable: queued as it is
    ASSERT_EQ(driver.conditionReadList.size(), 1);
    EXPECT_EQ(driver.conditionReadList[0].length, -80);
}

TEST_F(ConditionReads, OnlyTheLastRequestIsReportedWithItsOutcome) {
    KvResponder plc;
    runLoop(plc, 5);
    intf_addConditionRead(key("DM", 1, 1), 1);
    intf_addConditionRead(key("DM", 2, 1), 2);
    runLoop(plc, 2);
    ASSERT_EQ(calls().size(), 1u);
    EXPECT_EQ(calls()[0], (CallbackRecord{-1, -1, "-1", 0}));
    calls().clear();
    intf_addConditionRead(key("DM", 3, 1), 3);
    runLoop(plc, 3, [](const FRAME_PRO&, QByteArray) { return QByteArray("?"); });
    ASSERT_EQ(calls().size(), 1u);
    EXPECT_EQ(calls()[0], (CallbackRecord{-1, -1, "-1", -1}));
}

}  // namespace
