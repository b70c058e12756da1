// Data-area store: lookup and its index, written values, change reports and
// the value helpers.
#include "data_area_fixture.h"

#include <climits>

namespace {

using DataArea = DataAreaFixture;

TEST(DataAreaHelpers, ValuesAndUnitKinds) {
    EXPECT_EQ(_setBitValue(0, 3, 1), 8);
    EXPECT_EQ(_setBitValue(0xFF, 0, 0), 0xFE);
    EXPECT_EQ(_setBitValue(0, 1, 5), 2);
    EXPECT_EQ(_setBitValue(0, 31, 1), INT_MIN);
    EXPECT_EQ(_setBitValue(-1, 31, 0), INT_MAX);
    EXPECT_EQ(_setBitValue(5, 32, 1), 5);
    EXPECT_EQ(_setBitValue(5, -1, 0), 5);
    EXPECT_EQ(uchar2int16(0xFF, 0xFF), 65535);
    EXPECT_EQ(uchar2int32(0x78, 0x56, 0x34, 0x12), 0x12345678);
    EXPECT_EQ(uchar2int32(0, 0, 0, 0x80), INT_MIN);

    const struct {
        QByteArray text;
        int pos, value;
    } hex[] = {
        {"1F", 0, 0x1F},    {"af", 0, 0xAF},
        {"zz3A", 2, 0x3A},  {":?", 0, 10 * 16 + 15},  // codes 58 and 63 count code - 48
        {"@1", 0, 0x01},                              // the at sign counts 0, and so does a space
        {" 1", 0, 0x01},    {"z1", 0, 3 * 16 + 1},    // (122 - 55) mod 16
        {"F", 0, 0xF0},                               // low digit past the end
        {"12", 5, 0},       {"12", -1, 0x01},
        {"12", INT_MAX, 0}, {QByteArray(), 0, 0},
    };
    for (const auto& h : hex)
        EXPECT_EQ(asc2hex(h.text, h.pos), h.value) << h.text.constData() << " " << h.pos;

    UnitRegister r;
    for (const char* n : {"dm", "", "DM_", "DM_BIT", "XX"}) EXPECT_FALSE(resolveUnitRegister(n, r)) << n;
    ASSERT_TRUE(resolveUnitRegister("DM_bit", r));
    EXPECT_EQ(r.key, "DM");
}

TEST_F(DataArea, LookupCreatesZeroEntriesWithStableIndexes) {
    const int i = at(1, "DM", 10);
    const _DATA_& e = driver.dataArea.at(i);
    EXPECT_EQ(QString("%1 %2 %3").arg(e.station).arg(e.regKey).arg(e.address), "1 DM 10");
    EXPECT_EQ(e.writeValid | e.bitWriteFlags | e.monitorFlags | e.monitorBits, 0u);
    for (int b = 0; b < 4; ++b) EXPECT_EQ(e.readValue[b] | e.writeValue[b], 0);
    EXPECT_EQ(at(1, "DM", 10), i);
    EXPECT_NE(at(2, "DM", 10), i);  // station separates
    EXPECT_NE(at(1, "EM", 10), i);
    EXPECT_NE(at(1, "DM", 11), i);
    EXPECT_EQ(driver.dataArea.size(), 4);

    // Indexes stay what they were while the area grows, and the index agrees.
    initDriver("1#0#0#3#10");
    for (int a = 0; a < 3000; ++a) ASSERT_EQ(at(a % 3, a % 2 ? "DM" : "TC", a), a);
    for (int a = 2999; a >= 0; --a) ASSERT_EQ(at(a % 3, a % 2 ? "DM" : "TC", a), a);
    EXPECT_EQ(driver.dataIndex.size(), 3000u);
}

TEST_F(DataArea, IndexFollowsTheListWhenEmptiedOrChangedBehindIt) {
    // Other lists and keys outside the catalogue are scanned linearly.
    QVector<_DATA_> other;
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 5, other), 0);
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 6, other), 1);
    EXPECT_EQ(getIndexOfDataArea(1, "DM", 5, other), 0);
    EXPECT_TRUE(driver.dataArea.isEmpty() && driver.dataIndex.empty());
    EXPECT_EQ(at(1, "XX", 5), 0);
    EXPECT_EQ(at(1, "DM", 5), 1);
    EXPECT_EQ(at(1, "XX", 5), 0);

    clearDataArea();
    EXPECT_TRUE(driver.dataIndex.empty());
    EXPECT_EQ(at(1, "DM", 2), 0);
    initDriver("1#0#0#3#10");
    EXPECT_TRUE(driver.dataArea.isEmpty() && driver.dataIndex.empty());

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
    EXPECT_EQ(get(1, "DM_bit", 10 * 16 + 2, 2, 2), (Bytes{0, 1}));
    save(1, "DM_bit", 10 * 16 + 15, 1, {1});
    EXPECT_EQ(unit(1, "DM", 10), "1 40000000 | 00 00 00 00 | 08 80 00 00");
    EXPECT_EQ(driver.dataArea.size(), 1);

    // The first bit write of a word keeps the rest of the read word, not a stale written one.
    for (int w : {20, 21}) {
        _DATA_& e = entry(1, "DM", w);
        e.readValue[0] = 0xA5;
        e.readValue[1] = 0x5A;
        e.writeValue[0] = e.writeValue[1] = 0x77;
    }
    save(1, "DM_bit", 20 * 16 + 8, 1, {1});  // high byte
    save(1, "DM_bit", 21 * 16 + 0, 1, {2});  // low byte; only 1 sets a bit
    EXPECT_EQ(entry(1, "DM", 20).writeValid, 1);
    EXPECT_EQ(get(1, "DM", 20, 2, 4), (Bytes{0xA5, 0x5B, 0xA4, 0x5A}));
}

TEST_F(DataArea, DwordWritesTakeFourBytesPerUnit) {
    save(1, "TC", 3, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(unit(1, "TC", 3), "1 0 | 00 00 00 00 | 01 02 03 04");
    EXPECT_EQ(unit(1, "TC", 4), "1 0 | 00 00 00 00 | 05 06 07 08");
    save(1, "TC", 9, 1, {1, 2});  // below one dword
    EXPECT_EQ(driver.dataArea.size(), 2);
}

TEST_F(DataArea, ChangesAreReportedOncePerChangeAndKind) {
    monitor(1, "DM", 1, 0xFFFF);
    monitor(1, "TC", 1);
    monitor(1, "R", 1);
    monitor(1, "DM", 2, 0xFFFF);
    save(1, "DM", 1, 1, {0, 0});
    save(1, "TC", 1, 2, {0, 0, 0, 0});
    save(1, "R", 1, 1, {0});
    save(1, "DM_bit", 32, 16, Bytes(16, 0));
    EXPECT_TRUE(calls().empty());
    for (int round = 0; round < 2; ++round) {
        save(1, "DM", 1, 1, {1, 2});
        save(1, "TC", 1, 2, {1, 2, 3, 4});
        save(1, "R", 1, 1, {1});
        save(1, "DM_bit", 33, 1, {1});
        // Changed monitored bits, ascending, then the word; nothing once the values are shown.
        EXPECT_EQ(takeCalls(),
                  round ? Calls{}
                        : (Calls{rec(1, "DM_bit", 16), rec(1, "DM_bit", 25), rec(1, "DM", 1), rec(1, "TC", 1),
                                 rec(1, "R", 1), rec(1, "DM_bit", 33), rec(1, "DM", 2)}));
    }
}

TEST_F(DataArea, BitUnitsReportEveryChangeWordsOnlyWhenMonitored) {
    save(3, "R", 80, 3, {1, 0, 1});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "R", 80), rec(3, "R", 82)}));
    save(3, "DM", 7, 1, {5, 0});
    EXPECT_TRUE(calls().empty());
    monitor(3, "DM", 7);
    save(3, "DM", 7, 1, {6, 0});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "DM", 7)}));
    monitor(3, "TC", 0);
    save(3, "TC", 0, 4, {1, 0, 0, 0, 1, 0, 0, 0});
    EXPECT_EQ(takeCalls(), (Calls{rec(3, "TC", 0)}));
    // A bit write reports the changed monitored bit, then the word.
    monitor(1, "DM", 10, (1u << 3) | (1u << 5));
    save(1, "DM_bit", 163, 1, {1});
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM_bit", 163), rec(1, "DM", 10)}));
    save(1, "DM_bit", 164, 1, {1});  // unmonitored bit, monitored word
    EXPECT_EQ(takeCalls(), (Calls{rec(1, "DM", 10)}));

    // Without a callback the values are stored all the same.
    intf_setAddrValueChangeCallBack(nullptr);
    save(1, "R", 0, 1, {1});
    save(3, "DM", 7, 1, {9, 0});
    EXPECT_EQ(entry(1, "R", 0).writeValue[0], 1);
    EXPECT_EQ(entry(3, "DM", 7).writeValue[0], 9);
    EXPECT_TRUE(calls().empty());
}

TEST_F(DataArea, ReportersOrderAndSelection) {
    const int i = at(2, "MR", 10);
    monitor(2, "MR", 10, (1u << 15) | 1u | (1u << 7));
    // Null values report every monitored bit, ascending, then the word.
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

    const int d = at(2, "TS", 4), b = at(2, "B", 4);
    _dwordDataChange(nullptr, nullptr, d, 0);
    _bitDataChange(b);
    EXPECT_TRUE(calls().empty());
    monitor(2, "TS", 4);
    monitor(2, "B", 4);
    _dwordDataChange(nullptr, nullptr, d, 0);
    _bitDataChange(b);
    EXPECT_EQ(takeCalls(), (Calls{rec(2, "TS", 4), rec(2, "B", 4)}));
    _wordDataChange(nullptr, nullptr, -1, 0);
    _dwordDataChange(nullptr, nullptr, 99, 0);
    _bitDataChange(99);
    EXPECT_TRUE(calls().empty());
}

TEST_F(DataArea, BadInputChangesNothing) {
    Bytes big(4096, 1);
    const struct {
        const char* reg;
        int address, len;
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
    queueWrite(1, "DM_bit", 50, 1);
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 1u << 4);
    save(1, "DM_bit", 50, 1, {1});  // one request waiting: no second flag
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 1u << 4);
    queueWrite(1, "DM_bit", 50, 1);
    queueWrite(1, "DM_bit", 50, 2);
    save(1, "DM_bit", 50, 1, {1});
    EXPECT_EQ(entry(1, "DM", 3).bitWriteFlags, 3u << 4);
}

// A runtime may re-initialise the driver from inside its change report.
void reinitialise(int, int, const QString&, int) {
    static unsigned char shm[60117];
    static unsigned short recipe[16];
    static QMutex m;
    int status;
    intf_initProperty(shm, nullptr, recipe, &status, "1#0#0#3#10", &m);
}

TEST_F(DataArea, CallbackThatEmptiesTheAreaIsSurvived) {
    intf_setAddrValueChangeCallBack(&reinitialise);
    save(1, "R", 0, 4, {1, 1, 1, 1});
    monitor(1, "DM", 0, 0xFFFF);
    save(1, "DM_bit", 0, 16, Bytes(16, 1));
    monitor(1, "DM", 0);
    save(1, "DM", 0, 8, Bytes(16, 3));
    EXPECT_LE(driver.dataArea.size(), 8);
}

}  // namespace
