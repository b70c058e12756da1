// The frame scheduler: precedence of handshake, recipe transfers, writes,
// condition reads and cyclic reads, their limits, and re-sending.
#include "records.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

#include <QByteArray>

#include <cstring>

namespace {

class Scheduler : public RuntimeFixture {
protected:
    // Answers the handshake so that the next choice is a real transaction.
    void finishHandshake() {
        ASSERT_EQ(runLoop(plc, 5).size(), 5u);
        ASSERT_EQ(driver.handShakeFlag, 0);
    }
    // One transaction: frame out and answered well; returns the first frame.
    FRAME_PRO serve() {
        FRAME_PRO first;
        FRAME_PRO f;
        bool any = false;
        while (true) {
            if (!intf_getSendFrame(&f)) break;
            if (!any) first = f;
            any = true;
            QByteArray reply = plc.answer(f);
            QString m;
            intf_dealRcvFrame(&reply, &m);
            if (driver.frameList.isEmpty()) break;
        }
        if (!any) first.reg = QStringLiteral("<idle>");
        return first;
    }
    void registerKeys(QList<KEY_ADDRESS> keys) { intf_addrMerge(keys); }
    SimPlc plc;
};

QString label(const FRAME_PRO& f) {
    return f.reg + QString::number(f.address);
}

TEST_F(Scheduler, HandshakeFramesThenIdle) {
    const char* expected[5] = {"06", "0100ff020701f704", "06", "0100ff06200001060000d404", "06"};
    const int replies[5] = {0, 9, 0, 10, 0};
    for (int i = 0; i < 5; ++i) {
        FRAME_PRO f;
        ASSERT_EQ(intf_getSendFrame(&f), 1);
        EXPECT_EQ(QByteArray(reinterpret_cast<char*>(f.frame), f.sendLength).toHex(), QByteArray(expected[i]))
            << i;
        EXPECT_EQ(f.replyLength, replies[i]);
        EXPECT_EQ(driver.state, 1);
        QByteArray reply = plc.answer(f);
        QString m;
        EXPECT_EQ(intf_dealRcvFrame(&reply, &m), 1);
    }
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(&f), 0);
    EXPECT_EQ(driver.state, 0);
}

TEST_F(Scheduler, CyclicBlocksInTurnAndAWriteQueuedMeanwhile) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1), makeKey("TM", 5, 1)});
    ASSERT_EQ(driver.readList.size(), 2);
    EXPECT_EQ(label(serve()), "DM100");
    EXPECT_EQ(label(serve()), "TM5");
    EXPECT_EQ(label(serve()), "DM100");

    // W queued while TM5 is on the wire: TM5 completes, then W, then DM100.
    FRAME_PRO f;
    ASSERT_EQ(intf_getSendFrame(&f), 1);
    EXPECT_EQ(label(f), "TM5");
    unsigned char v[2] = {1, 0};
    QString reg = QStringLiteral("DM");
    intf_setData(1, &reg, 7, 1, v, 9);
    QByteArray reply = plc.answer(f);
    QString m;
    ASSERT_EQ(intf_dealRcvFrame(&reply, &m), 1);
    FRAME_PRO w = serve();
    EXPECT_EQ(label(w), "DM7");
    EXPECT_EQ(w.id, 9);
    EXPECT_EQ(label(serve()), "DM100");
}

TEST_F(Scheduler, AtMostTenWritesBetweenCyclicReads) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1)});
    for (int i = 0; i < 12; ++i) queueWrites({makeItem("DM", 200 + i)});
    for (int i = 0; i < 10; ++i) EXPECT_EQ(label(serve()), QStringLiteral("DM%1").arg(200 + i));
    EXPECT_EQ(label(serve()), "DM100");
    EXPECT_EQ(label(serve()), "DM210");
}

TEST_F(Scheduler, ThreeConditionReadsThenACyclicRead) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1)});
    for (int i = 0; i < 5; ++i) driver.conditionReadList.append(makeItem("TM", i));
    QStringList order;
    for (int i = 0; i < 7; ++i) order << label(serve());
    EXPECT_EQ(order, QStringList({"TM0", "TM1", "TM2", "DM100", "TM3", "TM4", "DM100"}));
}

TEST_F(Scheduler, WritesWithoutReadListPauseOnceAfterTen) {
    finishHandshake();
    for (int i = 0; i < 12; ++i) queueWrites({makeItem("DM", i)});
    for (int i = 0; i < 10; ++i) EXPECT_EQ(label(serve()), QStringLiteral("DM%1").arg(i));
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(&f), 0);
    EXPECT_EQ(driver.sendCount, 0);
    EXPECT_EQ(label(serve()), "DM10");
}

TEST_F(Scheduler, UnansweredFrameIsHandedOutAgainUnchanged) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1)});
    FRAME_PRO a, b;
    ASSERT_EQ(intf_getSendFrame(&a), 1);
    QByteArray bad = QByteArray::fromHex("0601");
    QString m;
    EXPECT_EQ(intf_dealRcvFrame(&bad, &m), 8);
    ASSERT_EQ(intf_getSendFrame(&b), 1);
    EXPECT_EQ(std::memcmp(a.frame, b.frame, sizeof a.frame), 0);
    EXPECT_EQ(a.sendLength, b.sendLength);
    EXPECT_EQ(a.replyLength, b.replyLength);
}

class RecipeScheduling : public Scheduler {
protected:
    void registerThreeBlocks() {
        QVector<_RCP_VAR_PRO> entries{makeEntry("DM", 100, 2, 0), makeEntry("DM", 200, 2, 2),
                                      makeEntry("DM", 300, 2, 4)};
        ASSERT_EQ(intf_setRcpAddress(entries), 3);
        ASSERT_EQ(driver.rcpBlockList.size(), 3);
        for (int w = 0; w < 6; ++w) recipe[w] = static_cast<unsigned short>(0x1100 + w);
    }
};

TEST_F(RecipeScheduling, RecipeWritePreemptsWritesAndReads) {
    finishHandshake();
    registerKeys({makeKey("DM", 1, 1)});
    registerThreeBlocks();
    queueWrites({makeItem("DM", 50)});
    requestRecipeWrite(true);
    EXPECT_EQ(label(serve()), "DM100");
    EXPECT_EQ(driver.state, 5);
    EXPECT_EQ(label(serve()), "DM200");
    EXPECT_EQ(label(serve()), "DM300");
    EXPECT_EQ(recipeWriteByte(), 0);
    EXPECT_EQ(driver.rcpFrameIndex, 0);
    EXPECT_EQ(plc.get("DM", 100), 0x1100);
    EXPECT_EQ(plc.get("DM", 101), 0x1101);
    EXPECT_EQ(plc.get("DM", 301), 0x1105);
    EXPECT_EQ(label(serve()), "DM50");
    EXPECT_EQ(label(serve()), "DM1");
}

TEST_F(RecipeScheduling, BothRequestsWriteFirst) {
    finishHandshake();
    registerThreeBlocks();
    requestRecipeWrite(true);
    requestRecipeRead(true);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(serve().replyLength, 10) << "a write";
    EXPECT_EQ(recipeWriteByte(), 0);
    EXPECT_EQ(recipeReadByte(), 1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(serve().replyLength, 15) << "a read of two words";
    EXPECT_EQ(recipeReadByte(), 0);
}

TEST_F(RecipeScheduling, RequestWithNothingToTransferEndsAtOnce) {
    finishHandshake();
    driver.rcpBlockList.clear();  // initialisation keeps the recipe of an earlier test
    registerKeys({makeKey("DM", 100, 1)});
    // A write completes first, so a repeat of the previous transaction would show.
    queueWrites({makeItem("DM", 7), makeItem("DM", 8)});
    EXPECT_EQ(label(serve()), "DM7");
    requestRecipeWrite(true);
    requestRecipeRead(true);
    EXPECT_EQ(label(serve()), "DM8");  // no recipe blocks: both requests end, the queue goes on
    EXPECT_EQ(recipeWriteByte(), 0);
    EXPECT_EQ(recipeReadByte(), 0);
    EXPECT_EQ(driver.rcpFrameIndex, 0);
    std::lock_guard<std::mutex> lock(driver.mutex);
    EXPECT_TRUE(driver.writeList.isEmpty());
}

TEST_F(RecipeScheduling, UnframeableBlockFailsTheTransfer) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1)});
    QVector<_RCP_VAR_PRO> entries{makeEntry("XX", 5, 1, 0)};  // no frame can name it
    ASSERT_EQ(intf_setRcpAddress(entries), 1);
    requestRecipeRead(true);
    EXPECT_EQ(label(serve()), "DM100");
    EXPECT_EQ(recipeReadByte(), 0);
    EXPECT_EQ(driver.rcpFrameIndex, 0);
}

TEST_F(Scheduler, UnsendableWriteDoesNotHoldUpTheQueue) {
    finishHandshake();
    queueWrites({makeItem("C", 3), makeItem("DM", 9)});
    FRAME_PRO f;
    ASSERT_EQ(intf_getSendFrame(&f), 1);
    EXPECT_EQ(label(f), "DM9");
    EXPECT_EQ(driver.state, 2);
}

TEST_F(Scheduler, UnframeableConditionReadEndsTheRequestAsFailed) {
    finishHandshake();
    intf_addConditionRead(makeKey("DM", 5, 0), 3);  // queued as given, but no frame can carry it
    ASSERT_EQ(driver.conditionReadList.size(), 1);
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(&f), 0);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{-1, -1, "-1", -1}}));
}

TEST_F(Scheduler, UnframeableCyclicBlockIsRotatedPast) {
    finishHandshake();
    driver.readList.append(makeItem("XX", 1));
    driver.readList.append(makeItem("DM", 4));
    EXPECT_EQ(label(serve()), "DM4");
    EXPECT_EQ(label(serve()), "DM4");
}

TEST_F(Scheduler, ReRegistrationWhileABlockIsOnTheWire) {
    finishHandshake();
    registerKeys({makeKey("DM", 100, 1), makeKey("TM", 5, 1)});
    FRAME_PRO f;
    ASSERT_EQ(intf_getSendFrame(&f), 1);
    EXPECT_EQ(label(f), "DM100");
    plc.set("DM", 100, 77);
    registerKeys({makeKey("CM", 1, 1), makeKey("EM", 2, 1)});
    // The old block completes against what it was built from...
    QByteArray reply = plc.answer(f);
    QString m;
    EXPECT_EQ(intf_dealRcvFrame(&reply, &m), 1);
    EXPECT_EQ(shownUnit("DM", 100), 77u);
    // ...and the new list is read from its own head.
    EXPECT_EQ(label(serve()), "CM1");
    EXPECT_EQ(label(serve()), "EM2");
}

}  // namespace
