// Replay of a recorded conversation: each request is answered with the reply
// recorded for the same request bytes, occurrence by occurrence in recorded
// order. A request the capture does not hold (or holds fewer times) is left
// to the simulator's own memory, and counted.
#ifndef KV3000_SIM_REPLAY_H
#define KV3000_SIM_REPLAY_H

#include "capture_file.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

namespace kvsim {

class Replay {
public:
    explicit Replay(const kvcapture::Capture& capture);

    // The recorded reply for the next occurrence of this request (an empty
    // reply: nothing was sent back). false when the capture has none left.
    // Lone acknowledges are never looked up. Thread-safe.
    bool next(const std::vector<uint8_t>& request, std::vector<uint8_t>& reply);

    size_t recordedExchanges() const { return recorded_; }
    uint64_t replayed() const { return replayed_.load(std::memory_order_relaxed); }
    uint64_t fromMemory() const { return fromMemory_.load(std::memory_order_relaxed); }

private:
    std::mutex mutex_;
    std::map<std::vector<uint8_t>, std::deque<std::vector<uint8_t>>> replies_;
    size_t recorded_ = 0;
    std::atomic<uint64_t> replayed_{0};
    std::atomic<uint64_t> fromMemory_{0};
};

}  // namespace kvsim

#endif
