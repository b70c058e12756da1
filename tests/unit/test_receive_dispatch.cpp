// The receive path: acceptance, retries and abandonment, message texts, and
// the bookkeeping at the end of each kind of transaction.
#include "records.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <QByteArray>

#include <algorithm>
#include <random>

namespace {

class Receive : public RuntimeFixture {
protected:
    void finishHandshake() {
        runLoop(plc, 5);
        ASSERT_EQ(driver.handShakeFlag, 0);
    }
    int deal(QByteArray reply, QString* message = nullptr) {
        QString m;
        const int r = intf_dealRcvFrame(&reply, &m);
        if (message) *message = m;
        return r;
    }
    FRAME_PRO next() {
        FRAME_PRO f;
        EXPECT_EQ(intf_getSendFrame(&f), 1);
        return f;
    }
    void addRead(const char* reg, int address, int length) {
        driver.readList.append(makeItem(reg, address, length));
        driver.readList.last().id = 4;
    }
    SimPlc plc;
};

TEST_F(Receive, NothingOutstanding) {
    QString m = QStringLiteral("stale");
    QByteArray r("x");
    driver.handShakeFlag = 0;
    EXPECT_EQ(intf_dealRcvFrame(&r, &m), 0);
    EXPECT_TRUE(m.isEmpty());
}

TEST_F(Receive, BadRepliesAreRetriedUpToRetryTimes) {
    finishHandshake();
    addRead("DM", 100, 5);
    next();
    QString m;
    EXPECT_EQ(deal("bad", &m), 8);
    EXPECT_EQ(deal("bad"), 8);
    EXPECT_EQ(deal("bad", &m), 2);
    EXPECT_EQ(m, "1#DM100(5)");
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(driver.retryCount, 0);
    EXPECT_EQ(driver.commError, 1);

    // A good reply after two bad ones resets the count and the error.
    const FRAME_PRO f = next();
    EXPECT_EQ(deal(""), 8);
    EXPECT_EQ(deal(plc.answer(f).left(5)), 8);  // a reply in pieces is a bad reply
    EXPECT_EQ(deal(plc.answer(f)), 1);
    EXPECT_EQ(driver.retryCount, 0);
    EXPECT_EQ(driver.commError, 0);

    // With retryTimes 0 the first bad reply ends the transaction.
    initDriver("1#0#0#0#10");
    finishHandshake();
    addRead("DM", 100, 1);
    next();
    EXPECT_EQ(deal("bad"), 2);
}

TEST_F(Receive, HandshakeMessageIsConnectionFailed) {
    FRAME_PRO f = next();  // lone acknowledge: no reply expected
    QString m;
    EXPECT_EQ(deal(QByteArray(), &m), 1);
    f = next();
    EXPECT_EQ(deal(plc.answer(f), &m), 1);
    EXPECT_EQ(m, "connection failed");
    f = next();
    deal(QByteArray());
    f = next();
    EXPECT_EQ(deal("short", &m), 8);
    EXPECT_EQ(m, "connection failed");
    EXPECT_EQ(deal("short"), 8);
    EXPECT_EQ(deal("short"), 2);
    // The handshake starts again from its first frame.
    EXPECT_EQ(driver.handShakeFlag, 1);
    f = next();
    EXPECT_EQ(f.sendLength, 1);
    EXPECT_EQ(driver.state, 1);
}

TEST_F(Receive, MessageTexts) {
    finishHandshake();
    queueWrites({makeItem("DM_bit", 1605, 1, 2)});
    next();
    QString m;
    deal("bad", &m);
    EXPECT_EQ(m, "2#DM_bit100.5(1)");
    deal("bad");
    deal("bad");
    addRead("W", 255, 2);
    next();
    deal("bad", &m);
    EXPECT_EQ(m, "1#W255(2)");
}

TEST_F(Receive, CyclicListRotatesOnlyWithTwoOrMoreBlocks) {
    finishHandshake();
    addRead("DM", 1, 1);
    runLoop(plc, 1);
    EXPECT_EQ(driver.readList.first().address, 1);
    addRead("DM", 2, 1);
    addRead("DM", 3, 1);
    runLoop(plc, 1);
    EXPECT_EQ(driver.readList[0].address, 2);
    EXPECT_EQ(driver.readList[1].address, 3);
    EXPECT_EQ(driver.readList[2].address, 1);
    // An abandoned cyclic read moves on all the same.
    next();
    deal("x");
    deal("x");
    deal("x");
    EXPECT_EQ(driver.readList[0].address, 3);
}

TEST_F(Receive, FailedWriteIsSettledAndLeavesTheQueue) {
    finishHandshake();
    unsigned char v[2] = {0x34, 0x12};
    QString dm = QStringLiteral("DM");
    QList<KEY_ADDRESS> keys{makeKey("DM", 100, 1)};
    intf_addrMerge(keys);
    intf_setData(1, &dm, 100, 1, v, 5);
    intf_setData(1, &dm, 101, 1, v, 6);
    calls().clear();
    const FRAME_PRO f = next();
    EXPECT_EQ(f.address, 100);
    EXPECT_EQ(deal("x"), 8);
    EXPECT_EQ(deal("x"), 8);
    EXPECT_EQ(deal("x"), 2);
    // The written value is withdrawn and the screen told.
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{1, 1, "DM", 100}}));
    EXPECT_EQ(shownUnit("DM", 100), 0u);
    EXPECT_EQ(next().address, 101);
}

class RecipeRead : public Receive {
protected:
    void SetUp() override {
        Receive::SetUp();
        finishHandshake();
        QVector<_RCP_VAR_PRO> entries;
        for (int i = 0; i < 3; ++i) {
            entries.append(makeEntry("DM", 100 * (i + 1), 1, i));
            plc.set("DM", 100 * (i + 1), static_cast<uint16_t>(0x100 + i));
        }
        ASSERT_EQ(intf_setRcpAddress(entries), 3);
        requestRecipeRead(true);
    }
};

TEST_F(RecipeRead, ThreeBlocksAdvanceThenEnd) {
    const int expected[3] = {1, 2, 0};
    for (int b = 0; b < 3; ++b) {
        ASSERT_EQ(runLoop(plc, 1).size(), 1u);
        EXPECT_EQ(driver.rcpFrameIndex, expected[b]);
    }
    EXPECT_EQ(recipeReadByte(), 0);
    EXPECT_EQ(recipe[0], 0x100);
    EXPECT_EQ(recipe[1], 0x101);
    EXPECT_EQ(recipe[2], 0x102);
    std::vector<CallbackRecord> rwi;
    for (const auto& c : calls())
        if (c.name == "RWI") rwi.push_back(c);
    ASSERT_EQ(rwi.size(), 3u);
    EXPECT_EQ(rwi[2], (CallbackRecord{0, -1, "RWI", 2}));
}

TEST_F(RecipeRead, ErrorInTheSecondBlockEndsTheTransfer) {
    runLoop(plc, 1);
    EXPECT_EQ(driver.rcpFrameIndex, 1);
    next();
    deal("x");
    deal("x");
    EXPECT_EQ(recipeReadByte(), 1);
    deal("x");
    EXPECT_EQ(driver.rcpFrameIndex, 0);
    EXPECT_EQ(recipeReadByte(), 0);
    EXPECT_EQ(recipe[1], 0);
}

TEST_F(Receive, ConditionReadQueuedFromTheCompletionCallbackIsKept) {
    finishHandshake();
    static bool queued;
    queued = false;
    intf_setAddrValueChangeCallBack([](int context, int, const QString&, int) {
        if (context == -1 && !queued) {
            queued = true;
            intf_addConditionRead(makeKey("TM", 9, 1), 8);
        }
    });
    intf_addConditionRead(makeKey("DM", 10, 1), 1);
    runLoop(plc, 1);
    EXPECT_TRUE(queued);
    ASSERT_EQ(driver.conditionReadList.size(), 1);
    EXPECT_EQ(driver.conditionReadList.first().reg, "TM");
}

TEST_F(Receive, PollingReportsAChangeInTheController) {
    finishHandshake();
    QList<KEY_ADDRESS> keys{makeKey("DM", 100, 1), makeKey("R", 37, 1), makeKey("TC", 5, 2),
                            makeKey("MR_bit", 165, 1)};
    intf_addrMerge(keys);
    runLoop(plc, 8);
    calls().clear();
    plc.set("DM", 100, 4321);
    plc.set("R", 37, true);
    plc.set("TC", 5, 123456);
    plc.set("MR", 10, 1 << 5);
    runLoop(plc, 4);
    std::vector<CallbackRecord> expected = {
        {1, 1, "DM", 100}, {1, 1, "R", 37}, {1, 1, "TC", 5}, {1, 1, "MR_bit", 165}};
    for (const auto& e : expected)
        EXPECT_NE(std::find(calls().begin(), calls().end(), e), calls().end()) << e.name.toStdString();
    EXPECT_EQ(shownUnit("DM", 100), 4321u);
    EXPECT_EQ(shownUnit("R", 37), 1u);
    EXPECT_EQ(shownUnit("TC", 5), 123456u);
    EXPECT_EQ(shownUnit("MR_bit", 165), 1u);
}

TEST_F(Receive, AnyBytesGiveADefinedResult) {
    finishHandshake();
    addRead("DM", 100, 3);
    addRead("R", 30, 20);
    addRead("TC", 1, 2);
    std::mt19937 rng(7);
    for (int i = 0; i < 3000; ++i) {
        FRAME_PRO f;
        if (!intf_getSendFrame(&f)) continue;
        QByteArray reply;
        const int size = (i % 50 == 0) ? 65536 : int(rng() % 40);
        for (int k = 0; k < size; ++k) reply.append(char(rng()));
        if (i % 7 == 0) reply = plc.answer(f);
        if (i % 11 == 0 && reply.size() > 9) reply[9] = char(rng());  // valid envelope, wrong check
        QString m;
        const int r = intf_dealRcvFrame(&reply, &m);
        ASSERT_TRUE(r == 0 || r == 1 || r == 2 || r == 8) << r;
    }
    FRAME_PRO f;
    ASSERT_EQ(intf_getSendFrame(&f), 1);
    const int r = intf_dealRcvFrame(nullptr, nullptr);
    EXPECT_TRUE(r == 8 || r == 2) << r;
    EXPECT_EQ(intf_getSendFrame(nullptr), 0);
}

}  // namespace
