// Counters of the communication loop for the summary line.
#ifndef KV3000_HOST_STATS_H
#define KV3000_HOST_STATS_H

#include "comm_loop.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvhost {

class Stats {
public:
    void record(const Exchange& ex);
    void recordLink(LinkEvent event);

    uint64_t transactions() const { return transactions_; }
    uint64_t accepted() const { return accepted_; }
    uint64_t retries() const { return retries_; }
    uint64_t abandoned() const { return abandoned_; }
    uint64_t timeouts() const { return timeouts_; }
    uint64_t reconnects() const { return reconnects_; }
    uint64_t bytesSent() const { return bytesSent_; }
    uint64_t bytesReceived() const { return bytesReceived_; }
    // Round trips of accepted replies, in microseconds.
    double meanRoundTrip() const;
    Micros percentileRoundTrip(double p) const;

    // "summary: 120 transactions, 3 retries, ..." (one line, no newline).
    std::string summary() const;

private:
    uint64_t transactions_ = 0, accepted_ = 0, retries_ = 0, abandoned_ = 0, timeouts_ = 0;
    uint64_t connects_ = 0, reconnects_ = 0, bytesSent_ = 0, bytesReceived_ = 0;
    std::vector<Micros> roundTrips_;
};

}  // namespace kvhost

#endif
