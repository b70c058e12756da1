// The simulator's core, console and fault lists as scenarios (tests/sim/*.txt, verbs below), and
// what must hold of its memory, of every area, of its faults and of its stream parser.
#include "kv3000_sim.h"
#include "scenario.h"

#include <cmath>
#include <random>

namespace {

using Bytes = std::vector<uint8_t>;

// 06 01 00 FF L <command> check 04
Bytes request(const Bytes& command) {
    Bytes f{0x06, 0x01, 0x00, 0xFF, uint8_t(command.size())};
    f.insert(f.end(), command.begin(), command.end());
    f.push_back(uint8_t(kvwire::checkSum(f.data() + 3, int(f.size()) - 3)));
    f.push_back(kvwire::EOT);
    return f;
}
std::string answerText(const Bytes& r) {
    if (r.empty()) return "-";
    const bool good = r.size() >= 6 && Bytes(r.begin(), r.begin() + 4) == Bytes{0x06, 0x01, 0x00, 0xFF} &&
                      r.back() == kvwire::EOT &&
                      r[r.size() - 2] == uint8_t(kvwire::checkSum(r.data() + 3, int(r.size()) - 5));
    return good ? hexOf(r.data() + 4, long(r.size()) - 6) : "BAD " + hexOf(r.data(), long(r.size()));
}
Bytes& put(Bytes& b, uint32_t value, int size) {  // high byte first
    while (size-- > 0) b.push_back(uint8_t(value >> (8 * size)));
    return b;
}
Bytes answer(const Bytes& req) {
    return kvsim::answer(controller(), req.data(), req.size());
}

const bool verbs = [] {
    addVerb("ask", [](const Words& w) { return answerText(answer(request(bytesOf(w, 1)))); });
    addVerb("raw", [](const Words& w) { return answerText(answer(bytesOf(w, 1))); });
    addVerb("stream", [](const Words& w) {  // N BYTES, "|" a quiet spell
        kvsim::StreamParser parser;
        std::vector<std::string> answers;
        for (size_t from = 2, to; from <= w.size(); from = to + 1) {
            to = std::find(w.begin() + long(from), w.end(), "|") - w.begin();
            const Bytes b = bytesOf(Words(w.begin() + long(from), w.begin() + long(to)), 0);
            for (size_t i = 0; i < b.size(); i += std::stoul(w[1]))
                for (const Bytes& f :
                     parser.feed(b.data() + i, std::min<size_t>(std::stoul(w[1]), b.size() - i)))
                    answers.push_back(answerText(answer(f)));
            if (to < w.size()) parser.expire();
        }
        std::string out;
        for (const std::string& a : answers) out += (out.empty() ? "" : " | ") + a;
        return out + " / " + std::to_string(parser.acks()) + " " + std::to_string(parser.garbageBytes()) +
               " " + std::to_string(parser.abandoned()) + " " + std::to_string(parser.pending());
    });
    addVerb("address", [](const Words& w) {
        std::string why;
        const auto u = kvsim::parseUnit(w.size() > 1 && w[1] != "\"\"" ? w[1] : "", &why);
        if (!u) return std::string(why.empty() ? "error without a reason" : "error");
        return std::to_string(u->address) + " " + kvsim::formatAddress(*u->reg, u->address);
    });
    addVerb("console", [](const Words& w) {
        static kvsim::Console console(controller(), {});
        std::string line, out;
        for (size_t i = 1; i < w.size(); ++i) line += w[i] + " ";
        bool quit = false;
        for (char c : console.execute(line, &quit)) out += c == '\n' ? std::string(" / ") : std::string(1, c);
        return (out.size() > 3 ? out.substr(0, out.size() - 3) : out) + (quit ? "quit" : "");
    });
    addVerb("faults", [](const Words& w) {
        kvsim::FaultSpec s;
        s.probability[0] = 0.25;
        std::string why, out;
        if (!kvsim::parseFaultSpec(w[1] == "\"\"" ? "" : w[1], s, &why))
            return std::string(why.empty() || s.probability[0] != 0.25 ? "error, or the old list changed"
                                                                       : "error");
        char text[32];
        for (double p : s.probability) std::snprintf(text, sizeof text, "%g ", p), out += text;
        return out + std::to_string(s.delayMs) + " " + std::to_string(s.splitPauseMs);
    });
    return true;
}();

KV_SCENARIO_TESTS(KV_SCENARIOS);

TEST(Memory, EveryRegisterHoldsItsRangeAndNoMore) {
    kvsim::Memory mem;
    for (const kvsim::RegInfo& r : kvsim::registers()) {
        EXPECT_TRUE(mem.set(r.name, r.max, 1)) << r.name;
        EXPECT_EQ(mem.get(r.name, r.max), 1u) << r.name;
        EXPECT_FALSE(mem.set(r.name, r.max + 1, 1)) << r.name;
        EXPECT_FALSE(mem.get(r.name, r.max + 1).has_value()) << r.name;
    }
}

// Every area answers reads of its first and last unit and of up to 1024 units, takes word writes
// where it has words, and refuses what runs past its end.
TEST(Answers, EveryAreaAcrossItsRange) {
    resetRuntime();
    for (const kvsim::RegInfo& r : kvsim::registers()) {
        const kvreg::Kind kind = r.traits.kind;
        if (kind == kvreg::Kind::BitInWord || kind == kvreg::Kind::Contact || r.name == "TS" ||
            r.name == "CS")
            continue;
        SCOPED_TRACE(r.name);
        const uint32_t step = r.traits.relayWord ? 16 : 1, units = kind == kvreg::Kind::RelayBit ? 16 : 1;
        const size_t width = kind == kvreg::Kind::RelayBit ? 2 : r.traits.replyBytes();
        auto read = [&](uint32_t count, uint32_t start) {
            Bytes command{0x1E, 0, 0, r.area(), 0, 0};
            return answer(request(put(put(command, count, 2), start, 4)));
        };
        const uint32_t last = (r.max + 1) / units - 1;  // in frame units: words of bits, or values
        for (uint32_t unit : {0u, last}) {
            EXPECT_EQ(read(1, unit * step * units).size(), 11 + width) << unit;
            if (kind != kvreg::Kind::Word && kind != kvreg::Kind::DWord) continue;
            const uint32_t value = width == 4 ? 0x89ABCDEFu : 0xC0DEu;
            Bytes write{0x1E, 0x01, 0, r.area(), 0, 0, 0, 1};
            EXPECT_EQ(answerText(answer(request(put(put(write, unit * step, 4), value, int(width))))),
                      "1E 01 " + hexOf(&write[3], 1) + " 00");
            EXPECT_EQ(controller().get(r.name, unit), value);
        }
        EXPECT_EQ(answerText(read(1, (last + 1) * step * units)).substr(0, 2), "15");
        EXPECT_EQ(answerText(read(2, last * step * units)).substr(0, 2), "15");
        EXPECT_TRUE(last < 1023 || read(1024, 0).size() == 11 + 1024 * width);
    }
}

kvsim::FaultSpec only(kvsim::Fault f, double p) {
    kvsim::FaultSpec s;
    s.probability[int(f)] = p;
    s.delayMs = 123, s.splitPauseMs = 9;
    return s;
}

// Whether a delivery of reply shows kind, and only it, as only() configures it: one changed byte,
// a 123 ms hold, two to four pieces 9 ms apart, one to eight bytes in front, nothing, or a close.
bool shows(kvsim::Fault kind, const kvsim::Delivery& d, const Bytes& reply) {
    Bytes all;
    for (const auto& w : d.writes) all.insert(all.end(), w.bytes.begin(), w.bytes.end());
    const bool one = d.writes.size() == 1 && !d.close, prompt = one && d.writes[0].pauseMs == 0;
    int differ = 0;
    for (size_t i = 0; i < all.size() && all.size() == reply.size(); ++i) differ += all[i] != reply[i];
    bool pieces = d.writes.size() >= 2 && d.writes.size() <= 4 && d.writes[0].pauseMs == 0 && !d.close;
    for (size_t i = 1; i < d.writes.size(); ++i)
        pieces = pieces && d.writes[i].pauseMs == 9 && !d.writes[i].bytes.empty();
    switch (kind) {
        case kvsim::Fault::Drop:
            return d.writes.empty() && !d.close;
        case kvsim::Fault::Close:
            return d.writes.empty() && d.close;
        case kvsim::Fault::Corrupt:
            return prompt && all.size() == reply.size() && differ == 1;
        case kvsim::Fault::Delay:
            return one && d.writes[0].pauseMs == 123 && all == reply;
        case kvsim::Fault::Split:
            return pieces && all == reply;
        case kvsim::Fault::Garbage:
            return prompt && all.size() > reply.size() && all.size() <= reply.size() + 8 &&
                   Bytes(all.end() - long(reply.size()), all.end()) == reply;
    }
    return false;
}

// 10 000 reads through a session; the deliveries and the counters.
kvsim::Stats runSession(const kvsim::FaultSpec& plan, uint32_t seed,
                        std::vector<kvsim::Delivery>* log = nullptr) {
    kvsim::Memory mem;
    kvsim::Counters counters;
    kvsim::FaultInjector faults(plan, seed);
    kvsim::Session session(mem, &faults, &counters);
    const Bytes req = request({0x1E, 0, 0, 6, 0, 0, 0, 2, 0, 0, 0, 0});
    for (int i = 0; i < 10000; ++i) {
        kvsim::Delivery d = session.feed(req.data(), req.size());
        if (d.close) session.reset();
        if (log) log->push_back(std::move(d));
    }
    kvsim::Stats s = counters.snapshot();
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) s.faults[k] = faults.count(kvsim::Fault(k));
    return s;
}
// Within five standard deviations of n draws at probability p.
void expectNear(uint64_t got, double n, double p, const char* what) {
    EXPECT_NEAR(double(got), n * p, 5 * std::sqrt(n * p * (1 - p)) + 1) << what;
}

TEST(Faults, EachKindDoesWhatItSaysAtItsProbability) {
    kvsim::Memory zeros;
    const Bytes req = request({0x1E, 0, 0, 6, 0, 0, 0, 2, 0, 0, 0, 0});
    const Bytes reply = kvsim::answer(zeros, req.data(), req.size());
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = kvsim::Fault(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        kvsim::FaultInjector always(only(kind, 1.0), 5);
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(shows(kind, always.apply(reply), reply));
        for (int other = 0; other < kvsim::FAULT_KINDS; ++other)
            EXPECT_EQ(always.count(kvsim::Fault(other)), other == k ? 20u : 0u);
        std::vector<kvsim::Delivery> log;
        const kvsim::Stats s = runSession(only(kind, 0.1), 11, &log);
        EXPECT_EQ(std::to_string(s.requests) + " " + std::to_string(s.reads), "10000 10000");
        expectNear(s.faults[k], 10000, 0.1, "counter");
        uint64_t seen = 0;
        for (const auto& d : log) seen += shows(kind, d, reply);
        EXPECT_EQ(seen, s.faults[k]);
    }
    kvsim::FaultInjector none(kvsim::FaultSpec(), 1);
    for (int i = 0; i < 100; ++i) {
        const kvsim::Delivery d = none.apply(reply);
        EXPECT_TRUE(d.writes.size() == 1 && d.writes[0].pauseMs == 0 && d.writes[0].bytes == reply &&
                    !d.close);
    }
    EXPECT_TRUE(none.apply({}).writes.empty());
}

TEST(Faults, KindsTogetherKeepTheirOrderAndASeedRepeatsARun) {
    kvsim::FaultSpec plan;
    for (double& p : plan.probability) p = 0.05;
    const kvsim::Stats s = runSession(plan, 99);
    expectNear(s.faults[int(kvsim::Fault::Close)], 10000, 0.05, "close");
    expectNear(s.faults[int(kvsim::Fault::Drop)], 9500, 0.05, "drop, when not closed");
    for (kvsim::Fault f :
         {kvsim::Fault::Corrupt, kvsim::Fault::Delay, kvsim::Fault::Split, kvsim::Fault::Garbage})
        expectNear(s.faults[int(f)], 9025, 0.05, kvsim::faultName(f));
    EXPECT_NE(kvsim::formatStats(s).find("requests 10000 "), std::string::npos);
    for (double& p : plan.probability) p = 0.2;
    auto trace = [&](uint32_t seed) {
        std::vector<kvsim::Delivery> log;
        runSession(plan, seed, &log);
        std::string t;
        for (const auto& d : log) {
            t += d.close ? "C" : "|";
            for (const auto& w : d.writes)
                t += std::to_string(w.pauseMs) + ":" + std::string(w.bytes.begin(), w.bytes.end());
        }
        return t;
    };
    EXPECT_TRUE(trace(1234) == trace(1234));
    EXPECT_FALSE(trace(1234) == trace(4321));
}

// A megabyte of random bytes, and noise of the bytes that matter to the framing: never more than
// one frame's worth kept, and the next good request found.
TEST(Stream, NoiseNeverStalls) {
    resetRuntime();
    controller().set("DM", 4321, 0xCAFE);
    std::mt19937 rng(42);
    const uint8_t alphabet[] = {0x06, 0x01, 0x00, 0xFF, 0x04, 0x0C, 0x1E, 0x02};
    for (bool frameLike : {false, true}) {
        Bytes noise(frameLike ? 200000 : 1 << 20);
        for (auto& b : noise) b = frameLike ? alphabet[rng() % sizeof alphabet] : uint8_t(rng());
        kvsim::StreamParser parser;
        for (size_t i = 0; i < noise.size(); i += 1000) {
            for (const auto& f : parser.feed(noise.data() + i, std::min<size_t>(1000, noise.size() - i)))
                answer(f);
            ASSERT_LE(parser.pending(), 261u);
        }
        parser.expire();
        const Bytes req = request({0x1E, 0, 0, 6, 0, 0, 0, 1, 0, 0, 0x10, 0xE1});
        const auto found = parser.feed(req.data(), req.size());
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(answerText(answer(found[0])), "1E 00 06 00 01 CA FE");
    }
}

}  // namespace
