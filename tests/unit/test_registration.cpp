// Monitored-address registration and recipe addresses.
#include "records.h"
#include "runtime_fixture.h"
#include "serviceForProtocol/data_area.h"
#include "serviceForProtocol/recipe.h"

namespace {

KEY_ADDRESS key(const char* reg, int address, int length) {
    return makeKey(reg, address, length);
}
_RCP_VAR_PRO entry(const char* reg, int address, int length, int offset, int protocolId = 1) {
    return makeEntry(reg, address, length, offset, protocolId);
}

using Registration = RuntimeFixture;

TEST_F(Registration, EmptyListClearsEverything) {
    QList<KEY_ADDRESS> keys{key("DM", 100, 1)};
    intf_addrMerge(keys);
    DebugCapture capture;
    QList<KEY_ADDRESS> none;
    EXPECT_EQ(intf_addrMerge(none), 0);
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(capture.lines().isEmpty());
    for (const _DATA_& d : qAsConst(driver.dataArea)) EXPECT_EQ(d.monitorFlags | d.monitorBits, 0u);
}

TEST_F(Registration, NeighboursMergeIntoOneBlockWithItsDebugLines) {
    DebugCapture capture;
    QList<KEY_ADDRESS> keys{key("DM", 100, 1), key("DM", 101, 1)};
    EXPECT_EQ(intf_addrMerge(keys), 1);
    ASSERT_EQ(driver.readList.size(), 1);
    const VARIABLE& v = driver.readList.first();
    EXPECT_EQ(v.id, 4);
    EXPECT_EQ(v.reg, "DM");
    EXPECT_EQ(v.address, 100);
    EXPECT_EQ(v.length, 2);
    EXPECT_EQ(
        capture.lines(),
        QStringList({"\"step:id=0,reg=DM,address=100,len=1\"", "\"step:id=1,reg=DM,address=101,len=1\"",
                     "\"step0:id=0,reg=DM,address=100,len=1\"", "\"step0:id=1,reg=DM,address=101,len=1\"",
                     "\"step3:id=0,std=1,reg=DM,address=100,len=2\""}));
    // Both units are monitored: a change of either is reported.
    unsigned char v2[4] = {1, 0, 2, 0};
    QString dm = QStringLiteral("DM");
    driver.localWriteOnly = 1;
    intf_setData(1, &dm, 100, 2, v2, 0);
    ASSERT_EQ(calls().size(), 2u);
    EXPECT_EQ(calls()[0], (CallbackRecord{1, 1, "DM", 100}));
    EXPECT_EQ(calls()[1], (CallbackRecord{1, 1, "DM", 101}));
}

TEST_F(Registration, BitKeyReadsWordsButMonitorsBits) {
    QList<KEY_ADDRESS> keys{key("DM_bit", 1615, 4)};
    EXPECT_EQ(intf_addrMerge(keys), 1);
    EXPECT_EQ(driver.readList.first().reg, "DM");
    EXPECT_EQ(driver.readList.first().address, 100);
    EXPECT_EQ(driver.readList.first().length, 2);
    ASSERT_EQ(driver.dataArea.size(), 2);
    const _DATA_& at100 = driver.dataArea[getIndexOfDataArea(1, "DM", 100, driver.dataArea)];
    EXPECT_EQ(at100.monitorBits, 1u << 15);
    EXPECT_EQ(at100.monitorFlags, 0u);
    EXPECT_EQ(driver.dataArea[getIndexOfDataArea(1, "DM", 101, driver.dataArea)].monitorBits, 0x7u);
}

TEST_F(Registration, SecondCallReplacesTheFirst) {
    QList<KEY_ADDRESS> first{key("DM", 100, 1)};
    intf_addrMerge(first);
    QList<KEY_ADDRESS> second{key("TM", 3, 2)};
    EXPECT_EQ(intf_addrMerge(second), 1);
    ASSERT_EQ(driver.readList.size(), 1);
    EXPECT_EQ(driver.readList.first().reg, "TM");
    driver.localWriteOnly = 1;
    unsigned char v[2] = {5, 0};
    QString dm = QStringLiteral("DM");
    intf_setData(1, &dm, 100, 1, v, 0);
    EXPECT_TRUE(calls().empty());
}

using Recipes = RuntimeFixture;

TEST_F(Recipes, OtherDriversEntriesAreIgnoredAndKeepPreviousBlocks) {
    QVector<_RCP_VAR_PRO> mine{entry("DM", 100, 2, 0)};
    ASSERT_EQ(intf_setRcpAddress(mine), 1);
    QVector<_RCP_VAR_PRO> other{entry("DM", 5, 1, 0, 9)};
    EXPECT_EQ(intf_setRcpAddress(other), 0);
    ASSERT_EQ(driver.rcpBlockList.size(), 1);
    EXPECT_EQ(driver.rcpBlockList.first().address, 100);
}

TEST_F(Recipes, TouchingEntriesFormOneBlockAndGapsAreNotBridged) {
    QVector<_RCP_VAR_PRO> touching{entry("DM", 100, 2, 0), entry("DM", 102, 3, 2)};
    EXPECT_EQ(intf_setRcpAddress(touching), 2);
    ASSERT_EQ(driver.rcpBlockList.size(), 1);
    EXPECT_EQ(driver.rcpBlockList[0].address, 100);
    EXPECT_EQ(driver.rcpBlockList[0].length, 5);
    EXPECT_EQ(driver.rcpBlockList[0].bufferOffset, 0);
    EXPECT_EQ(driver.rcpFirstIndex, QList<int>({0}));

    QVector<_RCP_VAR_PRO> gap{entry("DM", 100, 2, 0), entry("DM", 110, 1, 2)};
    EXPECT_EQ(intf_setRcpAddress(gap), 2);
    EXPECT_EQ(driver.rcpBlockList.size(), 2);
    EXPECT_EQ(driver.rcpFirstIndex, QList<int>({0, 1}));
}

TEST_F(Recipes, EntriesAreSortedAndTimerValuesHalved) {
    QVector<_RCP_VAR_PRO> entries{entry("DM", 200, 1, 0), entry("DM", 5, 1, 1)};
    intf_setRcpAddress(entries);
    EXPECT_EQ(driver.rcpVarList[0].address, 5);
    EXPECT_EQ(driver.rcpVarList[1].address, 200);

    QVector<_RCP_VAR_PRO> tc{entry("TC", 10, 4, 0)};
    intf_setRcpAddress(tc);
    ASSERT_EQ(driver.rcpBlockList.size(), 1);
    EXPECT_EQ(driver.rcpBlockList[0].length, 2);
    for (int i = 0; i < 4; ++i) recipe[i] = static_cast<unsigned short>(0xA0B0 + i);
    recipe[4] = 0xFFFF;
    VARIABLE v;
    v.id = 77;
    rcpAddrToVar(driver.rcpBlockList[0], v, 1);
    EXPECT_EQ(v.id, 77);
    EXPECT_EQ(v.reg, "TC");
    const unsigned char expected[10] = {0xB0, 0xA0, 0xB1, 0xA0, 0xB2, 0xA0, 0xB3, 0xA0, 0, 0};
    EXPECT_EQ(0, memcmp(v.data, expected, sizeof expected));  // 8 bytes copied, no more
    rcpAddrToVar(driver.rcpBlockList[0], v, 0);
    for (unsigned char b : v.data) ASSERT_EQ(b, 0);
}

}  // namespace
