// Fault specifications, what each fault does to a reply, how often it
// happens, and that a seed repeats a run.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <cmath>

#include <gtest/gtest.h>

using namespace simtest;

namespace {

TEST(FaultSpec, ParsesKindsProbabilitiesAndTimes) {
    kvsim::FaultSpec s;
    std::string why;
    ASSERT_TRUE(
        kvsim::parseFaultSpec("drop=0.1,corrupt=0.05,delay=0.05:300,split=0.5:7,garbage=1,close=0", s, &why))
        << why;
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Drop)], 0.1);
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Corrupt)], 0.05);
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Delay)], 0.05);
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Split)], 0.5);
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Garbage)], 1.0);
    EXPECT_DOUBLE_EQ(s.probability[int(kvsim::Fault::Close)], 0.0);
    EXPECT_EQ(s.delayMs, 300);
    EXPECT_EQ(s.splitPauseMs, 7);
    EXPECT_TRUE(s.any());

    kvsim::FaultSpec none;
    EXPECT_TRUE(kvsim::parseFaultSpec("", none));
    EXPECT_FALSE(none.any());
}

TEST(FaultSpec, RefusesBadTextAndKeepsTheOldSpec) {
    for (const char* bad : {"drop", "drop=", "drop=1.5", "drop=-0.1", "drop=abc", "drop=0.1x", "jam=0.1",
                            "drop=0.1:50", "delay=0.1:", "delay=0.1:-5", "delay=0.1:abc", "=0.1",
                            "drop=0.1,,close=0.1", ",drop=0.1", "drop=0.1,", "drop=0.1,drop=0.2", ","}) {
        SCOPED_TRACE(bad);
        kvsim::FaultSpec s;
        s.probability[0] = 0.25;
        std::string why;
        EXPECT_FALSE(kvsim::parseFaultSpec(bad, s, &why));
        EXPECT_FALSE(why.empty());
        EXPECT_DOUBLE_EQ(s.probability[0], 0.25);
    }
}

kvsim::FaultSpec only(kvsim::Fault f, double p) {
    kvsim::FaultSpec s;
    s.probability[int(f)] = p;
    s.delayMs = 123;
    s.splitPauseMs = 9;
    return s;
}

Bytes joined(const kvsim::Delivery& d) {
    Bytes out;
    for (const auto& w : d.writes) out.insert(out.end(), w.bytes.begin(), w.bytes.end());
    return out;
}

// The reply to a read of two words (15 bytes), DM 0 holding a value.
Bytes sampleReply() {
    kvsim::Memory mem;
    mem.set("DM", 0, 0x1234);
    const Bytes req = readRequest(6, 2, 0);
    return kvsim::answer(mem, req.data(), req.size());
}

// Whether a delivery of `reply` shows `kind` (and only it) on the link, as
// only() configures it: one changed byte, a 123 ms hold, two to four pieces
// 9 ms apart, one to eight bytes in front, nothing, or nothing and a close.
bool shows(kvsim::Fault kind, const kvsim::Delivery& d, const Bytes& reply) {
    const Bytes all = joined(d);
    const bool one = d.writes.size() == 1 && !d.close;
    switch (kind) {
        case kvsim::Fault::Drop:
            return d.writes.empty() && !d.close;
        case kvsim::Fault::Close:
            return d.writes.empty() && d.close;
        case kvsim::Fault::Corrupt: {
            int differ = 0;
            for (size_t i = 0; i < all.size() && all.size() == reply.size(); ++i)
                differ += all[i] != reply[i];
            return one && d.writes[0].pauseMs == 0 && all.size() == reply.size() && differ == 1;
        }
        case kvsim::Fault::Delay:
            return one && d.writes[0].pauseMs == 123 && all == reply;
        case kvsim::Fault::Split: {
            bool pieces = d.writes.size() >= 2 && d.writes.size() <= 4 && d.writes[0].pauseMs == 0;
            for (size_t i = 1; i < d.writes.size(); ++i)
                pieces = pieces && d.writes[i].pauseMs == 9 && !d.writes[i].bytes.empty();
            return pieces && !d.close && all == reply;
        }
        case kvsim::Fault::Garbage:
            return one && d.writes[0].pauseMs == 0 && all.size() > reply.size() &&
                   all.size() <= reply.size() + 8 &&
                   Bytes(all.end() - long(reply.size()), all.end()) == reply;
    }
    return false;
}

// 10 000 requests through a session; tolerance five standard deviations.
void expectNear(uint64_t got, double expected, const char* what) {
    const double p = expected / 10000.0;
    const double sigma = std::sqrt(10000.0 * p * (1.0 - p));
    EXPECT_NEAR(static_cast<double>(got), expected, 5 * sigma + 1) << what;
}

kvsim::Stats runSession(const kvsim::FaultSpec& plan, uint32_t seed,
                        std::vector<kvsim::Delivery>* log = nullptr) {
    kvsim::Memory mem;
    mem.set("DM", 0, 0x1234);
    kvsim::Counters counters;
    kvsim::FaultInjector inj(plan, seed);
    kvsim::Session session(mem, &inj, &counters);
    const Bytes req = readRequest(6, 2, 0);
    for (int i = 0; i < 10000; ++i) {
        kvsim::Delivery d = session.feed(req.data(), req.size());
        if (log) log->push_back(d);
        if (d.close) session.reset();  // the next client
    }
    kvsim::Stats s = counters.snapshot();
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) s.faults[k] = inj.count(static_cast<kvsim::Fault>(k));
    return s;
}

TEST(Faults, EachKindDoesWhatItSaysAtItsProbability) {
    const Bytes reply = sampleReply();
    ASSERT_EQ(reply.size(), 15u);
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = static_cast<kvsim::Fault>(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        kvsim::FaultInjector inj(only(kind, 1.0), 5);
        for (int round = 0; round < 20; ++round) EXPECT_TRUE(shows(kind, inj.apply(reply), reply));
        for (int other = 0; other < kvsim::FAULT_KINDS; ++other)
            EXPECT_EQ(inj.count(static_cast<kvsim::Fault>(other)), other == k ? 20u : 0u);

        // At 0.1 over 10 000 requests: about 1000, and the counter agrees with the link.
        std::vector<kvsim::Delivery> log;
        const kvsim::Stats s = runSession(only(kind, 0.1), 11, &log);
        EXPECT_EQ(s.requests, 10000u);
        EXPECT_EQ(s.reads, 10000u);
        expectNear(s.faults[k], 1000, "counter");
        uint64_t seen = 0;
        for (const auto& d : log) seen += shows(kind, d, reply);
        EXPECT_EQ(seen, s.faults[k]);
    }
}

TEST(Faults, NoFaultsMeansEveryReplyIntact) {
    kvsim::FaultInjector inj(kvsim::FaultSpec(), 1);
    const Bytes reply = sampleReply();
    for (int i = 0; i < 100; ++i) {
        const kvsim::Delivery d = inj.apply(reply);
        ASSERT_EQ(d.writes.size(), 1u);
        EXPECT_EQ(d.writes[0].pauseMs, 0);
        EXPECT_EQ(d.writes[0].bytes, reply);
        EXPECT_FALSE(d.close);
    }
    EXPECT_TRUE(inj.apply({}).writes.empty());  // nothing to send, nothing to spoil
}

TEST(Faults, KindsTogetherKeepTheirOrder) {
    kvsim::FaultSpec plan;
    for (double& p : plan.probability) p = 0.05;
    const kvsim::Stats s = runSession(plan, 99);
    expectNear(s.faults[int(kvsim::Fault::Close)], 500, "close");
    expectNear(s.faults[int(kvsim::Fault::Drop)], 475, "drop");  // when not closed
    for (kvsim::Fault f :
         {kvsim::Fault::Corrupt, kvsim::Fault::Delay, kvsim::Fault::Split, kvsim::Fault::Garbage})
        expectNear(s.faults[int(f)], 451.25, kvsim::faultName(f));  // when neither closed nor dropped
}

TEST(Faults, SeedRepeatsARun) {
    kvsim::FaultSpec plan;
    for (double& p : plan.probability) p = 0.2;
    std::vector<kvsim::Delivery> a, b, c;
    runSession(plan, 1234, &a);
    runSession(plan, 1234, &b);
    runSession(plan, 4321, &c);
    auto trace = [](const std::vector<kvsim::Delivery>& log) {
        std::string t;
        for (const auto& d : log) {
            t += d.close ? "C" : "|";
            for (const auto& w : d.writes)
                t += std::to_string(w.pauseMs) + ":" + std::string(w.bytes.begin(), w.bytes.end());
        }
        return t;
    };
    EXPECT_TRUE(trace(a) == trace(b));
    EXPECT_FALSE(trace(a) == trace(c));
}

TEST(Faults, StatsTextNamesEveryCounter) {
    kvsim::Stats s;
    s.requests = 12;
    s.faults[int(kvsim::Fault::Split)] = 3;
    const std::string text = kvsim::formatStats(s);
    EXPECT_NE(text.find("requests 12 "), std::string::npos);
    EXPECT_NE(text.find("faults drop 0 corrupt 0 delay 0 split 3 garbage 0 close 0\n"), std::string::npos);
}

}  // namespace
