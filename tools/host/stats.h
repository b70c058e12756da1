// Counters of the communication loop for the summary line.
#ifndef KV3000_HOST_STATS_H
#define KV3000_HOST_STATS_H

#include "comm_loop.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kvhost {

// A transaction is a frame until its reply is accepted or it is abandoned.
// It went through at once, was retried (its frame sent again, or abandoned
// and then done again with success: the handshake and cyclic reads are),
// or failed: abandoned and never done again with success.
class Stats {
public:
    void record(const Exchange& ex);
    void recordLink(LinkEvent event);

    uint64_t frames() const { return frames_; }
    uint64_t transactions() const { return transactions_; }
    uint64_t accepted() const { return accepted_; }
    uint64_t repeats() const { return repeats_; }  // frames sent again after a rejected reply
    uint64_t retried() const { return retried_; }
    uint64_t failed() const;
    uint64_t timeouts() const { return timeouts_; }
    uint64_t reconnects() const { return reconnects_; }
    uint64_t bytesSent() const { return bytesSent_; }
    uint64_t bytesReceived() const { return bytesReceived_; }
    // Round trips of accepted replies, in microseconds: the mean of all, the
    // percentile of the latest kRoundTripWindow (a long run keeps no more).
    double meanRoundTrip() const;
    Micros percentileRoundTrip(double p) const;
    static constexpr size_t kRoundTripWindow = 65536;

    // "summary: 120 transactions (3 retried, 1 failed), ..." (one line, no newline).
    std::string summary() const;

private:
    void recordRoundTrip(Micros us);

    uint64_t frames_ = 0, transactions_ = 0, accepted_ = 0, repeats_ = 0, retried_ = 0, failedFinally_ = 0;
    uint64_t timeouts_ = 0, connects_ = 0, reconnects_ = 0, bytesSent_ = 0, bytesReceived_ = 0;
    bool repeating_ = false;  // the current transaction's frame was sent again
    // Abandoned transactions that are done again (by their driver message),
    // waiting for one of them to go through.
    std::map<std::string, uint64_t> abandoned_;
    double roundTripSum_ = 0;
    uint64_t roundTripCount_ = 0;
    std::vector<Micros> roundTrips_;  // the latest, oldest overwritten first
    size_t nextRoundTrip_ = 0;
};

}  // namespace kvhost

#endif
