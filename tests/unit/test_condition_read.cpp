// Condition reads: pieces, unit conversion, the queueing rule and the end report.
#include "records.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <climits>

namespace {

using ConditionReads = RuntimeFixture;

KEY_ADDRESS key(const char* reg, int address, int length, int dataType = 0) {
    return makeKey(reg, address, length, 1, dataType);
}
QString queue() {
    return shapeOf(driver.conditionReadList);
}

TEST_F(ConditionReads, WordsCutIntoPiecesAndLastPieceRemembered) {
    EXPECT_EQ(intf_addConditionRead(key("DM", 100, 25), 5), 1);
    EXPECT_EQ(queue(), "DM(100,10) DM(110,10) DM(120,5)");
    EXPECT_EQ(driver.lastConditionVar.address, 120);
    EXPECT_EQ(driver.lastConditionVar.length, 5);
    EXPECT_EQ(driver.conditionReadList[0].id, 5);
}

TEST_F(ConditionReads, UnitsOfTheDevice) {
    const struct {
        const char* reg;
        int address, length, dataType;
        const char* queue;
    } cases[] = {
        {"TC", 4, 4, 0, "TC(4,2)"},           {"TC", 4, 30, 0, "TC(4,5) TC(9,5) TC(14,5)"},
        {"DM_bit", 1605, 3, -1, "DM(100,1)"}, {"DM_bit", 207, 4, -1, "DM(12,2)"},
        {"R", 32, 4, -1, "R(32,64)"},
    };
    for (const auto& c : cases) {
        driver.conditionReadList.clear();
        intf_addConditionRead(key(c.reg, c.address, c.length, c.dataType), 1);
        EXPECT_EQ(queue(), c.queue) << c.reg;
    }
    // An odd limit keeps double words whole.
    initDriver("1#0#0#3#5");
    intf_addConditionRead(key("TC", 4, 10), 1);
    EXPECT_EQ(queue(), "TC(4,2) TC(6,2) TC(8,1)");
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
    SimPlc plc;
    runLoop(plc, 5);
    plc.set("DM", 2, 42);
    intf_addConditionRead(key("DM", 1, 1), 1);
    intf_addConditionRead(key("DM", 2, 1), 2);
    runLoop(plc, 1);
    EXPECT_TRUE(calls().empty());
    runLoop(plc, 1);
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{-1, -1, "-1", 0}}));
    EXPECT_EQ(shownUnit("DM", 2), 42u);

    // A failure empties the list; it is reported, with -1, only when it was the last request.
    const auto fail = [](const FRAME_PRO&, QByteArray) { return QByteArray("?"); };
    calls().clear();
    intf_addConditionRead(key("DM", 3, 1), 3);
    intf_addConditionRead(key("DM", 4, 1), 4);
    runLoop(plc, 3, fail);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_TRUE(calls().empty());
    initDriver("1#0#0#3#10");  // past the pause after three condition reads in a row
    runLoop(plc, 5);
    intf_addConditionRead(key("DM", 3, 1), 3);
    runLoop(plc, 3, fail);
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{-1, -1, "-1", -1}}));
}

}  // namespace
