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
                            "drop=0.1:50", "delay=0.1:", "delay=0.1:-5", "delay=0.1:abc", "=0.1"}) {
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

Bytes sampleReplyOf2() {
    kvsim::Memory mem;
    const Bytes req = readRequest(6, 2, 0);
    return kvsim::answer(mem, req.data(), req.size());
}

Bytes sampleReply() {
    kvsim::Memory mem;
    mem.set("DM", 0, 0x1234);
    const Bytes req = readRequest(6, 3, 0);
    return kvsim::answer(mem, req.data(), req.size());
}

TEST(Faults, EachKindDoesWhatItSays) {
    const Bytes reply = sampleReply();
    ASSERT_EQ(reply.size(), 17u);
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = static_cast<kvsim::Fault>(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        kvsim::FaultInjector inj(only(kind, 1.0), 5);
        for (int round = 0; round < 20; ++round) {
            const kvsim::Delivery d = inj.apply(reply);
            const Bytes all = joined(d);
            switch (kind) {
                case kvsim::Fault::Drop:
                    EXPECT_TRUE(d.writes.empty());
                    EXPECT_FALSE(d.close);
                    break;
                case kvsim::Fault::Close:
                    EXPECT_TRUE(d.writes.empty());
                    EXPECT_TRUE(d.close);
                    break;
                case kvsim::Fault::Corrupt: {
                    ASSERT_EQ(d.writes.size(), 1u);
                    ASSERT_EQ(all.size(), reply.size());
                    int differ = 0;
                    for (size_t i = 0; i < all.size(); ++i) differ += all[i] != reply[i];
                    EXPECT_EQ(differ, 1);
                    break;
                }
                case kvsim::Fault::Delay:
                    ASSERT_EQ(d.writes.size(), 1u);
                    EXPECT_EQ(d.writes[0].pauseMs, 123);
                    EXPECT_EQ(all, reply);
                    break;
                case kvsim::Fault::Split:
                    ASSERT_GE(d.writes.size(), 2u);
                    ASSERT_LE(d.writes.size(), 4u);
                    EXPECT_EQ(d.writes[0].pauseMs, 0);
                    for (size_t i = 1; i < d.writes.size(); ++i) {
                        EXPECT_EQ(d.writes[i].pauseMs, 9);
                        EXPECT_FALSE(d.writes[i].bytes.empty());
                    }
                    EXPECT_EQ(all, reply);
                    break;
                case kvsim::Fault::Garbage:
                    ASSERT_EQ(d.writes.size(), 1u);
                    ASSERT_GE(all.size(), reply.size() + 1);
                    ASSERT_LE(all.size(), reply.size() + 8);
                    EXPECT_EQ(Bytes(all.end() - static_cast<long>(reply.size()), all.end()), reply);
                    break;
            }
        }
        EXPECT_EQ(inj.count(kind), 20u);
        for (int other = 0; other < kvsim::FAULT_KINDS; ++other) {
            if (other == k) continue;
            EXPECT_EQ(inj.count(static_cast<kvsim::Fault>(other)), 0u);
        }
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

// 10 000 requests through a session; tolerance five standard deviations.
void expectNear(uint64_t got, double expected, const char* what) {
    const double p = expected / 10000.0;
    const double sigma = std::sqrt(10000.0 * p * (1.0 - p));
    EXPECT_NEAR(static_cast<double>(got), expected, 5 * sigma + 1) << what;
}

kvsim::Stats runSession(const kvsim::FaultSpec& spec, uint32_t seed,
                        std::vector<kvsim::Delivery>* log = nullptr) {
    kvsim::Memory mem;
    kvsim::Counters counters;
    kvsim::FaultInjector inj(spec, seed);
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

TEST(Faults, EachKindHappensAtItsProbability) {
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = static_cast<kvsim::Fault>(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        std::vector<kvsim::Delivery> log;
        const kvsim::Stats s = runSession(only(kind, 0.1), 11, &log);
        EXPECT_EQ(s.requests, 10000u);
        EXPECT_EQ(s.reads, 10000u);
        expectNear(s.faults[k], 1000, "counter");
        // The counter agrees with what was seen on the link.
        uint64_t seen = 0;
        for (const auto& d : log) {
            switch (kind) {
                case kvsim::Fault::Drop:
                    seen += d.writes.empty() && !d.close;
                    break;
                case kvsim::Fault::Close:
                    seen += d.close;
                    break;
                case kvsim::Fault::Corrupt:
                    seen += d.writes.size() == 1 && joined(d) != sampleReplyOf2();
                    break;
                case kvsim::Fault::Delay:
                    seen += d.writes.size() == 1 && d.writes[0].pauseMs > 0;
                    break;
                case kvsim::Fault::Split:
                    seen += d.writes.size() > 1;
                    break;
                case kvsim::Fault::Garbage:
                    seen += joined(d).size() > 15;
                    break;
            }
        }
        EXPECT_EQ(seen, s.faults[k]);
    }
}

TEST(Faults, KindsTogetherKeepTheirOrder) {
    kvsim::FaultSpec spec;
    for (double& p : spec.probability) p = 0.05;
    const kvsim::Stats s = runSession(spec, 99);
    expectNear(s.faults[int(kvsim::Fault::Close)], 500, "close");
    expectNear(s.faults[int(kvsim::Fault::Drop)], 475, "drop");  // when not closed
    for (kvsim::Fault f :
         {kvsim::Fault::Corrupt, kvsim::Fault::Delay, kvsim::Fault::Split, kvsim::Fault::Garbage})
        expectNear(s.faults[int(f)], 451.25, kvsim::faultName(f));  // when neither closed nor dropped
}

TEST(Faults, SeedRepeatsARun) {
    kvsim::FaultSpec spec;
    for (double& p : spec.probability) p = 0.2;
    std::vector<kvsim::Delivery> a, b, c;
    runSession(spec, 1234, &a);
    runSession(spec, 1234, &b);
    runSession(spec, 4321, &c);
    auto same = [](const std::vector<kvsim::Delivery>& x, const std::vector<kvsim::Delivery>& y) {
        if (x.size() != y.size()) return false;
        for (size_t i = 0; i < x.size(); ++i) {
            if (x[i].close != y[i].close || x[i].writes.size() != y[i].writes.size()) return false;
            for (size_t j = 0; j < x[i].writes.size(); ++j) {
                if (x[i].writes[j].bytes != y[i].writes[j].bytes ||
                    x[i].writes[j].pauseMs != y[i].writes[j].pauseMs)
                    return false;
            }
        }
        return true;
    };
    EXPECT_TRUE(same(a, b));
    EXPECT_FALSE(same(a, c));
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
