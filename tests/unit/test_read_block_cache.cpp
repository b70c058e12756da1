// Cyclic read blocks remember where their units lie in the data area. Those
// positions must never put a value into the wrong unit: not after the data
// area was emptied, not after the read list was rebuilt, and not when the
// list was changed behind the driver's back.
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <QList>

#include <vector>

namespace {

class ReadBlockCache : public RuntimeFixture {
protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        handshake();
    }
    void handshake() {
        runLoop(plc, 5);
        ASSERT_EQ(driver.handShakeFlag, 0);
    }
    void monitor(int station, int address, int count) {
        QList<KEY_ADDRESS> keys;
        for (int i = 0; i < count; ++i) {
            KEY_ADDRESS k;
            k.station = station;
            k.reg = QStringLiteral("DM");
            k.address = address + i;
            k.length = 1;
            keys.append(k);
        }
        intf_addrMerge(keys);
    }
    void setWords(int address, int count, int seed) {
        for (int i = 0; i < count; ++i) plc.set("DM", address + i, uint16_t(seed + i));
    }
    // One cyclic read answered by the controller stand-in.
    void readOnce() {
        const auto steps = runLoop(plc, 1);
        ASSERT_EQ(steps.size(), 1u);
        ASSERT_EQ(steps[0].result, 1);
    }
    std::vector<int> shown(int station, int address, int count) {
        std::vector<unsigned char> buf(2 * count);
        intf_getData(station, QStringLiteral("DM"), address, count, buf.data());
        std::vector<int> v;
        for (int i = 0; i < count; ++i) v.push_back(buf[2 * i] | buf[2 * i + 1] << 8);
        return v;
    }
    static std::vector<int> run(int seed, int count) {
        std::vector<int> v;
        for (int i = 0; i < count; ++i) v.push_back(seed + i);
        return v;
    }
    int reportsFor(const char* name) {
        int n = 0;
        for (const CallbackRecord& c : calls()) n += c.name == QLatin1String(name);
        return n;
    }
    SimPlc plc;
};

TEST_F(ReadBlockCache, RepeatedReadsReportEveryChangeOfEveryWord) {
    monitor(1, 100, 8);
    for (int round = 1; round <= 3; ++round) {
        setWords(100, 8, 1000 * round);
        calls().clear();
        readOnce();
        EXPECT_EQ(reportsFor("DM"), 8) << "round " << round;
        EXPECT_EQ(shown(1, 100, 8), run(1000 * round, 8));
    }
}

TEST_F(ReadBlockCache, UnitsCreatedBetweenReadsDoNotShiftTheBlock) {
    monitor(1, 100, 4);
    setWords(100, 4, 10);
    readOnce();
    // Screens read other units: new entries come in between.
    shown(1, 500, 50);
    shown(2, 100, 4);
    setWords(100, 4, 20);
    readOnce();
    EXPECT_EQ(shown(1, 100, 4), run(20, 4));
    EXPECT_EQ(shown(2, 100, 4), std::vector<int>(4, 0));
}

TEST_F(ReadBlockCache, DataAreaEmptiedByInitialisation) {
    monitor(1, 100, 4);
    setWords(100, 4, 10);
    readOnce();
    initDriver("1#0#0#3#10");
    handshake();
    shown(1, 0, 20);  // other units now take the old positions
    monitor(1, 100, 4);
    setWords(100, 4, 30);
    calls().clear();
    readOnce();
    EXPECT_EQ(reportsFor("DM"), 4);
    EXPECT_EQ(shown(1, 100, 4), run(30, 4));
    EXPECT_EQ(shown(1, 0, 20), std::vector<int>(20, 0));
}

TEST_F(ReadBlockCache, DataAreaChangedBehindTheDriver) {
    monitor(1, 100, 4);
    setWords(100, 4, 10);
    readOnce();
    driver.dataArea.clear();
    shown(1, 7, 10);  // entries for other units at the block's old positions
    setWords(100, 4, 40);
    readOnce();
    EXPECT_EQ(shown(1, 100, 4), run(40, 4));
    EXPECT_EQ(shown(1, 7, 10), std::vector<int>(10, 0));
}

TEST_F(ReadBlockCache, RebuiltReadListReadsIntoItsOwnUnits) {
    monitor(1, 100, 4);
    setWords(100, 4, 10);
    readOnce();
    // The same start on another station, and a longer block on the first.
    monitor(2, 100, 4);
    setWords(100, 4, 50);
    readOnce();
    EXPECT_EQ(shown(2, 100, 4), run(50, 4));
    EXPECT_EQ(shown(1, 100, 4), run(10, 4));
    monitor(1, 100, 6);
    setWords(100, 6, 60);
    readOnce();
    EXPECT_EQ(shown(1, 100, 6), run(60, 6));
}

TEST_F(ReadBlockCache, ConditionReadOfTheSameRangeStoresTheSameUnits) {
    monitor(1, 100, 4);
    setWords(100, 4, 10);
    readOnce();
    KEY_ADDRESS k;
    k.station = 1;
    k.reg = QStringLiteral("DM");
    k.address = 100;
    k.length = 4;
    intf_addConditionRead(k, 9);
    setWords(100, 4, 70);
    readOnce();
    EXPECT_EQ(shown(1, 100, 4), run(70, 4));
    setWords(100, 4, 80);
    readOnce();  // the cyclic block again
    EXPECT_EQ(shown(1, 100, 4), run(80, 4));
}

}  // namespace
