#include "stats.h"

#include "trace.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kvhost {

void Stats::record(const Exchange& ex) {
    ++frames_;
    bytesSent_ += static_cast<uint64_t>(std::max(0, ex.frame ? ex.frame->sendLength : 0));
    bytesReceived_ += static_cast<uint64_t>(ex.reply.size());
    if (ex.timedOut) ++timeouts_;
    if (ex.result == KV_DEAL_RETRY) {
        ++repeats_;
        repeating_ = true;
        return;
    }
    if (ex.result != KV_DEAL_ACCEPTED && ex.result != KV_DEAL_ABANDONED) return;
    ++transactions_;
    const bool repeated = repeating_;
    repeating_ = false;
    // The handshake and the cyclic reads are done again after they are abandoned.
    const bool doneAgain =
        ex.frame &&
        (ex.cyclicRead() || isHandshakeRequest(ex.frame->frame, static_cast<size_t>(ex.frame->sendLength)));
    const std::string key = ex.message.toStdString();
    if (ex.result == KV_DEAL_ABANDONED) {
        if (doneAgain)
            ++abandoned_[key];
        else
            ++failedFinally_;
        return;
    }
    ++accepted_;
    if (ex.expected > 0) recordRoundTrip(ex.roundTrip);
    if (repeated) ++retried_;
    if (doneAgain) {
        const auto it = abandoned_.find(key);
        if (it != abandoned_.end()) {
            retried_ += it->second;
            abandoned_.erase(it);
        }
    }
}

uint64_t Stats::failed() const {
    uint64_t n = failedFinally_;
    for (const auto& a : abandoned_) n += a.second;
    return n;
}

void Stats::recordLink(LinkEvent event) {
    if (event != LinkEvent::Connected) return;
    if (connects_++ > 0) ++reconnects_;
}

void Stats::recordRoundTrip(Micros us) {
    roundTripSum_ += static_cast<double>(us);
    ++roundTripCount_;
    if (roundTrips_.size() < kRoundTripWindow) {
        roundTrips_.push_back(us);
    } else {
        roundTrips_[nextRoundTrip_] = us;
        nextRoundTrip_ = (nextRoundTrip_ + 1) % kRoundTripWindow;
    }
}

double Stats::meanRoundTrip() const {
    return roundTripCount_ == 0 ? 0 : roundTripSum_ / static_cast<double>(roundTripCount_);
}

Micros Stats::percentileRoundTrip(double p) const {
    if (roundTrips_.empty()) return 0;
    std::vector<Micros> sorted = roundTrips_;
    std::sort(sorted.begin(), sorted.end());
    // Nearest rank: the smallest sample with at least p of all at or below it.
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::min(sorted.size(), std::max<size_t>(rank, 1)) - 1];
}

std::string Stats::summary() const {
    char line[400];
    std::snprintf(line, sizeof line,
                  "summary: %llu transactions (%llu retried, %llu failed), %llu frames (%llu sent again), "
                  "%llu timeouts, %llu reconnects, %llu bytes sent, %llu received, round trip mean %.3f ms, "
                  "p95 %.3f ms",
                  static_cast<unsigned long long>(transactions_), static_cast<unsigned long long>(retried_),
                  static_cast<unsigned long long>(failed()), static_cast<unsigned long long>(frames_),
                  static_cast<unsigned long long>(repeats_), static_cast<unsigned long long>(timeouts_),
                  static_cast<unsigned long long>(reconnects_), static_cast<unsigned long long>(bytesSent_),
                  static_cast<unsigned long long>(bytesReceived_), meanRoundTrip() / 1000.0,
                  static_cast<double>(percentileRoundTrip(0.95)) / 1000.0);
    return line;
}

}  // namespace kvhost
