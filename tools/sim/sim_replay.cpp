#include "sim_replay.h"

namespace kvsim {

Replay::Replay(const kvcapture::Capture& capture) {
    for (const kvcapture::Exchange& e : capture.exchanges) {
        if (!e.answered || kvcapture::isLoneAcknowledge(e.request)) continue;
        replies_[kvcapture::requestKey(e.request)].push_back(e.reply);
        ++recorded_;
    }
}

bool Replay::next(const std::vector<uint8_t>& request, std::vector<uint8_t>& reply) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        const auto it = replies_.find(kvcapture::requestKey(request));
        if (it != replies_.end() && !it->second.empty()) {
            reply = std::move(it->second.front());
            it->second.pop_front();
            replayed_.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    fromMemory_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

}  // namespace kvsim
