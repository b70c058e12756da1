// Write requests: cutting into items, the queueing rule, the local-only mode
// and what is refused.
#include "records.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <vector>

namespace {

class Writes : public RuntimeFixture {
protected:
    void write(const char* reg, int address, int length, const std::vector<unsigned char>& data, int id = 1) {
        QString name = QString::fromLatin1(reg);
        EXPECT_EQ(intf_setData(1, &name, address, length, const_cast<unsigned char*>(data.data()), id), 1);
    }
    static std::vector<unsigned char> ramp(int n) {
        std::vector<unsigned char> v(n);
        for (int i = 0; i < n; ++i) v[i] = static_cast<unsigned char>(i);
        return v;
    }
    QList<VARIABLE> queue() {
        std::lock_guard<std::mutex> lock(driver.mutex);
        return driver.writeList;
    }
    static void monitor(const char* reg, int address, int length) {
        QList<KEY_ADDRESS> keys{makeKey(reg, address, length)};
        intf_addrMerge(keys);
    }
};

TEST_F(Writes, LocalWriteOnlyChangesOnlyTheDataArea) {
    initDriver("1#1#0#3#0");  // block length 0 does not matter: nothing is queued
    write("DM", 10, 1, {0x34, 0x12});
    EXPECT_TRUE(queue().isEmpty());
    EXPECT_EQ(shownUnit("DM", 10), 0x1234u);
}

// Items of at most the block length (8 bits per element for bits in words),
// never more than one frame holds, double words never cut in half, relay bits
// one per item; each item with the request's id and its own part of the values.
TEST_F(Writes, RequestsAreCutIntoItems) {
    const struct {
        const char *parameters, *reg;
        int address, length, unitBytes;
        const char *items, *debugLine;
    } cases[] = {
        {"1#0#0#3#4", "DM", 100, 10, 2, "DM(100,4) DM(104,4) DM(108,2)", "addVarToList 1 \"DM\" 100 4"},
        {"1#0#0#3#10", "R", 80, 3, 1, "R(80,1) R(81,1) R(82,1)", "addVarToList 1 \"R\" 82 1 0"},
        {"1#0#0#3#4", "TC", 4, 4, 4, "TC(4,2)", nullptr},
        {"1#0#0#3#2", "TC", 4, 4, 4, "TC(4,1) TC(5,1)", nullptr},
        {"1#0#0#3#5", "TC", 4, 10, 4, "TC(4,2) TC(6,2) TC(8,1)", nullptr},
        {"1#0#0#3#500", "DM", 0, 300, 2, "DM(0,121) DM(121,121) DM(242,58)", nullptr},
        {"1#0#0#3#500", "Z", 0, 250, 4, "Z(0,60) Z(60,60) Z(120,5)", nullptr},
        {"1#0#0#3#2", "DM_bit", 160, 20, 1, "DM_bit(160,16) DM_bit(176,4)", nullptr},
    };
    const std::vector<unsigned char> values = ramp(1024);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.parameters) + " " + c.reg);
        initDriver(c.parameters);
        DebugCapture capture;
        write(c.reg, c.address, c.length, values, 7);
        const QList<VARIABLE> q = queue();
        EXPECT_EQ(shapeOf(q), c.items);
        for (const VARIABLE& v : q) {
            EXPECT_EQ(v.id, 7);
            const int at = (v.address - c.address) * c.unitBytes;
            for (int b = 0; b < v.length * c.unitBytes; ++b)
                ASSERT_EQ(v.data[b], values[at + b]) << v.address;
        }
        if (c.debugLine) {
            EXPECT_TRUE(capture.lines().contains(c.debugLine));
        }
    }
}

TEST_F(Writes, WaitingItemIsOverwrittenButNeverTheHead) {
    write("DM", 100, 1, {1, 0});
    write("DM", 100, 1, {2, 0});  // the head is on the wire: appended
    EXPECT_EQ(shapeOf(queue()), "DM(100,1) DM(100,1)");
    write("DM", 100, 1, {3, 0});  // replaces the waiting one
    const QList<VARIABLE> q = queue();
    ASSERT_EQ(q.size(), 2);
    EXPECT_EQ(q[0].data[0], 1);
    EXPECT_EQ(q[1].data[0], 3);
}

TEST_F(Writes, TheCapOverwritesTheLastItemAndSettlesIt) {
    for (int i = 0; i < 513; ++i) write("DM", i, 1, {1, 0});
    ASSERT_EQ(queue().size(), 513);
    monitor("DM", 512, 1);
    calls().clear();
    write("DM", 9999, 1, {5, 0});
    const QList<VARIABLE> q = queue();
    ASSERT_EQ(q.size(), 513);
    EXPECT_EQ(q[512].address, 9999);
    // The lost write of DM 512 falls back to the read value, and the screen is told.
    EXPECT_EQ(shownUnit("DM", 512), 0u);
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{1, 1, "DM", 512}}));
}

TEST_F(Writes, RefusedRequestsChangeNothing) {
    std::vector<unsigned char> big(2048, 1);
    write("XX", 1, 1, {1, 0});
    write("DM", 1, 0, {1, 0});
    write("DM", 1, -5, {1, 0});
    write("DM", 1, 513, big);
    write("DM_bit", 1, 1025, big);
    write("DM", -1, 1, {1, 0});
    write("DM", 2147483647, 2, {1, 0, 1, 0});
    QString dm = QStringLiteral("DM");
    EXPECT_EQ(intf_setData(1, &dm, 1, 1, nullptr, 0), 1);
    EXPECT_EQ(intf_setData(1, nullptr, 1, 1, big.data(), 0), 1);
    EXPECT_TRUE(queue().isEmpty());
    EXPECT_TRUE(driver.dataArea.isEmpty());
    initDriver("1#0#0#3#0");
    write("DM", 1, 1, {1, 0});
    EXPECT_TRUE(queue().isEmpty());
    EXPECT_TRUE(driver.dataArea.isEmpty());
}

TEST_F(Writes, ContactsAreNotQueuedAndFallBackAtOnce) {
    write("C", 3, 1, {1});
    write("DM", 9, 1, {1, 0});
    EXPECT_EQ(shapeOf(queue()), "DM(9,1)");
    EXPECT_EQ(shownUnit("C", 3), 0u);
    // Bit units report every change of what they show: the write, then its withdrawal.
    ASSERT_EQ(calls().size(), 2u);
    EXPECT_EQ(calls()[1], (CallbackRecord{1, 1, "C", 3}));
}

class WritesEndToEnd : public Writes {
protected:
    SimPlc plc;
};

TEST_F(WritesEndToEnd, WrittenValueReachesTheControllerAndSurvivesTheNextRead) {
    runLoop(plc, 5);
    monitor("DM", 100, 2);
    runLoop(plc, 1);
    write("DM", 100, 2, {0x34, 0x12, 0x78, 0x56});
    EXPECT_EQ(shownUnit("DM", 100), 0x1234u);  // shown at once
    runLoop(plc, 2);                           // the write, then a cyclic read
    EXPECT_EQ(plc.get("DM", 100), 0x1234);
    EXPECT_EQ(plc.get("DM", 101), 0x5678);
    EXPECT_EQ(shownUnit("DM", 100), 0x1234u);
    EXPECT_EQ(shownUnit("DM", 101), 0x5678u);
    for (const _DATA_& d : qAsConst(driver.dataArea)) EXPECT_EQ(d.writeValid, 0);
}

TEST_F(WritesEndToEnd, BitWriteIntoAWordKeepsTheOtherBits) {
    runLoop(plc, 5);
    plc.set("DM", 100, 0x8001);
    plc.set("DM", 101, 0x0F0F);
    write("DM_bit", 100 * 16 + 14, 4, {1, 0, 0, 1});
    runLoop(plc, 2);
    EXPECT_EQ(plc.get("DM", 100), 0x4001);
    EXPECT_EQ(plc.get("DM", 101), 0x0F0E);
    EXPECT_TRUE(queue().isEmpty());
}

TEST_F(WritesEndToEnd, WriteThatKeepsFailingFallsBackToTheReadValue) {
    runLoop(plc, 5);
    monitor("TM", 3, 1);
    plc.set("TM", 3, 11);
    runLoop(plc, 1);
    write("TM", 3, 1, {99, 0});
    calls().clear();
    const auto steps = runLoop(plc, 3, [](const FRAME_PRO&, QByteArray r) { return r.left(r.size() - 1); });
    ASSERT_EQ(steps.size(), 3u);
    EXPECT_EQ(steps[2].result, 2);
    EXPECT_EQ(shownUnit("TM", 3), 11u);
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{1, 1, "TM", 3}}));
}

}  // namespace
