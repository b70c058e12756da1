// How a web write ends, from its frames and the condition read queued behind it (started once no write
// waits).
#include "serve_writes.h"

#include <gtest/gtest.h>

using namespace kvhost;
using State = WriteTracker::State;

namespace {

class Tracker : public ::testing::Test {
protected:
    Tracker() { reg_.name = QStringLiteral("DM"), dm100_.reg = &reg_, dm100_.address = 100; }
    static std::chrono::steady_clock::time_point soon() {
        return std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    }
    int queued(const Address* a = nullptr) {  // a write queued with intf_setData
        const int id = t_.begin(a ? *a : dm100_, soon());
        return t_.queued(id), id;
    }
    void frame(int id, int result, const char* message = "") {
        FRAME_PRO f;
        f.id = id;
        Exchange ex;
        ex.frame = &f, ex.result = result, ex.message = QLatin1String(message);
        t_.observe(ex);
    }
    int barrier() {  // the condition read the loop queues behind the writes
        KEY_ADDRESS key;
        int id = 0;
        EXPECT_TRUE(t_.barrierDue(key, id));
        EXPECT_EQ(std::make_pair(key.reg, key.address), std::make_pair(QStringLiteral("DM"), 100));
        return id;
    }
    State now(int id) { return t_.wait(id, std::chrono::milliseconds(0)).state; }

    RegisterInfo reg_;
    Address dm100_;
    WriteTracker t_;
};

TEST_F(Tracker, AWriteEndsWhenTheReadBehindItStarts) {
    const int written = queued(), replaced = queued(), failed = queued();
    const int b = barrier();
    frame(written, 1);
    frame(failed, 8);
    frame(failed, 2, "1#DM100(1)");
    frame(b, 8);  // started: every write queued before it is through
    EXPECT_EQ(now(written), State::Written);
    EXPECT_EQ(now(replaced), State::Dropped);
    const WriteTracker::Outcome f = t_.wait(failed, std::chrono::milliseconds(0));
    EXPECT_EQ(f.state, State::Failed);
    EXPECT_EQ(f.message, QStringLiteral("1#DM100(1)"));
}

TEST_F(Tracker, OnlyWritesQueuedBeforeAReadAreSettledByIt) {
    const int unqueued = t_.begin(dm100_, soon()), first = queued(), b1 = barrier(), second = queued();
    frame(first, 1);
    frame(b1, 1);
    EXPECT_EQ(now(first), State::Written);
    EXPECT_EQ(now(second), State::TimedOut);
    EXPECT_EQ(now(unqueued), State::TimedOut);
    // Its waiter gave up, but the second write is still in the driver's queue.
    const int b2 = barrier();
    frame(b2, 1);
    KEY_ADDRESS key;
    int id;
    EXPECT_FALSE(t_.barrierDue(key, id)) << "nothing waits";
}

TEST_F(Tracker, QueuedUnitsStayWithinTheDriversQueueUntilSeenThrough) {
    Address most = dm100_;
    most.count = WriteTracker::kQueueUnits;
    const int big = queued(&most);
    EXPECT_EQ(t_.begin(dm100_, soon()), -1) << "no room";
    EXPECT_EQ(now(big), State::TimedOut);
    EXPECT_EQ(t_.begin(dm100_, soon()), -1) << "a waiter that gave up keeps its units";
    frame(big, 1);
    frame(barrier(), 8);
    const int local = t_.begin(most, soon());
    ASSERT_GE(local, 0) << "room again once the write is through";
    t_.local(local);  // queues nothing, keeps nothing
    EXPECT_GE(t_.begin(most, soon()), 0);
    t_.close();
    EXPECT_EQ(t_.begin(dm100_, soon()), -1) << "closed";
}

TEST_F(Tracker, AnAbandonedReadEmptiesTheDriversQueueSoTheReadIsQueuedAgain) {
    const int first = queued(), b1 = barrier(), second = queued(), b2 = barrier();
    frame(b1, 2, "1#DM100(1)");  // the driver drops b2 with it
    EXPECT_EQ(now(first), State::Dropped);
    frame(second, 1);
    const int b3 = barrier();
    EXPECT_NE(b3, b2);
    frame(b3, 1);
    EXPECT_EQ(now(second), State::Written);
}

TEST_F(Tracker, ClosingAnswersEveryWaiter) {
    const int id = queued();
    t_.close();
    EXPECT_EQ(t_.wait(id, std::chrono::seconds(10)).state, State::Closed);
}

}  // namespace
