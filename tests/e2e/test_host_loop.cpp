// The communication loop against a fake link, a fake clock and a scripted
// driver: reply timeouts, reconnects with backoff, stale bytes, and the
// trace and summary built from its exchanges.
#include "comm_loop.h"
#include "fake_link.h"
#include "stats.h"
#include "trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <vector>

using namespace kvhost;

namespace {

// A driver stand-in: hands out its frames in order, accepts a reply of the
// expected length that starts with 06, abandons a frame after `retryLimit`
// rejections.
struct ScriptedDriver {
    static std::deque<FRAME_PRO> frames;
    static std::vector<QByteArray> replies;
    static int retryLimit;
    static int rejections;

    static void reset() {
        frames.clear();
        replies.clear();
        retryLimit = 3;
        rejections = 0;
    }
    static int getSendFrame(FRAME_PRO* out) {
        if (frames.empty()) return 0;
        *out = frames.front();
        return 1;
    }
    static int dealRcvFrame(QByteArray* reply, QString* message) {
        replies.push_back(*reply);
        if (frames.empty()) return 0;
        *message = QStringLiteral("1#DM100(1)");
        const FRAME_PRO& f = frames.front();
        const bool ok = reply->size() == f.replyLength && (f.replyLength == 0 || reply->at(0) == 0x06);
        if (ok) {
            frames.pop_front();
            rejections = 0;
            return 1;
        }
        if (++rejections >= retryLimit) {
            frames.pop_front();
            rejections = 0;
            return 2;
        }
        return 8;
    }
};
std::deque<FRAME_PRO> ScriptedDriver::frames;
std::vector<QByteArray> ScriptedDriver::replies;
int ScriptedDriver::retryLimit = 3;
int ScriptedDriver::rejections = 0;

FRAME_PRO frame(std::vector<uint8_t> bytes, int replyLength) {
    FRAME_PRO f;
    std::memcpy(f.frame, bytes.data(), bytes.size());
    f.sendLength = static_cast<int>(bytes.size());
    f.replyLength = replyLength;
    return f;
}

std::vector<uint8_t> reply(int n, uint8_t fill = 0x11) {
    std::vector<uint8_t> r(static_cast<size_t>(n), fill);
    if (n > 0) r[0] = 0x06;
    return r;
}

QByteArray bytes(const std::vector<uint8_t>& v) {
    return QByteArray(reinterpret_cast<const char*>(v.data()), static_cast<int>(v.size()));
}

constexpr Micros kMs = 1000;

class LoopTest : public ::testing::Test {
protected:
    void SetUp() override { ScriptedDriver::reset(); }

    CommLoop makeLoop(CommLoop::Config config = CommLoop::Config()) {
        CommLoop loop(&ScriptedDriver::getSendFrame, &ScriptedDriver::dealRcvFrame, link, clock, config);
        loop.onExchange([this](const Exchange& ex) {
            exchanges.push_back(ex);
            exchanges.back().frame = nullptr;
        });
        loop.onLinkEvent([this](LinkEvent e, const std::string&) { events.push_back(e); });
        return loop;
    }

    FakeClock clock;
    FakeLink link{clock};
    std::vector<Exchange> exchanges;
    std::vector<LinkEvent> events;
};

TEST_F(LoopTest, SendsTheFrameAndHandsBackExactlyTheExpectedReply) {
    ScriptedDriver::frames.push_back(frame({0x06, 0x01, 0x00, 0xFF}, 10));
    link.sendTakes = 2 * kMs;
    link.answers.push_back({reply(10), 3 * kMs, false});
    CommLoop loop = makeLoop();
    EXPECT_EQ(loop.step(), CommLoop::Step::Exchanged);
    ASSERT_EQ(link.sent.size(), 1u);
    EXPECT_EQ(link.sent[0], (std::vector<uint8_t>{0x06, 0x01, 0x00, 0xFF}));
    ASSERT_EQ(ScriptedDriver::replies.size(), 1u);
    EXPECT_EQ(ScriptedDriver::replies[0], bytes(reply(10)));
    ASSERT_EQ(exchanges.size(), 1u);
    EXPECT_EQ(exchanges[0].result, 1);
    EXPECT_EQ(exchanges[0].roundTrip, 5 * kMs);  // from the start of the send to the whole reply
    EXPECT_FALSE(exchanges[0].timedOut);
}

TEST_F(LoopTest, RepliesLongerThanARequestBufferArriveWhole) {
    // 128 timer records: 9 x 128 + 11 bytes.
    ScriptedDriver::frames.push_back(frame({0x06}, 1163));
    link.answers.push_back({reply(1163), 1 * kMs, false});
    CommLoop loop = makeLoop();
    loop.step();
    ASSERT_EQ(ScriptedDriver::replies.size(), 1u);
    EXPECT_EQ(ScriptedDriver::replies[0].size(), 1163);
    EXPECT_EQ(exchanges[0].result, 1);
}

TEST_F(LoopTest, ReplyTimeoutPassesWhatArrivedAndCountsARetry) {
    ScriptedDriver::frames.push_back(frame({0x06}, 17));
    link.answers.push_back({{0x06, 0x01, 0x00}, 1 * kMs, false});
    link.timeout = 250 * kMs;
    CommLoop loop = makeLoop();
    const Micros before = clock.now();
    loop.step();
    EXPECT_EQ(clock.now() - before, 250 * kMs);  // waited the whole timeout, no more
    ASSERT_EQ(exchanges.size(), 1u);
    EXPECT_TRUE(exchanges[0].timedOut);
    EXPECT_EQ(exchanges[0].reply, bytes({0x06, 0x01, 0x00}));
    EXPECT_EQ(exchanges[0].result, 8);
    EXPECT_EQ(exchanges[0].retry, 1);

    // Nothing at all the next two times: retry 2, then abandoned.
    loop.step();
    loop.step();
    ASSERT_EQ(exchanges.size(), 3u);
    EXPECT_EQ(exchanges[1].reply.size(), 0);
    EXPECT_EQ(exchanges[1].retry, 2);
    EXPECT_EQ(exchanges[2].result, 2);
    EXPECT_EQ(exchanges[2].message, QStringLiteral("1#DM100(1)"));
}

TEST_F(LoopTest, FrameWithoutReplyGetsAnEmptyReplyAtOnce) {
    ScriptedDriver::frames.push_back(frame({0x06}, 0));
    CommLoop loop = makeLoop();
    const Micros before = clock.now();
    loop.step();
    EXPECT_EQ(clock.now(), before);
    ASSERT_EQ(ScriptedDriver::replies.size(), 1u);
    EXPECT_TRUE(ScriptedDriver::replies[0].isEmpty());
    EXPECT_EQ(exchanges[0].result, 1);
}

TEST_F(LoopTest, NothingToSendSleepsBrieflyInsteadOfSpinning) {
    CommLoop::Config config;
    config.idleSleep = 15 * kMs;
    CommLoop loop = makeLoop(config);
    EXPECT_EQ(loop.step(), CommLoop::Step::Idle);
    EXPECT_EQ(loop.step(), CommLoop::Step::Idle);
    EXPECT_EQ(clock.slept(), 30 * kMs);
    EXPECT_EQ(loop.idleInARow(), 2);
    EXPECT_TRUE(link.sent.empty());
}

TEST_F(LoopTest, ReconnectAttemptsBackOffDoublingUpToTheCap) {
    for (int i = 0; i < 7; ++i) link.openResults.push_back(false);
    CommLoop loop = makeLoop();
    const Micros t0 = clock.now();
    while (link.openTimes.size() < 8) loop.step();
    std::vector<Micros> offsets;
    for (Micros t : link.openTimes) offsets.push_back((t - t0) / kMs);
    // 0, +100, +200, +400, +800, +1600, then capped at +2000.
    EXPECT_EQ(offsets, (std::vector<Micros>{0, 100, 300, 700, 1500, 3100, 5100, 7100}));
    EXPECT_TRUE(loop.linkUp());
    EXPECT_EQ(std::count(events.begin(), events.end(), LinkEvent::ConnectFailed), 7);
    EXPECT_EQ(events.back(), LinkEvent::Connected);
}

TEST_F(LoopTest, PeerCloseMidReplyReconnectsAndTheFrameIsRetried) {
    ScriptedDriver::frames.push_back(frame({0x06, 0x01}, 10));
    link.answers.push_back({{0x06, 0x01}, 1 * kMs, true});  // two bytes, then closed
    link.answers.push_back({reply(10), 1 * kMs, false});
    CommLoop loop = makeLoop();
    loop.step();
    ASSERT_EQ(exchanges.size(), 1u);
    EXPECT_TRUE(exchanges[0].linkLost);
    EXPECT_EQ(exchanges[0].reply, bytes({0x06, 0x01}));
    EXPECT_EQ(exchanges[0].result, 8);
    EXPECT_FALSE(loop.linkUp());
    // The connection had carried a reply byte: the reconnect is immediate.
    const Micros lost = clock.now();
    loop.step();
    EXPECT_EQ(link.openTimes.size(), 2u);
    EXPECT_EQ(link.openTimes[1], lost);
    ASSERT_EQ(exchanges.size(), 2u);
    EXPECT_EQ(exchanges[1].result, 1);
    EXPECT_EQ(link.sent.size(), 2u);
    EXPECT_EQ(events, (std::vector<LinkEvent>{LinkEvent::Connected, LinkEvent::Lost, LinkEvent::Connected}));
}

TEST_F(LoopTest, APeerThatClosesBeforeAnsweringIsNotHammered) {
    for (int i = 0; i < 4; ++i) {
        ScriptedDriver::frames.push_back(frame({0x06}, 9));
        link.answers.push_back({{}, 0, true});
    }
    CommLoop loop = makeLoop();
    while (link.openTimes.size() < 4) loop.step();
    EXPECT_EQ(link.openTimes[1] - link.openTimes[0], 100 * kMs);
    EXPECT_EQ(link.openTimes[2] - link.openTimes[1], 200 * kMs);
    EXPECT_EQ(link.openTimes[3] - link.openTimes[2], 400 * kMs);
}

TEST_F(LoopTest, LateReplyIsFlushedAndNotTakenForTheNextOne) {
    ScriptedDriver::frames.push_back(frame({0x06, 0xA1}, 9));
    ScriptedDriver::frames.push_back(frame({0x06, 0xB2}, 9));
    link.timeout = 100 * kMs;
    link.answers.push_back({reply(9, 0xAA), 150 * kMs, false});  // arrives after the timeout
    link.answers.push_back({reply(9, 0xBB), 1 * kMs, false});
    ScriptedDriver::retryLimit = 1;  // the first frame is abandoned on its timeout
    CommLoop loop = makeLoop();
    loop.step();
    EXPECT_EQ(exchanges[0].result, 2);
    clock.advance(60 * kMs);  // the late reply is now in the input
    loop.step();
    ASSERT_EQ(ScriptedDriver::replies.size(), 2u);
    EXPECT_EQ(ScriptedDriver::replies[1], bytes(reply(9, 0xBB)));
    EXPECT_EQ(link.flushedBytes, 9);
    EXPECT_EQ(exchanges[1].result, 1);
}

TEST_F(LoopTest, RepliesMissingThreeTimesInARowMeanADeadConnection) {
    for (int i = 0; i < 3; ++i) ScriptedDriver::frames.push_back(frame({0x06}, 9));
    ScriptedDriver::retryLimit = 10;
    link.timeout = 50 * kMs;
    CommLoop loop = makeLoop();
    loop.step();
    loop.step();
    EXPECT_TRUE(loop.linkUp());
    loop.step();
    EXPECT_FALSE(loop.linkUp());
    EXPECT_EQ(events.back(), LinkEvent::Lost);
    // It never answered at all: the next connect waits out a backoff.
    const Micros lost = clock.now();
    while (link.openTimes.size() < 2) loop.step();
    EXPECT_EQ(link.openTimes[1] - lost, 100 * kMs);

    // A link whose silence means nothing (serial lines) is never closed for it.
    FakeLink quiet(clock);
    quiet.silenceLost = false;
    CommLoop serial(&ScriptedDriver::getSendFrame, &ScriptedDriver::dealRcvFrame, quiet, clock);
    for (int i = 0; i < 6; ++i) serial.step();
    EXPECT_TRUE(serial.linkUp());
    EXPECT_EQ(quiet.openTimes.size(), 1u);
}

TEST_F(LoopTest, ConnectNowIgnoresTheBackoffOnce) {
    link.openResults = {false, false};
    CommLoop loop = makeLoop();
    EXPECT_FALSE(loop.connectNow());
    EXPECT_EQ(loop.lastLinkError(), "refused");
    EXPECT_EQ(loop.backoff(), 100 * kMs);
    EXPECT_EQ(loop.step(), CommLoop::Step::Waiting);  // not due yet
    EXPECT_EQ(link.openTimes.size(), 1u);
}

TEST(Trace, DescribesEveryKindOfRequest) {
    auto d = [](std::vector<uint8_t> f) { return describeRequest(f.data(), f.size()); };
    EXPECT_EQ(d({0x06}), "acknowledge");
    EXPECT_EQ(d({0x01, 0x00, 0xFF, 0x02, 0x07, 0x01, 0xF7, 0x04}), "handshake 1");
    EXPECT_EQ(d({0x01, 0x00, 0xFF, 0x06, 0x20, 0x00, 0x01, 0x06, 0x00, 0x00, 0xD4, 0x04}), "handshake 2");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00,
                 0x00, 0x64, 0x6A, 0x04}),
              "read DM 100 x3");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x11, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00,
                 0x00, 0xA0, 0x24, 0x04}),
              "read MR 10 x2");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00,
                 0x00, 0x03, 0xD1, 0x04}),
              "read T/TC/TS 3 x1");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x10, 0x1E, 0x01, 0x00, 0x06, 0x00, 0x00, 0x00,
                 0x02, 0x00, 0x00, 0x00, 0x64, 0x12, 0x34, 0x56, 0x78, 0x52, 0x04}),
              "write DM 100 x2");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x0A, 0x18, 0x00, 0x01, 0x20, 0x00, 0x05, 0x00, 0x00, 0x03, 0xE8,
                 0xCE, 0x04}),
              "value write TC 5 = 1000");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x06, 0x32, 0x00, 0x01, 0x00, 0x00, 0x25, 0xA3, 0x04}),
              "bit set R 2.05");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x06, 0x33, 0x00, 0x01, 0x1B, 0x00, 0x10, 0x00, 0x04}),
              "bit reset B 10");
    EXPECT_EQ(d({0x06, 0x01, 0x00, 0xFF, 0x20, 0x1E, 0x00}), "truncated request");
    EXPECT_EQ(d({0x42}), "unknown request");
}

TEST(Trace, ReplyLinesSayWhatBecameOfTheReply) {
    FRAME_PRO f = frame({0x06}, 17);
    Exchange ex;
    ex.frame = &f;
    ex.expected = 17;
    ex.result = 8;
    ex.retry = 2;
    ex.timedOut = true;
    ex.reply = QByteArray("\x06\x01\x00", 3);
    EXPECT_EQ(describeReply(ex), "reply rejected, retry 2 (timeout, 3 of 17 bytes)");
    ex.result = 2;
    ex.message = QStringLiteral("1#DM100(3)");
    ex.timedOut = false;
    ex.linkLost = true;
    EXPECT_EQ(describeReply(ex), "reply rejected, abandoned: 1#DM100(3) (link lost)");
    EXPECT_EQ(traceExchange(ex),
              "-> 06   acknowledge\n<- 06 01 00   reply rejected, abandoned: 1#DM100(3) (link lost)\n");
}

TEST(Trace, AcceptedRepliesSayWhatTheyCarryInOneLineEach) {
    struct Case {
        const char* reg;
        std::vector<uint8_t> reply;
        int elements;
        const char* said;
    };
    auto read = [](const std::vector<uint8_t>& values) {
        std::vector<uint8_t> r = {0x06, 0x01, 0x00, 0xFF, 0x1E, 0x00, 0x00, 0x00, 0x00};
        for (uint8_t v : values) r.push_back(v);
        r.push_back(0x00);
        r.push_back(0x04);
        return r;
    };
    const Case cases[] = {
        {"DM", read({0x00, 0x01, 0x04, 0xD2}), 2, "values 1, 1234; reply accepted"},
        {"R", read({0x80, 0x01}), 1, "values 0x8001; reply accepted"},
        {"TC", read({0x80, 0x00, 0x01, 0x86, 0xA0, 0x00, 0x00, 0x00, 0x05}), 1,
         "values 100000; reply accepted"},
        {"T", read({0x80, 0x00, 0x01, 0x86, 0xA0, 0x00, 0x00, 0x00, 0x05}), 1, "values 1; reply accepted"},
        {"Z", read({0xEE, 0x6B, 0x28, 0x00}), 1, "values 4000000000; reply accepted"},
        {"DM", {0x06, 0x01, 0x00, 0xFF, 0x1E, 0x01, 0x06, 0x00, 0xDC, 0x04}, 0, "status 00; reply accepted"},
    };
    for (const Case& c : cases) {
        FRAME_PRO f = frame({0x06, 0x01}, static_cast<int>(c.reply.size()));
        f.reg = QLatin1String(c.reg);
        f.elementCount = c.elements;
        f.dataOffset = 9;
        Exchange ex;
        ex.frame = &f;
        ex.expected = f.replyLength;
        ex.reply = bytes(c.reply);
        ex.result = KV_DEAL_ACCEPTED;
        const std::string t = traceExchange(ex);
        EXPECT_NE(t.find(std::string("   ") + c.said + "\n"), std::string::npos) << c.reg << ": " << t;
    }
    // The handshake: its reply is checked for how it starts; a lone acknowledge is one line.
    FRAME_PRO hs = frame({0x01, 0x00, 0xFF, 0x02, 0x07, 0x01, 0xF7, 0x04}, 9);
    Exchange ex;
    ex.frame = &hs;
    ex.expected = 9;
    ex.result = KV_DEAL_ACCEPTED;
    ex.reply = QByteArray("HTTP/1.1 ", 9);
    EXPECT_NE(traceExchange(ex).find("not a KV-3000 reply; reply accepted"), std::string::npos);
    FRAME_PRO ack = frame({0x06}, 0);
    ex.frame = &ack;
    ex.expected = 0;
    ex.reply.clear();
    EXPECT_EQ(traceExchange(ex), "-> 06   acknowledge\n");
}

TEST(StatsTest, CountsWhatWasRetriedAndWhatFinallyFailed) {
    Stats s;
    FRAME_PRO write = frame({1, 2, 3, 4}, 10);
    write.id = 1000;
    FRAME_PRO cyclic = frame({1, 2, 3, 4}, 10);
    cyclic.id = KV_CYCLIC_READ_ID;
    cyclic.elementCount = 1;
    auto record = [&](FRAME_PRO& f, int result, const char* message, Micros roundTrip = 10 * kMs) {
        Exchange ex;
        ex.frame = &f;
        ex.expected = 10;
        ex.result = result;
        ex.message = QLatin1String(message);
        ex.reply = QByteArray(10, 'x');
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
    s.recordLink(LinkEvent::Connected);
    s.recordLink(LinkEvent::Connected);
    EXPECT_EQ(s.frames(), 26u);
    EXPECT_EQ(s.transactions(), 24u);
    EXPECT_EQ(s.repeats(), 2u);
    EXPECT_EQ(s.retried(), 2u);
    EXPECT_EQ(s.failed(), 2u);
    EXPECT_EQ(s.bytesSent(), 104u);
    EXPECT_EQ(s.bytesReceived(), 260u);
    EXPECT_EQ(s.reconnects(), 1u);
    EXPECT_DOUBLE_EQ(s.meanRoundTrip(), 10 * kMs);  // accepted ones: 1..19 ms and two of 10 ms
    EXPECT_EQ(s.percentileRoundTrip(0.95), 18 * kMs);
    EXPECT_NE(s.summary().find("24 transactions (2 retried, 2 failed), 26 frames (2 sent again)"),
              std::string::npos)
        << s.summary();
}

}  // namespace
