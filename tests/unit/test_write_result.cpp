// Settling answered and abandoned writes, and the monitor flags.
#include "protocol.h"
#include "serviceForProtocol/data_area.h"
#include "serviceForProtocol/write_result.h"

#include "runtime_fixture.h"

#include <climits>
#include <mutex>

namespace {

using Calls = std::vector<CallbackRecord>;

class WriteResult : public RuntimeFixture {
protected:
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(driver.mutex);
            driver.writeList.clear();
        }
        RuntimeFixture::TearDown();
    }
    _DATA_& entry(int station, const char* key, int address) {
        return driver.dataArea[getIndexOfDataArea(station, key, address, driver.dataArea)];
    }
    void save(int station, const char* reg, int address, int len, std::vector<unsigned char> bytes) {
        write_saveDataToArea(station, QString::fromLatin1(reg), address, len, bytes.data());
    }
    CallbackRecord rec(int station, const char* name, int address) {
        return {1, station, QString::fromLatin1(name), address};
    }
    Calls takeCalls() {
        Calls c = calls();
        calls().clear();
        return c;
    }
    void queueWrite(const char* reg, int address, int length) {
        VARIABLE v;
        v.station = 1;
        v.reg = reg;
        v.address = address;
        v.length = length;
        std::lock_guard<std::mutex> lock(driver.mutex);
        driver.writeList.append(v);
    }
};

TEST_F(WriteResult, WordSuccessBecomesTheReadValueSilently) {
    entry(1, "DM", 7).monitorFlags = 1;
    entry(1, "DM", 7).monitorBits = 0xFFFF;
    save(1, "DM", 7, 1, {0x34, 0x12});
    takeCalls();
    _write_FailOrSuc(1, "DM", 7, 1, 1);
    const _DATA_& e = entry(1, "DM", 7);
    EXPECT_EQ(e.writeValid, 0);
    EXPECT_EQ(e.readValue[0], 0x34);
    EXPECT_EQ(e.readValue[1], 0x12);
    EXPECT_TRUE(calls().empty());
}

TEST_F(WriteResult, WordFailureFallsBackAndReportsChangedBitsThenWord) {
    _DATA_& e = entry(1, "DM", 7);
    e.monitorFlags = 1;
    e.monitorBits = (1u << 1) | (1u << 4);
    e.readValue[0] = 0x10;
    save(1, "DM", 7, 1, {0x10, 0x00});  // same as read: nothing to report yet
    EXPECT_TRUE(calls().empty());
    _write_FailOrSuc(1, "DM", 7, 1, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM", 7)}));  // the word, no single bit

    save(1, "DM", 7, 1, {0x02, 0x00});
    takeCalls();
    _write_FailOrSuc(1, "DM", 7, 1, 2);  // anything but 1 is a failure
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 113), rec(1, "DM_bit", 116), rec(1, "DM", 7)}));
    EXPECT_EQ(entry(1, "DM", 7).writeValid, 0);
    EXPECT_EQ(entry(1, "DM", 7).readValue[0], 0x10);
}

TEST_F(WriteResult, DwordUnits) {
    save(1, "TC", 3, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    _write_FailOrSuc(1, "TC", 3, 2, 1);  // two dwords
    for (int a : {3, 4}) {
        const _DATA_& e = entry(1, "TC", a);
        EXPECT_EQ(e.writeValid, 0);
        for (int b = 0; b < 4; ++b) EXPECT_EQ(e.readValue[b], e.writeValue[b]);
    }
    EXPECT_TRUE(calls().empty());

    entry(1, "TC", 4).monitorFlags = 1;
    save(1, "TC", 3, 4, {9, 9, 9, 9, 9, 9, 9, 9});
    takeCalls();
    _write_FailOrSuc(1, "TC", 3, 2, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "TC", 4)}));
    EXPECT_EQ(entry(1, "TC", 3).readValue[0], 1);
    EXPECT_EQ(entry(1, "TC", 3).writeValid, 0);
}

TEST_F(WriteResult, BitUnits) {
    save(1, "R", 80, 2, {1, 1});
    takeCalls();
    _write_FailOrSuc(1, "R", 80, 1, 1);
    EXPECT_EQ(entry(1, "R", 80).readValue[0], 1);
    EXPECT_EQ(entry(1, "R", 80).writeValid, 0);
    EXPECT_TRUE(calls().empty());
    _write_FailOrSuc(1, "R", 81, 1, 0);  // unmonitored, reported all the same
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "R", 81)}));
    EXPECT_EQ(entry(1, "R", 81).readValue[0], 0);
    EXPECT_EQ(entry(1, "R", 81).writeValid, 0);
}

TEST_F(WriteResult, SingleBitWriteSettles) {
    _DATA_& e = entry(1, "DM", 3);
    e.monitorBits = (1u << 2) | (1u << 9);
    e.monitorFlags = 1;
    e.readValue[1] = 0x40;
    save(1, "DM_bit", 50, 1, {1});
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 0u);
    EXPECT_EQ(entry(1, "DM", 3).writeValid, 0);
    EXPECT_EQ(entry(1, "DM", 3).readValue[0], 0x04);
    EXPECT_EQ(entry(1, "DM", 3).readValue[1], 0x40);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 57), rec(1, "DM", 3)}));

    save(1, "DM_bit", 51, 1, {1});
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 51, 1, 0);
    EXPECT_EQ(entry(1, "DM", 3).readValue[0], 0x04);
    EXPECT_EQ(entry(1, "DM", 3).writeValid, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 57), rec(1, "DM", 3)}));
}

TEST_F(WriteResult, TwoOverlappingBitWritesSettleOnTheSecondAnswer) {
    _DATA_& e = entry(1, "DM", 3);
    e.monitorBits = (1u << 2) | (1u << 12);
    e.monitorFlags = 1;
    queueWrite("DM_bit", 50, 1);
    queueWrite("DM_bit", 50, 1);
    save(1, "DM_bit", 50, 1, {1});
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 3u << 4);
    takeCalls();

    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(entry(1, "DM", 3).writeValid, 1);
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 1u << 5);
    unsigned char shown = 0;
    intf_getData(1, "DM_bit", 50, 1, &shown);
    EXPECT_EQ(shown, 1);
    EXPECT_TRUE(calls().empty());

    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    EXPECT_EQ(entry(1, "DM", 3).writeValid, 0);
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 0u);
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 50), rec(1, "DM_bit", 60), rec(1, "DM", 3)}));
}

TEST_F(WriteResult, BitAnsweredWhileAnotherBitOfTheWordIsPending) {
    entry(1, "DM", 3).monitorBits = 0xFFFF;
    entry(1, "DM", 3).monitorFlags = 1;
    save(1, "DM_bit", 50, 1, {1});  // 3.02
    save(1, "DM_bit", 57, 1, {1});  // 3.09
    takeCalls();
    _write_FailOrSuc(1, "DM_bit", 50, 1, 1);
    const _DATA_& e = entry(1, "DM", 3);
    EXPECT_EQ(e.readValue[0], 0x04);
    EXPECT_EQ(e.readValue[1], 0x00);
    EXPECT_EQ(e.writeValid, 1);
    EXPECT_EQ(e.bitWriteFlags, 1u << 18);
    EXPECT_TRUE(calls().empty());
}

TEST_F(WriteResult, MonitorFlagsPerUnitKind) {
    EXPECT_EQ(_setDataAreaMonitorFlag(1, "DM_bit", 160, 20), 0);
    EXPECT_EQ(entry(1, "DM", 10).monitorBits, 0xFFFFu);
    EXPECT_EQ(entry(1, "DM", 11).monitorBits, 0xFu);
    EXPECT_EQ(entry(1, "DM", 10).monitorFlags, 0u);
    EXPECT_EQ(entry(1, "DM", 11).monitorFlags, 0u);

    EXPECT_EQ(_setDataAreaMonitorFlag(1, "TC", 5, 3), 0);
    EXPECT_EQ(driver.dataArea.size(), 3);
    EXPECT_EQ(entry(1, "TC", 5).monitorFlags, 1u);
    EXPECT_EQ(entry(1, "TC", 6).monitorFlags, 0u);
    _setDataAreaMonitorFlag(1, "TC", 9, 1);  // below one dword

    _setDataAreaMonitorFlag(1, "W", 0x3FE, 2);
    _setDataAreaMonitorFlag(2, "B", 7, 2);
    _setDataAreaMonitorFlag(2, "B", 7, 2);  // a set, not a count
    EXPECT_EQ(entry(1, "W", 0x3FE).monitorFlags, 1u);
    EXPECT_EQ(entry(1, "W", 0x3FF).monitorFlags, 1u);
    EXPECT_EQ(entry(2, "B", 7).monitorFlags, 1u);
    EXPECT_EQ(entry(2, "B", 8).monitorFlags, 1u);
    EXPECT_EQ(entry(1, "B", 7).monitorFlags, 0u);
}

TEST_F(WriteResult, BadInputChangesNothing) {
    const struct {
        const char* reg;
        int address;
        int len;
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
