// Settling answered and abandoned writes, and the monitor flags.
#include "data_area_fixture.h"
#include "serviceForProtocol/write_result.h"

#include <climits>

namespace {

using WriteResult = DataAreaFixture;

TEST_F(WriteResult, WordUnits) {
    // Success: the written value becomes the read value, silently.
    monitor(1, "DM", 7, 0xFFFF);
    save(1, "DM", 7, 1, {0x34, 0x12});
    takeCalls();
    _write_FailOrSuc(1, "DM", 7, 1, 1);
    EXPECT_EQ(unit(1, "DM", 7), "0 0 | 34 12 00 00 | 34 12 00 00");
    EXPECT_TRUE(calls().empty());

    // Failure falls back and reports the changed monitored bits, then the word;
    // the word even when the written value equals the read one.
    monitor(1, "DM", 8, (1u << 1) | (1u << 4));
    entry(1, "DM", 8).readValue[0] = 0x10;
    save(1, "DM", 8, 1, {0x10, 0x00});
    EXPECT_TRUE(calls().empty());
    _write_FailOrSuc(1, "DM", 8, 1, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM", 8)}));
    save(1, "DM", 8, 1, {0x02, 0x00});
    takeCalls();
    _write_FailOrSuc(1, "DM", 8, 1, 2);  // anything but 1 is a failure
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 129), rec(1, "DM_bit", 132), rec(1, "DM", 8)}));
    EXPECT_EQ(unit(1, "DM", 8), "0 0 | 10 00 00 00 | 02 00 00 00");
}

TEST_F(WriteResult, DwordAndBitUnits) {
    save(1, "TC", 3, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    _write_FailOrSuc(1, "TC", 3, 2, 1);  // two dwords
    EXPECT_EQ(unit(1, "TC", 3), "0 0 | 01 02 03 04 | 01 02 03 04");
    EXPECT_EQ(unit(1, "TC", 4), "0 0 | 05 06 07 08 | 05 06 07 08");
    EXPECT_TRUE(calls().empty());
    monitor(1, "TC", 4);
    save(1, "TC", 3, 4, {9, 9, 9, 9, 9, 9, 9, 9});
    takeCalls();
    _write_FailOrSuc(1, "TC", 3, 2, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "TC", 4)}));
    EXPECT_EQ(unit(1, "TC", 3), "0 0 | 01 02 03 04 | 09 09 09 09");

    save(1, "R", 80, 2, {1, 1});
    takeCalls();
    _write_FailOrSuc(1, "R", 80, 1, 1);
    EXPECT_EQ(unit(1, "R", 80), "0 0 | 01 00 00 00 | 01 00 00 00");
    EXPECT_TRUE(calls().empty());
    _write_FailOrSuc(1, "R", 81, 1, 0);  // unmonitored, reported all the same
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "R", 81)}));
    EXPECT_EQ(unit(1, "R", 81), "0 0 | 00 00 00 00 | 01 00 00 00");
}

TEST_F(WriteResult, SingleBitWriteSettles) {
    monitor(1, "DM", 3, (1u << 2) | (1u << 9));
    entry(1, "DM", 3).readValue[1] = 0x40;
    save(1, "DM_bit", 50, 1, {1});
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(unit(1, "DM", 3), "0 0 | 04 40 00 00 | 04 40 00 00");
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 57), rec(1, "DM", 3)}));

    save(1, "DM_bit", 51, 1, {1});
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 51, 1, 0);
    EXPECT_EQ(unit(1, "DM", 3), "0 0 | 04 40 00 00 | 0c 40 00 00");
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 57), rec(1, "DM", 3)}));
}

TEST_F(WriteResult, TwoOverlappingBitWritesSettleOnTheSecondAnswer) {
    monitor(1, "DM", 3, (1u << 2) | (1u << 12));
    queueWrite(1, "DM_bit", 50, 1);
    queueWrite(1, "DM_bit", 50, 1);
    save(1, "DM_bit", 50, 1, {1});
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(unit(1, "DM", 3), "1 30 | 00 00 00 00 | 04 00 00 00");
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(unit(1, "DM", 3), "1 20 | 04 00 00 00 | 04 00 00 00");
    EXPECT_EQ(get(1, "DM_bit", 50, 1, 1), (Bytes{1}));
    EXPECT_TRUE(calls().empty());
    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(unit(1, "DM", 3), "0 0 | 04 00 00 00 | 04 00 00 00");
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 60), rec(1, "DM", 3)}));

    // 3.02 answered while 3.09 is pending: bit 2 of the read value only, nothing reported.
    monitor(1, "DM", 4, 0xFFFF);
    save(1, "DM_bit", 66, 1, {1});
    save(1, "DM_bit", 73, 1, {1});
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 66, 1, 1);
    EXPECT_EQ(unit(1, "DM", 4), "1 40000 | 04 00 00 00 | 04 02 00 00");
    EXPECT_TRUE(calls().empty());
}

TEST_F(WriteResult, MonitorFlagsPerUnitKind) {
    const auto marks = [](int station, const char* key, int address) {
        const _DATA_& e = entry(station, key, address);
        return std::to_string(e.monitorFlags) + " " + std::to_string(e.monitorBits);
    };
    EXPECT_EQ(_setDataAreaMonitorFlag(1, "DM_bit", 160, 20), 0);
    EXPECT_EQ(marks(1, "DM", 10), "0 65535");
    EXPECT_EQ(marks(1, "DM", 11), "0 15");
    EXPECT_EQ(_setDataAreaMonitorFlag(1, "TC", 5, 3), 0);
    EXPECT_EQ(driver.dataArea.size(), 3);
    EXPECT_EQ(marks(1, "TC", 5), "1 0");
    EXPECT_EQ(marks(1, "TC", 6), "0 0");
    _setDataAreaMonitorFlag(1, "TC", 9, 1);  // below one dword
    _setDataAreaMonitorFlag(1, "W", 0x3FE, 2);
    _setDataAreaMonitorFlag(2, "B", 7, 2);
    _setDataAreaMonitorFlag(2, "B", 7, 2);  // a set, not a count
    EXPECT_EQ(marks(1, "W", 0x3FE) + marks(1, "W", 0x3FF), "1 01 0");
    EXPECT_EQ(marks(2, "B", 7) + marks(2, "B", 8) + marks(1, "B", 7), "1 01 00 0");
}

TEST_F(WriteResult, BadInputChangesNothing) {
    const struct {
        const char* reg;
        int address, len;
    } cases[] = {
        {"XX", 0, 1},           {"DM", 0, 0},       {"DM", 0, -3},      {"DM_bit", -1, 1},
        {"DM_bit", INT_MAX, 2}, {"DM", INT_MAX, 2}, {"TC", INT_MAX, 4}, {"B", INT_MAX, 2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(_setDataAreaMonitorFlag(1, c.reg, c.address, c.len), 0);
        _write_FailOrSuc(1, c.reg, c.address, c.len, 0);
        _write_FailOrSuc(1, c.reg, c.address, c.len, 1);
        EXPECT_TRUE(driver.dataArea.isEmpty()) << c.reg << " " << c.address << " " << c.len;
    }
    _write_FailOrSuc(1, "TC", 0, 257, 0);  // more dwords than one request holds
    _write_FailOrSuc(1, "DM", 0, 513, 0);
    _write_FailOrSuc(1, "R", 0, 1025, 0);
    EXPECT_TRUE(driver.dataArea.isEmpty());
    EXPECT_TRUE(calls().empty());
    // A monitored key has no buffer: it may be longer than any write.
    _setDataAreaMonitorFlag(1, "DM", 0, 600);
    EXPECT_EQ(driver.dataArea.size(), 600);
    EXPECT_EQ(entry(1, "DM", 599).monitorFlags, 1u);
}

}  // namespace
