// Data-area store: lookup and its index, written values, change reports and
// the value helpers.
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include "runtime_fixture.h"

#include <climits>
#include <mutex>

namespace {

using Calls = std::vector<CallbackRecord>;

class DataArea : public RuntimeFixture {
protected:
    int at(int station, const char* key, int address) {
        return getIndexOfDataArea(station, QString::fromLatin1(key), address, driver.dataArea);
    }
    _DATA_& entry(int station, const char* key, int address) {
        return driver.dataArea[at(station, key, address)];
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
    // A runtime may re-initialise the driver from inside its change report.
    static DataArea* self;
    static void reinitialise(int, int, const QString&, int) {
        int status;
        intf_initProperty(self->shm, nullptr, self->recipe, &status, "1#0#0#3#10", &self->shareMutex);
    }
};
DataArea* DataArea::self = nullptr;

TEST(DataAreaHelpers, SetBitValue) {
    EXPECT_EQ(_setBitValue(0, 3, 1), 8);
    EXPECT_EQ(_setBitValue(0xFF, 0, 0), 0xFE);
    EXPECT_EQ(_setBitValue(0, 1, 5), 2);
    EXPECT_EQ(_setBitValue(0, 31, 1), INT_MIN);
    EXPECT_EQ(_setBitValue(-1, 31, 0), INT_MAX);
    EXPECT_EQ(_setBitValue(5, 32, 1), 5);
    EXPECT_EQ(_setBitValue(5, -1, 0), 5);
}

TEST(DataAreaHelpers, ByteCombination) {
    EXPECT_EQ(uchar2int16(0x34, 0x12), 0x1234);
    EXPECT_EQ(uchar2int16(0xFF, 0xFF), 65535);
    EXPECT_EQ(uchar2int32(0x78, 0x56, 0x34, 0x12), 0x12345678);
    EXPECT_EQ(uchar2int32(0, 0, 0, 0x80), INT_MIN);
    EXPECT_EQ(uchar2int32(0xFF, 0xFF, 0xFF, 0xFF), -1);
}

TEST(DataAreaHelpers, Asc2Hex) {
    EXPECT_EQ(asc2hex("1F", 0), 0x1F);
    EXPECT_EQ(asc2hex("af", 0), 0xAF);
    EXPECT_EQ(asc2hex("zz3A", 2), 0x3A);
    EXPECT_EQ(asc2hex(":?", 0), 10 * 16 + 15);  // codes 58, 63 count code - 48
    EXPECT_EQ(asc2hex("@1", 0), 0x01);          // the at sign counts 0
    EXPECT_EQ(asc2hex(" 1", 0), 0x01);
    EXPECT_EQ(asc2hex("z1", 0), 3 * 16 + 1);  // (122 - 55) mod 16
    EXPECT_EQ(asc2hex("F", 0), 0xF0);         // low digit past the end
    EXPECT_EQ(asc2hex("12", 5), 0);
    EXPECT_EQ(asc2hex("12", -1), 0x01);
    EXPECT_EQ(asc2hex("12", INT_MAX), 0);
    EXPECT_EQ(asc2hex(QByteArray(), 0), 0);
}

TEST(DataAreaHelpers, UnitKindsAndKeys) {
    const char* words[] = {"DM", "TM", "CM", "EM", "FM", "MR", "LR", "CR", "W", "ZF"};
    const char* dwords[] = {"TC", "TS", "CC", "CS", "Z", "TRM"};
    const char* bits[] = {"R", "B", "T", "C"};
    const char* bitViews[] = {"MR_bit", "LR_bit", "CR_bit", "DM_bit", "TM_bit", "CM_bit", "EM_bit", "FM_bit"};
    for (const char* n : words) EXPECT_EQ(unitKindOf(n), UNIT_WORD) << n;
    for (const char* n : dwords) EXPECT_EQ(unitKindOf(n), UNIT_DWORD) << n;
    for (const char* n : bits) EXPECT_EQ(unitKindOf(n), UNIT_BIT) << n;
    for (const char* n : bitViews) EXPECT_EQ(unitKindOf(n), UNIT_BIT_IN_WORD) << n;
    for (const char* n : {"dm", "", "DM_", "DM_BIT", "XX"}) EXPECT_EQ(unitKindOf(n), UNIT_NONE) << n;
    EXPECT_EQ(regKeyOf("DM_bit"), "DM");
    EXPECT_EQ(regKeyOf("TRM"), "TRM");
    EXPECT_EQ(regKeyOf("_x"), "");
}

TEST_F(DataArea, LookupCreatesZeroEntriesAndFindsThemAgain) {
    const int i = at(1, "DM", 10);
    const _DATA_& e = driver.dataArea.at(i);
    EXPECT_EQ(e.station, 1);
    EXPECT_EQ(e.regKey, "DM");
    EXPECT_EQ(e.address, 10);
    EXPECT_EQ(e.writeValid, 0);
    EXPECT_EQ(e.bitWriteFlags | e.monitorFlags | e.monitorBits, 0u);
    for (int b = 0; b < 4; ++b) EXPECT_EQ(e.readValue[b] | e.writeValue[b], 0);
    EXPECT_EQ(at(1, "DM", 10), i);
    EXPECT_NE(at(2, "DM", 10), i);  // station separates
    EXPECT_NE(at(1, "EM", 10), i);
    EXPECT_NE(at(1, "DM", 11), i);
    EXPECT_EQ(driver.dataArea.size(), 4);
}

TEST_F(DataArea, IndexesStayStableWhileTheAreaGrows) {
    std::vector<int> first;
    for (int a = 0; a < 3000; ++a) first.push_back(at(a % 3, a % 2 ? "DM" : "TC", a));
    for (int a = 2999; a >= 0; --a) ASSERT_EQ(at(a % 3, a % 2 ? "DM" : "TC", a), first[a]);
    for (int a = 0; a < 3000; ++a) ASSERT_EQ(first[a], a);
    EXPECT_EQ(driver.dataIndex.size(), 3000u);
}

TEST_F(DataArea, OtherListsAndForeignKeysScanLinearly) {
    QList<_DATA_> other;
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 5, other), 0);
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 6, other), 1);
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 5, other), 0);
    EXPECT_TRUE(driver.dataArea.isEmpty());
    EXPECT_TRUE(driver.dataIndex.empty());

    EXPECT_EQ(at(1, "XX", 5), 0);
    EXPECT_EQ(at(1, "DM", 5), 1);
    EXPECT_EQ(at(1, "XX", 5), 0);
    EXPECT_EQ(at(1, "DM", 5), 1);
    EXPECT_EQ(driver.dataArea.size(), 2);
}

TEST_F(DataArea, IndexFollowsTheListWhenEmptiedOrChangedBehindIt) {
    at(1, "DM", 1);
    at(1, "DM", 2);
    clearDataArea();
    EXPECT_TRUE(driver.dataIndex.empty());
    EXPECT_EQ(at(1, "DM", 2), 0);
    initDriver("1#0#0#3#10");
    EXPECT_TRUE(driver.dataArea.isEmpty());
    EXPECT_TRUE(driver.dataIndex.empty());

    at(1, "DM", 1);
    _DATA_ e;
    e.station = 1;
    e.regKey = "DM";
    e.address = 9;
    driver.dataArea.append(e);  // behind the index's back
    EXPECT_EQ(at(1, "DM", 9), 1);
    EXPECT_EQ(driver.dataArea.size(), 2);
    driver.dataArea.clear();
    EXPECT_EQ(at(1, "DM", 9), 0);
    EXPECT_EQ(driver.dataArea.size(), 1);
}

TEST_F(DataArea, WordAndBitViewsShareOneEntry) {
    save(1, "DM", 10, 1, {0x08, 0x00});
    unsigned char bits[2] = {9, 9};
    EXPECT_EQ(intf_getData(1, "DM_bit", 10 * 16 + 2, 2, bits), 1);
    EXPECT_EQ(bits[0], 0);
    EXPECT_EQ(bits[1], 1);

    save(1, "DM_bit", 10 * 16 + 15, 1, {1});
    const _DATA_& e = entry(1, "DM", 10);
    EXPECT_EQ(e.writeValue[0], 0x08);
    EXPECT_EQ(e.writeValue[1], 0x80);
    EXPECT_EQ(driver.dataArea.size(), 1);
}

TEST_F(DataArea, FirstBitWriteKeepsTheRestOfTheReadWord) {
    for (int w : {20, 21}) {
        _DATA_& e = entry(1, "DM", w);
        e.readValue[0] = 0xA5;
        e.readValue[1] = 0x5A;
        e.writeValue[0] = e.writeValue[1] = 0x77;  // stale, must not show through
    }
    save(1, "DM_bit", 20 * 16 + 8, 1, {1});  // high byte
    save(1, "DM_bit", 21 * 16 + 0, 1, {2});  // low byte; only 1 sets a bit
    const _DATA_& a = entry(1, "DM", 20);
    const _DATA_& b = entry(1, "DM", 21);
    EXPECT_EQ(a.writeValid, 1);
    EXPECT_EQ(a.writeValue[0], 0xA5);
    EXPECT_EQ(a.writeValue[1], 0x5B);
    EXPECT_EQ(b.writeValue[0], 0xA4);
    EXPECT_EQ(b.writeValue[1], 0x5A);
}

TEST_F(DataArea, UnchangedValuesReportNothing) {
    entry(1, "DM", 1).monitorFlags = 1;
    entry(1, "DM", 1).monitorBits = 0xFFFF;
    entry(1, "TC", 1).monitorFlags = 1;
    entry(1, "R", 1).monitorFlags = 1;
    entry(1, "DM", 2).monitorBits = 0xFFFF;
    entry(1, "DM", 2).monitorFlags = 1;
    save(1, "DM", 1, 1, {0, 0});
    save(1, "TC", 1, 2, {0, 0, 0, 0});
    save(1, "R", 1, 1, {0});
    save(1, "DM_bit", 32, 16, std::vector<unsigned char>(16, 0));
    EXPECT_TRUE(calls().empty());

    save(1, "DM", 1, 1, {1, 2});
    save(1, "TC", 1, 2, {1, 2, 3, 4});
    save(1, "R", 1, 1, {1});
    save(1, "DM_bit", 33, 1, {1});
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 16), rec(1, "DM_bit", 25), rec(1, "DM", 1),
                                  rec(1, "TC", 1), rec(1, "R", 1), rec(1, "DM_bit", 33), rec(1, "DM", 2)}));
    save(1, "DM", 1, 1, {1, 2});
    save(1, "TC", 1, 2, {1, 2, 3, 4});
    save(1, "R", 1, 1, {1});
    save(1, "DM_bit", 33, 1, {1});
    EXPECT_TRUE(calls().empty());
}

TEST_F(DataArea, DwordWritesTakeFourBytesPerUnit) {
    save(1, "TC", 3, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_EQ(driver.dataArea.size(), 2);
    const _DATA_& a = entry(1, "TC", 3);
    const _DATA_& b = entry(1, "TC", 4);
    EXPECT_EQ(uchar2int32(a.writeValue[0], a.writeValue[1], a.writeValue[2], a.writeValue[3]), 0x04030201);
    EXPECT_EQ(uchar2int32(b.writeValue[0], b.writeValue[1], b.writeValue[2], b.writeValue[3]), 0x08070605);
    EXPECT_EQ(a.writeValid + b.writeValid, 2);

    save(1, "TC", 9, 1, {1, 2});
    EXPECT_EQ(driver.dataArea.size(), 2);
}

TEST_F(DataArea, BitUnitsReportEveryChangeWordsOnlyWhenMonitored) {
    save(3, "R", 80, 3, {1, 0, 1});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "R", 80), rec(3, "R", 82)}));
    save(3, "DM", 7, 1, {5, 0});
    EXPECT_TRUE(calls().empty());
    entry(3, "DM", 7).monitorFlags = 1;
    save(3, "DM", 7, 1, {6, 0});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "DM", 7)}));
    entry(3, "TC", 0).monitorFlags = 1;
    save(3, "TC", 0, 4, {1, 0, 0, 0, 1, 0, 0, 0});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "TC", 0)}));
}

TEST_F(DataArea, BitWriteReportsTheChangedMonitoredBitThenTheWord) {
    _DATA_& e = entry(1, "DM", 10);
    e.monitorBits = (1u << 3) | (1u << 5);
    e.monitorFlags = 1;
    save(1, "DM_bit", 163, 1, {1});
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 163), rec(1, "DM", 10)}));
    save(1, "DM_bit", 164, 1, {1});  // unmonitored bit, monitored word
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM", 10)}));
}

TEST_F(DataArea, ReportersOrderAndSelection) {
    const int i = at(2, "MR", 10);
    driver.dataArea[i].monitorBits = (1u << 15) | 1u | (1u << 7);
    driver.dataArea[i].monitorFlags = 1;
    _wordDataChange(nullptr, nullptr, i, 0);
    EXPECT_EQ(takeCalls(),
              (Calls{rec(2, "MR_bit", 160), rec(2, "MR_bit", 167), rec(2, "MR_bit", 175), rec(2, "MR", 10)}));
    int oldValue = 0x0001, newValue = 0x8001;
    _wordDataChange(&oldValue, nullptr, i, 0);
    EXPECT_EQ(takeCalls().size(), 4u);
    _wordDataChange(&oldValue, &newValue, i, 0);
    EXPECT_EQ(takeCalls(), (Calls{rec(2, "MR_bit", 175), rec(2, "MR", 10)}));
    _wordDataChange(nullptr, nullptr, i, 1);
    EXPECT_EQ(takeCalls(), (Calls{rec(2, "MR", 10)}));

    const int d = at(2, "TS", 4);
    const int b = at(2, "B", 4);
    _dwordDataChange(nullptr, nullptr, d, 0);
    _bitDataChange(b);
    EXPECT_TRUE(calls().empty());
    driver.dataArea[d].monitorFlags = 1;
    driver.dataArea[b].monitorFlags = 1;
    _dwordDataChange(nullptr, nullptr, d, 0);
    _bitDataChange(b);
    EXPECT_EQ(takeCalls(), (Calls{rec(2, "TS", 4), rec(2, "B", 4)}));

    _wordDataChange(nullptr, nullptr, -1, 0);
    _dwordDataChange(nullptr, nullptr, 99, 0);
    _bitDataChange(99);
    EXPECT_TRUE(calls().empty());
}

TEST_F(DataArea, StationsAreKeptApart) {
    save(1, "DM", 10, 1, {0x11, 0x22});
    save(2, "DM", 10, 1, {0x33, 0x44});
    unsigned char out[2];
    intf_getData(1, "DM", 10, 1, out);
    EXPECT_EQ(out[0], 0x11);
    intf_getData(2, "DM", 10, 1, out);
    EXPECT_EQ(out[0], 0x33);
}

TEST_F(DataArea, WithoutCallbackValuesAreStillStored) {
    intf_setAddrValueChangeCallBack(nullptr);
    entry(1, "DM", 1).monitorFlags = 1;
    save(1, "R", 0, 1, {1});
    save(1, "DM", 1, 1, {9, 0});
    EXPECT_EQ(entry(1, "R", 0).writeValue[0], 1);
    EXPECT_EQ(entry(1, "DM", 1).writeValue[0], 9);
    EXPECT_TRUE(calls().empty());
}

TEST_F(DataArea, BadInputChangesNothing) {
    std::vector<unsigned char> big(4096, 1);
    const struct {
        const char* reg;
        int address;
        int len;
    } cases[] = {
        {"XX", 0, 1},       {"dm", 0, 1},
        {"DM", 0, 0},       {"DM", 0, -1},
        {"DM", 0, 513},     {"TC", 0, 514},
        {"R", 0, 1025},     {"DM_bit", 0, 1025},
        {"DM", INT_MAX, 2}, {"TC", INT_MAX, 4},
        {"R", INT_MAX, 2},  {"DM_bit", INT_MAX, 2},
        {"DM_bit", -1, 1},  {"DM_bit", INT_MIN, 16},
    };
    for (const auto& c : cases) {
        write_saveDataToArea(1, c.reg, c.address, c.len, big.data());
        EXPECT_TRUE(driver.dataArea.isEmpty()) << c.reg << " " << c.address << " " << c.len;
    }
    write_saveDataToArea(1, "DM", 0, 1, nullptr);
    EXPECT_TRUE(driver.dataArea.isEmpty());
    EXPECT_TRUE(calls().empty());

    write_saveDataToArea(1, "DM", INT_MAX, 1, big.data());  // the last int address is fine
    write_saveDataToArea(1, "DM", -5, 2, big.data());
    EXPECT_EQ(driver.dataArea.size(), 3);
}

TEST_F(DataArea, SecondIdenticalBitWriteCountsOnlyWhenTwoRequestsWait) {
    VARIABLE v;
    v.station = 1;
    v.reg = "DM_bit";
    v.address = 50;
    v.length = 1;
    {
        std::lock_guard<std::mutex> lock(driver.mutex);
        driver.writeList.append(v);
    }
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 1u << 4);
    save(1, "DM_bit", 50, 1, {1});  // one request waiting: no second flag
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 1u << 4);
    {
        std::lock_guard<std::mutex> lock(driver.mutex);
        driver.writeList.append(v);
        VARIABLE other = v;
        other.length = 2;
        driver.writeList.append(other);
    }
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 3u << 4);
    std::lock_guard<std::mutex> lock(driver.mutex);
    driver.writeList.clear();
}

TEST_F(DataArea, CallbackThatEmptiesTheAreaIsSurvived) {
    self = this;
    intf_setAddrValueChangeCallBack(&reinitialise);
    save(1, "R", 0, 4, {1, 1, 1, 1});
    entry(1, "DM", 0).monitorFlags = 1;
    entry(1, "DM", 0).monitorBits = 0xFFFF;
    save(1, "DM_bit", 0, 16, std::vector<unsigned char>(16, 1));
    entry(1, "DM", 0).monitorFlags = 1;
    save(1, "DM", 0, 8, std::vector<unsigned char>(16, 3));
    EXPECT_LE(driver.dataArea.size(), 8);
}

}  // namespace
