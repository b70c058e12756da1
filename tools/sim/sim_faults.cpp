#include "sim_faults.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace kvsim {

namespace {

const char* const kFaultNames[FAULT_KINDS] = {"drop", "corrupt", "delay", "split", "garbage", "close"};

bool parseProbability(const std::string& text, double& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !(v >= 0.0 && v <= 1.0)) return false;
    out = v;
    return true;
}

bool parseMs(const std::string& text, int& out) {
    if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    out = std::atoi(text.c_str());
    return true;
}

}  // namespace

const char* faultName(Fault f) {
    return kFaultNames[static_cast<int>(f)];
}

bool FaultSpec::any() const {
    return std::any_of(std::begin(probability), std::end(probability), [](double p) { return p > 0.0; });
}

bool parseFaultSpec(const std::string& text, FaultSpec& out, std::string* error) {
    FaultSpec plan;
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (text.empty()) {
        out = plan;
        return true;
    }
    bool seen[FAULT_KINDS] = {};
    for (size_t from = 0; from <= text.size();) {
        const size_t comma = std::min(text.find(',', from), text.size());
        const std::string item = text.substr(from, comma - from);
        from = comma + 1;
        if (item.empty()) return fail("empty item in '" + text + "' (kind=probability, separated by commas)");
        const size_t eq = item.find('=');
        if (eq == std::string::npos) return fail("expected kind=probability in '" + item + "'");
        const std::string kind = item.substr(0, eq);
        std::string value = item.substr(eq + 1);
        std::string ms;
        const size_t colon = value.find(':');
        if (colon != std::string::npos) {
            ms = value.substr(colon + 1);
            value = value.substr(0, colon);
        }
        int k = -1;
        for (int i = 0; i < FAULT_KINDS; ++i) {
            if (kind == kFaultNames[i]) k = i;
        }
        if (k < 0)
            return fail("unknown fault kind '" + kind + "' (drop, corrupt, delay, split, garbage, close)");
        if (seen[k]) return fail(kind + " is given twice");
        seen[k] = true;
        if (!parseProbability(value, plan.probability[k]))
            return fail("bad probability '" + value + "' for " + kind + " (0 to 1)");
        if (colon != std::string::npos) {
            int v = 0;
            if (static_cast<Fault>(k) != Fault::Delay && static_cast<Fault>(k) != Fault::Split)
                return fail("only delay and split take :MS");
            if (!parseMs(ms, v)) return fail("bad milliseconds '" + ms + "' for " + kind);
            (static_cast<Fault>(k) == Fault::Delay ? plan.delayMs : plan.splitPauseMs) = v;
        }
    }
    out = plan;
    return true;
}

FaultInjector::FaultInjector(const FaultSpec& plan, uint32_t seed) : spec_(plan), rng_(seed) {}

Delivery FaultInjector::apply(std::vector<uint8_t> reply) {
    Delivery d;
    if (reply.empty()) return d;
    bool hit[FAULT_KINDS];
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < FAULT_KINDS; ++i) hit[i] = unit(rng_) < spec_.probability[i];
    auto count = [&](Fault f) { counts_[static_cast<int>(f)].fetch_add(1, std::memory_order_relaxed); };
    auto is = [&](Fault f) { return hit[static_cast<int>(f)]; };

    if (is(Fault::Close)) {
        count(Fault::Close);
        d.close = true;
        return d;
    }
    if (is(Fault::Drop)) {
        count(Fault::Drop);
        return d;
    }
    if (is(Fault::Corrupt)) {
        count(Fault::Corrupt);
        const size_t at = std::uniform_int_distribution<size_t>(0, reply.size() - 1)(rng_);
        reply[at] ^= static_cast<uint8_t>(std::uniform_int_distribution<int>(1, 255)(rng_));
    }
    if (is(Fault::Garbage)) {
        count(Fault::Garbage);
        const int n = std::uniform_int_distribution<int>(1, 8)(rng_);
        std::vector<uint8_t> noise;
        for (int i = 0; i < n; ++i)
            noise.push_back(static_cast<uint8_t>(std::uniform_int_distribution<int>(0, 255)(rng_)));
        reply.insert(reply.begin(), noise.begin(), noise.end());
    }
    int firstPause = 0;
    if (is(Fault::Delay)) {
        count(Fault::Delay);
        firstPause = spec_.delayMs;
    }
    if (is(Fault::Split) && reply.size() >= 2) {
        count(Fault::Split);
        const size_t pieces =
            std::min<size_t>(reply.size(), std::uniform_int_distribution<size_t>(2, 4)(rng_));
        // Cut points: pieces - 1 distinct positions in 1 .. size-1.
        std::vector<size_t> cuts;
        while (cuts.size() < pieces - 1) {
            const size_t c = std::uniform_int_distribution<size_t>(1, reply.size() - 1)(rng_);
            if (std::find(cuts.begin(), cuts.end(), c) == cuts.end()) cuts.push_back(c);
        }
        std::sort(cuts.begin(), cuts.end());
        cuts.push_back(reply.size());
        size_t from = 0;
        for (size_t i = 0; i < cuts.size(); ++i) {
            Write w;
            w.pauseMs = i == 0 ? firstPause : spec_.splitPauseMs;
            w.bytes.assign(reply.begin() + static_cast<std::ptrdiff_t>(from),
                           reply.begin() + static_cast<std::ptrdiff_t>(cuts[i]));
            d.writes.push_back(std::move(w));
            from = cuts[i];
        }
        return d;
    }
    d.writes.push_back(Write{firstPause, std::move(reply)});
    return d;
}

void Counters::add(Outcome o) {
    if (o == Outcome::Ack) {
        ++acks_;
        return;
    }
    ++requests_;
    switch (o) {
        case Outcome::Handshake:
            ++handshakes_;
            break;
        case Outcome::Read:
            ++reads_;
            break;
        case Outcome::WordWrite:
            ++wordWrites_;
            break;
        case Outcome::BitWrite:
            ++bitWrites_;
            break;
        case Outcome::ValueWrite:
            ++valueWrites_;
            break;
        case Outcome::Error:
            ++refused_;
            break;
        case Outcome::Ack:
            break;
    }
}

Stats Counters::snapshot() const {
    Stats s;
    s.connections = connections_;
    s.requests = requests_;
    s.handshakes = handshakes_;
    s.reads = reads_;
    s.wordWrites = wordWrites_;
    s.bitWrites = bitWrites_;
    s.valueWrites = valueWrites_;
    s.refused = refused_;
    s.acks = acks_;
    s.garbageBytes = garbage_;
    s.abandoned = abandoned_;
    return s;
}

std::string formatStats(const Stats& s) {
    std::ostringstream out;
    out << "requests " << s.requests << " handshakes " << s.handshakes << " reads " << s.reads
        << " word-writes " << s.wordWrites << " bit-writes " << s.bitWrites << " value-writes "
        << s.valueWrites << " refused " << s.refused << " acks " << s.acks << " garbage-bytes "
        << s.garbageBytes << " abandoned " << s.abandoned << " connections " << s.connections << "\n";
    out << "faults";
    for (int i = 0; i < FAULT_KINDS; ++i) out << " " << kFaultNames[i] << " " << s.faults[i];
    out << "\n";
    if (s.replaying) out << "replay replayed " << s.replayed << " from-memory " << s.fromMemory << "\n";
    return out.str();
}

Session::Session(Memory& mem, FaultInjector* faults, Counters* counters, Tap tap)
    : mem_(mem), faults_(faults), counters_(counters), tap_(tap), parser_(true) {}

Delivery Session::feed(const uint8_t* data, size_t n) {
    Delivery out;
    for (const auto& frame : parser_.feed(data, n)) {
        Outcome outcome = Outcome::Error;
        std::vector<uint8_t> reply = answer(mem_, frame.data(), frame.size(), &outcome);
        if (counters_) counters_->add(outcome);
        const auto now = std::chrono::system_clock::now();
        record(kvcapture::TO_CONTROLLER, frame, now);
        if (outcome == Outcome::Ack) continue;  // owed no answer
        if (tap_.replay) tap_.replay->next(frame, reply);
        Delivery d;
        if (!reply.empty()) {
            if (faults_) {
                d = faults_->apply(std::move(reply));
            } else {
                d.writes.push_back(Write{0, std::move(reply)});
            }
        }
        if (tap_.capture) {
            std::vector<uint8_t> sent;
            for (const Write& w : d.writes) sent.insert(sent.end(), w.bytes.begin(), w.bytes.end());
            const int delay = d.writes.empty() ? 0 : d.writes.front().pauseMs;
            record(kvcapture::TO_HOST, sent, now + std::chrono::milliseconds(delay));
        }
        for (auto& w : d.writes) out.writes.push_back(std::move(w));
        if (d.close) {
            out.close = true;
            break;
        }
    }
    syncParserCounters();
    return out;
}

void Session::record(uint8_t direction, const std::vector<uint8_t>& bytes, kvcapture::WallTime when) {
    if (tap_.capture && !tap_.capture->write(direction, bytes.data(), bytes.size(), when))
        std::fprintf(stderr, "kv3000-sim: %s\n", tap_.capture->failure().c_str());
}

void Session::expire() {
    parser_.expire();
    syncParserCounters();
}

void Session::reset() {
    syncParserCounters();
    parser_ = StreamParser(true);
    seenAcks_ = seenGarbage_ = seenAbandoned_ = 0;
}

void Session::syncParserCounters() {
    if (counters_) {
        counters_->addAcks(parser_.acks() - seenAcks_);
        counters_->addGarbage(parser_.garbageBytes() - seenGarbage_);
        counters_->addAbandoned(parser_.abandoned() - seenAbandoned_);
    }
    seenAcks_ = parser_.acks();
    seenGarbage_ = parser_.garbageBytes();
    seenAbandoned_ = parser_.abandoned();
}

}  // namespace kvsim
