// Fault injection on the simulator's replies, and the counters of what it
// served and injected.
#ifndef KV3000_SIM_FAULTS_H
#define KV3000_SIM_FAULTS_H

#include "sim_protocol.h"
#include "sim_replay.h"

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kvsim {

enum class Fault { Drop, Corrupt, Delay, Split, Garbage, Close };
constexpr int FAULT_KINDS = 6;
const char* faultName(Fault f);  // "drop", "corrupt", ...

struct FaultSpec {
    double probability[FAULT_KINDS] = {};
    int delayMs = 200;      // how long a delayed reply is held
    int splitPauseMs = 20;  // pause between the pieces of a split reply
    bool any() const;
};

// "drop=0.1,corrupt=0.05,delay=0.05:300,split=0.1:10,garbage=0.02,close=0.01".
// An empty text gives no faults; an empty item or a kind given twice is
// refused. Probabilities in [0, 1]; the ":MS" suffix is accepted by delay
// (hold time) and split (pause between pieces).
bool parseFaultSpec(const std::string& text, FaultSpec& out, std::string* error = nullptr);

// One write to the link: wait pauseMs after the previous write (or after now
// for the first), then send bytes.
struct Write {
    int pauseMs = 0;
    std::vector<uint8_t> bytes;
};

struct Delivery {
    std::vector<Write> writes;
    bool close = false;  // close the link after the writes
};

// Decides the fate of each reply. Every reply draws one number per kind, in
// the order of Fault, so a given seed and request sequence always give the
// same faults. close wins over drop, and drop over the rest; corrupt,
// garbage, delay and split combine. Only faults that were applied count.
class FaultInjector {
public:
    FaultInjector(const FaultSpec& plan, uint32_t seed);
    Delivery apply(std::vector<uint8_t> reply);
    uint64_t count(Fault f) const { return counts_[static_cast<int>(f)].load(std::memory_order_relaxed); }

private:
    FaultSpec spec_;
    std::mt19937 rng_;
    std::atomic<uint64_t> counts_[FAULT_KINDS] = {};
};

struct Stats {
    uint64_t connections = 0;
    uint64_t requests = 0;  // frames answered, refusals included
    uint64_t handshakes = 0;
    uint64_t reads = 0;
    uint64_t wordWrites = 0;
    uint64_t bitWrites = 0;
    uint64_t valueWrites = 0;
    uint64_t refused = 0;
    uint64_t acks = 0;
    uint64_t garbageBytes = 0;
    uint64_t abandoned = 0;  // half frames given up
    uint64_t faults[FAULT_KINDS] = {};
    bool replaying = false;
    uint64_t replayed = 0;    // requests answered with a recorded reply
    uint64_t fromMemory = 0;  // requests the capture did not hold
};

// Two lines: "requests ..." and "faults ...", and a third "replay ..." when
// replaying a capture.
std::string formatStats(const Stats& s);

class Counters {
public:
    void add(Outcome o);
    void addAcks(uint64_t n) { acks_ += n; }
    void addGarbage(uint64_t n) { garbage_ += n; }
    void addAbandoned(uint64_t n) { abandoned_ += n; }
    void addConnection() { ++connections_; }
    // Without fault counts; the owner of the injector adds those.
    Stats snapshot() const;

private:
    std::atomic<uint64_t> connections_{0}, requests_{0}, handshakes_{0}, reads_{0}, wordWrites_{0},
        bitWrites_{0}, valueWrites_{0}, refused_{0}, acks_{0}, garbage_{0}, abandoned_{0};
};

// Where a link's conversation is recorded and where its replies may come
// from; either may be null.
struct Tap {
    kvcapture::Writer* capture = nullptr;
    Replay* replay = nullptr;
};

// One link's conversation: parses what arrives, answers (from the replay
// when it holds the request; memory changes either way), and lets the
// injector decide how each answer goes out. Every request and the reply as
// it goes out (faults included) are recorded; the reply with the time it is
// due.
class Session {
public:
    Session(Memory& mem, FaultInjector* faults, Counters* counters, Tap tap = Tap());
    Delivery feed(const uint8_t* data, size_t n);
    void expire();
    void reset();  // forget everything buffered
    bool hasPending() const { return parser_.pending() != 0; }

private:
    void syncParserCounters();
    void record(uint8_t direction, const std::vector<uint8_t>& bytes, kvcapture::WallTime when);

    Memory& mem_;
    FaultInjector* faults_;
    Counters* counters_;
    Tap tap_;
    StreamParser parser_;
    uint64_t seenAcks_ = 0, seenGarbage_ = 0, seenAbandoned_ = 0;
};

}  // namespace kvsim

#endif
