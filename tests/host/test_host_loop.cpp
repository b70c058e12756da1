// The loop against a scripted link and driver on a clock that moves only when the loop waits (no sleeping):
// timing, reply timeouts, reconnects with backoff, stale bytes; the trace and summary of its exchanges.
#include "comm_loop.h"
#include "link.h"
#include "stats.h"
#include "trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <tuple>
#include <vector>

using namespace kvhost;
using Bytes = std::vector<uint8_t>;

namespace {

class FakeClock : public Clock {
public:
    Micros now() override { return now_; }
    void sleepFor(Micros us) override { now_ += std::max<Micros>(us, 0), slept += std::max<Micros>(us, 0); }
    void advance(Micros us) { now_ += us; }
    Micros slept = 0;

private:
    Micros now_ = 1000000;  // not 0, so that "time 0" bugs show
};

class FakeLink : public Link {
public:
    struct Answer {  // what the peer does with the next frame sent
        std::vector<uint8_t> bytes;
        Micros delay = 0;    // after the send
        bool close = false;  // close the connection after the bytes
    };
    explicit FakeLink(FakeClock& clock) : clock_(clock) {}

    std::deque<bool> openResults;  // empty: opens succeed
    std::deque<Answer> answers;    // empty: no answer at all
    std::vector<Micros> openTimes;
    std::vector<std::vector<uint8_t>> sent;
    int flushedBytes = 0;
    Micros timeout = 500000;
    Micros sendTakes = 0;     // how long a send blocks (a serial line drains)
    bool silenceLost = true;  // a network link: silence means a dead connection

    std::string describe() const override { return "fake"; }
    std::string peer() const override { return "fake"; }
    bool silenceMeansLost() const override { return silenceLost; }
    Micros replyTimeout(int) const override { return timeout; }
    bool isOpen() const override { return open_; }
    void close() override { open_ = false, pending_.clear(); }
    bool open(std::string* error) override {
        openTimes.push_back(clock_.now());
        open_ = openResults.empty() || openResults.front();
        if (!openResults.empty()) openResults.pop_front();
        if (!open_ && error) *error = "refused";
        pending_.clear();
        return open_;
    }
    void flushInput() override {
        for (; !pending_.empty() && pending_.front().at <= clock_.now(); pending_.pop_front(), ++flushedBytes)
            if (pending_.front().closeMark) return close();
    }
    bool send(const uint8_t* bytes, size_t n, std::string* error) override {
        if (!open_) return *error = "not connected", false;
        sent.emplace_back(bytes, bytes + n);
        clock_.advance(sendTakes);
        if (answers.empty()) return true;
        const Answer a = answers.front();
        answers.pop_front();
        for (uint8_t b : a.bytes) pending_.push_back({clock_.now() + a.delay, b, false});
        if (a.close) pending_.push_back({clock_.now() + a.delay, 0, true});
        return true;
    }
    long receive(uint8_t* buffer, size_t n, Micros wait) override {
        if (!open_) return -1;
        if (pending_.empty() || pending_.front().at > clock_.now() + wait) return clock_.advance(wait), 0;
        clock_.advance(std::max<Micros>(pending_.front().at - clock_.now(), 0));
        size_t got = 0;
        for (; got < n && !pending_.empty() && pending_.front().at <= clock_.now(); pending_.pop_front()) {
            if (pending_.front().closeMark) {
                if (got > 0) break;
                return close(), -1;
            }
            buffer[got++] = pending_.front().byte;
        }
        return static_cast<long>(got);
    }

private:
    struct Pending {
        Micros at;
        uint8_t byte;
        bool closeMark;
    };
    FakeClock& clock_;
    bool open_ = false;
    std::deque<Pending> pending_;
};

// A driver stand-in: hands out its frames in order, accepts a reply of the expected length that starts
// with 06, abandons a frame after `retryLimit` rejections (result 2), and asks for a retry (8) before that.
struct Driver {
    static inline std::deque<FRAME_PRO> frames;
    static inline std::vector<QByteArray> replies;
    static inline int retryLimit = 3, rejections = 0;

    static int getSendFrame(FRAME_PRO* out) { return frames.empty() ? 0 : (*out = frames.front(), 1); }
    static int dealRcvFrame(QByteArray* reply, QString* message) {
        replies.push_back(*reply);
        if (frames.empty()) return 0;
        *message = QStringLiteral("1#DM100(1)");
        const FRAME_PRO& f = frames.front();
        const bool ok = reply->size() == f.replyLength && (f.replyLength == 0 || reply->at(0) == 0x06);
        if (!ok && ++rejections < retryLimit) return 8;
        frames.pop_front();
        rejections = 0;
        return ok ? 1 : 2;
    }
};

FRAME_PRO frame(Bytes bytes, int replyLength) {
    FRAME_PRO f;
    std::memcpy(f.frame, bytes.data(), bytes.size());
    f.sendLength = static_cast<int>(bytes.size());
    f.replyLength = replyLength;
    return f;
}
Bytes reply(int n, uint8_t fill = 0x11) {
    Bytes r(static_cast<size_t>(n), fill);
    r[0] = 0x06;
    return r;
}
QByteArray bytes(const Bytes& v) {
    return QByteArray(reinterpret_cast<const char*>(v.data()), int(v.size()));
}
Exchange exchange(FRAME_PRO* f, int expected, int result, const char* message, const QByteArray& reply) {
    Exchange ex;
    ex.frame = f, ex.expected = expected, ex.result = result, ex.reply = reply;
    if (message) ex.message = QLatin1String(message);
    return ex;
}

constexpr Micros kMs = 1000;

class Loop : public ::testing::Test {
protected:
    Loop() {
        Driver::frames.clear(), Driver::replies.clear(), Driver::retryLimit = 3, Driver::rejections = 0;
    }
    CommLoop make(CommLoop::Config config = CommLoop::Config()) {
        CommLoop loop(&Driver::getSendFrame, &Driver::dealRcvFrame, link, clock, config);
        loop.onExchange([this](const Exchange& ex) { (ex_.push_back(ex), ex_.back().frame = nullptr); });
        loop.onLinkEvent([this](LinkEvent e, const std::string&) { events.push_back(e); });
        return loop;
    }
    void queue(int n, int replyLength) {
        while (n-- > 0) Driver::frames.push_back(frame({0x06, 0x01}, replyLength));
    }
    std::vector<Micros> openedAfter(Micros t0) {
        std::vector<Micros> ms;
        for (Micros t : link.openTimes) ms.push_back((t - t0) / kMs);
        return ms;
    }

    FakeClock clock;
    FakeLink link{clock};
    std::vector<Exchange> ex_;
    std::vector<LinkEvent> events;
};

TEST_F(Loop, SendsTheFrameAndHandsBackExactlyTheReplyTimedFromTheStartOfTheSend) {
    Driver::frames.push_back(frame({0x06, 0x01, 0x00, 0xFF}, 10));
    Driver::frames.push_back(frame({0x06}, 1163));  // 128 timer records: longer than any request
    link.sendTakes = 2 * kMs;
    link.answers = {{reply(10), 3 * kMs}, {reply(1163), kMs}};
    CommLoop loop = make();
    EXPECT_EQ(loop.step(), CommLoop::Step::Exchanged);
    loop.step();
    EXPECT_EQ(link.sent[0], (Bytes{0x06, 0x01, 0x00, 0xFF}));
    EXPECT_EQ(Driver::replies, (std::vector<QByteArray>{bytes(reply(10)), bytes(reply(1163))}));
    EXPECT_EQ(ex_[0].roundTrip, 5 * kMs);
    EXPECT_EQ(ex_[1].result, 1);
    EXPECT_FALSE(ex_[0].timedOut);
}

TEST_F(Loop, ReplyTimeoutPassesWhatArrivedThenRetriesThenAbandons) {
    queue(1, 17);
    link.answers.push_back({{0x06, 0x01, 0x00}, kMs});
    link.timeout = 250 * kMs;
    CommLoop loop = make();
    const Micros before = clock.now();
    loop.step();
    EXPECT_EQ(clock.now() - before, 250 * kMs);  // the whole timeout, no more
    loop.step(), loop.step();                    // nothing at all the next two times
    ASSERT_EQ(ex_.size(), 3u);
    EXPECT_TRUE(ex_[0].timedOut);
    EXPECT_EQ(ex_[0].reply, bytes({0x06, 0x01, 0x00}));
    EXPECT_EQ(std::make_tuple(ex_[0].result, ex_[0].retry), std::make_tuple(8, 1));
    EXPECT_EQ(std::make_tuple(ex_[1].reply.size(), ex_[1].result, ex_[1].retry), std::make_tuple(0, 8, 2));
    EXPECT_EQ(ex_[2].result, 2);
    EXPECT_EQ(ex_[2].message, QStringLiteral("1#DM100(1)"));
}

TEST_F(Loop, NoReplyExpectedOrNothingToSendTakesNoLinkTimeAndNeverSpins) {
    queue(1, 0);
    CommLoop::Config config;
    config.idleSleep = 15 * kMs;
    CommLoop loop = make(config);
    const Micros before = clock.now();
    loop.step();
    EXPECT_EQ(clock.now(), before);
    EXPECT_TRUE(Driver::replies.at(0).isEmpty());
    EXPECT_EQ(ex_[0].result, 1);
    EXPECT_EQ(loop.step(), CommLoop::Step::Idle);
    EXPECT_EQ(loop.step(), CommLoop::Step::Idle);
    EXPECT_EQ(clock.slept, 30 * kMs);
    EXPECT_EQ(loop.idleInARow(), 2);
}

TEST_F(Loop, ReconnectAttemptsBackOffDoublingUpToTheCap) {
    link.openResults.assign(7, false);
    CommLoop loop = make();
    const Micros t0 = clock.now();
    while (link.openTimes.size() < 8) loop.step();
    EXPECT_EQ(openedAfter(t0), (std::vector<Micros>{0, 100, 300, 700, 1500, 3100, 5100, 7100}));
    EXPECT_TRUE(loop.linkUp());
    EXPECT_EQ(std::count(events.begin(), events.end(), LinkEvent::ConnectFailed), 7);
    EXPECT_EQ(events.back(), LinkEvent::Connected);
}

TEST_F(Loop, PeerCloseMidReplyReconnectsAtOnceAndTheFrameIsRetried) {
    queue(1, 10);
    link.answers = {{{0x06, 0x01}, kMs, true}, {reply(10), kMs}};  // two bytes, then closed
    CommLoop loop = make();
    loop.step();
    EXPECT_TRUE(ex_.at(0).linkLost);
    EXPECT_EQ(ex_[0].reply, bytes({0x06, 0x01}));
    EXPECT_EQ(ex_[0].result, 8);
    EXPECT_FALSE(loop.linkUp());
    const Micros lost = clock.now();
    loop.step();  // the connection had carried a reply byte: no backoff
    EXPECT_EQ(link.openTimes, (std::vector<Micros>{link.openTimes[0], lost}));
    EXPECT_EQ(ex_.at(1).result, 1);
    EXPECT_EQ(link.sent.size(), 2u);
    EXPECT_EQ(events, (std::vector<LinkEvent>{LinkEvent::Connected, LinkEvent::Lost, LinkEvent::Connected}));
}

TEST_F(Loop, APeerThatClosesBeforeAnsweringIsNotHammered) {
    queue(4, 9);
    link.answers.assign(4, {{}, 0, true});
    CommLoop loop = make();
    const Micros t0 = clock.now();
    while (link.openTimes.size() < 4) loop.step();
    EXPECT_EQ(openedAfter(t0), (std::vector<Micros>{0, 100, 300, 700}));
}

TEST_F(Loop, LateReplyIsFlushedAndNotTakenForTheNextOne) {
    queue(2, 9);
    link.timeout = 100 * kMs;
    link.answers = {{reply(9, 0xAA), 150 * kMs}, {reply(9, 0xBB), kMs}};  // the first after the timeout
    Driver::retryLimit = 1;
    CommLoop loop = make();
    loop.step();
    EXPECT_EQ(ex_[0].result, 2);
    clock.advance(60 * kMs);  // the late reply is now in the input
    loop.step();
    EXPECT_EQ(Driver::replies.at(1), bytes(reply(9, 0xBB)));
    EXPECT_EQ(link.flushedBytes, 9);
    EXPECT_EQ(ex_[1].result, 1);
}

TEST_F(Loop, ThreeMissingRepliesInARowMeanADeadConnectionExceptOnASerialLine) {
    queue(3, 9);
    Driver::retryLimit = 10;
    link.timeout = 50 * kMs;
    CommLoop loop = make();
    loop.step(), loop.step();
    EXPECT_TRUE(loop.linkUp());
    loop.step();
    EXPECT_FALSE(loop.linkUp());
    EXPECT_EQ(events.back(), LinkEvent::Lost);
    const Micros lost = clock.now();  // it never answered: the next connect waits a backoff
    while (link.openTimes.size() < 2) loop.step();
    EXPECT_EQ(link.openTimes[1] - lost, 100 * kMs);

    FakeLink quiet(clock);
    quiet.silenceLost = false;
    CommLoop serial(&Driver::getSendFrame, &Driver::dealRcvFrame, quiet, clock);
    for (int i = 0; i < 6; ++i) serial.step();
    EXPECT_TRUE(serial.linkUp());
    EXPECT_EQ(quiet.openTimes.size(), 1u);
}

TEST_F(Loop, ConnectNowIgnoresTheBackoffOnce) {
    link.openResults = {false, false};
    CommLoop loop = make();
    EXPECT_FALSE(loop.connectNow());
    EXPECT_EQ(loop.lastLinkError(), "refused");
    EXPECT_EQ(loop.backoff(), 100 * kMs);
    EXPECT_EQ(loop.step(), CommLoop::Step::Waiting);  // not due yet
    EXPECT_EQ(link.openTimes.size(), 1u);
}

// What the trace says of requests and replies the e2e scripts cannot make (e2e_roundtrip.sh: the rest).
TEST(Trace, MalformedRequestsAndRejectedReplies) {
    const Bytes cut = {0x06, 1, 0, 0xFF, 0x20, 0x1E, 0x00}, odd = {0x42};
    EXPECT_EQ(describeRequest(cut.data(), cut.size()), "truncated request");
    EXPECT_EQ(describeRequest(odd.data(), odd.size()), "unknown request");
    FRAME_PRO f = frame({0x06}, 17);
    Exchange ex = exchange(&f, 17, 8, nullptr, QByteArray("\x06\x01\x00", 3));
    ex.retry = 2, ex.timedOut = true;
    EXPECT_EQ(describeReply(ex), "reply rejected, retry 2 (timeout, 3 of 17 bytes)");
    ex.result = 2, ex.message = QStringLiteral("1#DM100(3)"), ex.timedOut = false, ex.linkLost = true;
    EXPECT_EQ(traceExchange(ex),
              "-> 06   acknowledge\n<- 06 01 00   reply rejected, abandoned: 1#DM100(3) (link lost)\n");
}

TEST(Summary, CountsWhatWasRetriedAndWhatFinallyFailed) {
    Stats s;
    FRAME_PRO write = frame({1, 2, 3, 4}, 10), cyclic = frame({1, 2, 3, 4}, 10);
    write.id = 1000, cyclic.id = KV_CYCLIC_READ_ID, cyclic.elementCount = 1;
    auto record = [&](FRAME_PRO& f, int result, const char* message, Micros roundTrip = 10 * kMs) {
        Exchange ex = exchange(&f, 10, result, message, QByteArray(10, 'x'));
        ex.roundTrip = roundTrip;
        s.record(ex);
    };
    for (int i = 1; i <= 19; ++i) record(write, KV_DEAL_ACCEPTED, "1#DM100(1)", i * kMs);
    record(write, KV_DEAL_RETRY, "1#DM100(1)");  // retried, then through
    record(write, KV_DEAL_ACCEPTED, "1#DM100(1)");
    record(write, KV_DEAL_RETRY, "1#DM100(1)");  // retried, then abandoned for good
    record(write, KV_DEAL_ABANDONED, "1#DM100(1)");
    record(cyclic, KV_DEAL_ABANDONED, "1#DM0(1)");  // abandoned, read on the next pass
    record(cyclic, KV_DEAL_ACCEPTED, "1#DM0(1)");
    record(cyclic, KV_DEAL_ABANDONED, "1#DM5(1)");  // abandoned, not read since
    for (int i = 0; i < 2; ++i) s.recordLink(LinkEvent::Connected);
    EXPECT_EQ((std::vector<uint64_t>{s.frames(), s.transactions(), s.repeats(), s.retried(), s.failed(),
                                     s.bytesSent(), s.bytesReceived(), s.reconnects()}),
              (std::vector<uint64_t>{26, 24, 2, 2, 2, 104, 260, 1}));
    EXPECT_DOUBLE_EQ(s.meanRoundTrip(), 10 * kMs);  // accepted ones: 1..19 ms and two of 10 ms
    EXPECT_EQ(s.percentileRoundTrip(0.95), 18 * kMs);
    EXPECT_NE(s.summary().find("24 transactions (2 retried, 2 failed), 26 frames (2 sent again)"),
              std::string::npos)
        << s.summary();
}

}  // namespace
