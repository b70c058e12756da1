// A scripted link and a clock that only moves when the loop waits, so that
// timeouts and backoff are tested in microseconds without sleeping.
#ifndef KV3000_HOST_TEST_FAKE_LINK_H
#define KV3000_HOST_TEST_FAKE_LINK_H

#include "link.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

namespace kvhost {

class FakeClock : public Clock {
public:
    Micros now() override { return now_; }
    void sleepFor(Micros us) override { now_ += std::max<Micros>(us, 0), slept += std::max<Micros>(us, 0); }
    void advance(Micros us) { now_ += us; }
    Micros slept = 0;

private:
    Micros now_ = 1000000;  // not 0, so that "time 0" bugs show
};

class FakeLink : public Link {
public:
    struct Answer {  // what the peer does with the next frame sent
        std::vector<uint8_t> bytes;
        Micros delay = 0;    // after the send
        bool close = false;  // close the connection after the bytes
    };
    explicit FakeLink(FakeClock& clock) : clock_(clock) {}

    std::deque<bool> openResults;  // empty: opens succeed
    std::deque<Answer> answers;    // empty: no answer at all
    std::vector<Micros> openTimes;
    std::vector<std::vector<uint8_t>> sent;
    int flushedBytes = 0;
    Micros timeout = 500000;
    Micros sendTakes = 0;     // how long a send blocks (a serial line drains)
    bool silenceLost = true;  // a network link: silence means a dead connection

    std::string describe() const override { return "fake"; }
    std::string peer() const override { return "fake"; }
    bool silenceMeansLost() const override { return silenceLost; }
    Micros replyTimeout(int) const override { return timeout; }
    bool isOpen() const override { return open_; }
    void close() override { open_ = false, pending_.clear(); }
    bool open(std::string* error) override {
        openTimes.push_back(clock_.now());
        open_ = openResults.empty() || openResults.front();
        if (!openResults.empty()) openResults.pop_front();
        if (!open_ && error) *error = "refused";
        pending_.clear();
        return open_;
    }
    void flushInput() override {
        for (; !pending_.empty() && pending_.front().at <= clock_.now(); pending_.pop_front(), ++flushedBytes)
            if (pending_.front().closeMark) return close();
    }
    bool send(const uint8_t* bytes, size_t n, std::string* error) override {
        if (!open_) return *error = "not connected", false;
        sent.emplace_back(bytes, bytes + n);
        clock_.advance(sendTakes);
        if (answers.empty()) return true;
        const Answer a = answers.front();
        answers.pop_front();
        for (uint8_t b : a.bytes) pending_.push_back({clock_.now() + a.delay, b, false});
        if (a.close) pending_.push_back({clock_.now() + a.delay, 0, true});
        return true;
    }
    long receive(uint8_t* buffer, size_t n, Micros wait) override {
        if (!open_) return -1;
        if (pending_.empty() || pending_.front().at > clock_.now() + wait) return clock_.advance(wait), 0;
        clock_.advance(std::max<Micros>(pending_.front().at - clock_.now(), 0));
        size_t got = 0;
        for (; got < n && !pending_.empty() && pending_.front().at <= clock_.now(); pending_.pop_front()) {
            if (pending_.front().closeMark) {
                if (got > 0) break;
                return close(), -1;
            }
            buffer[got++] = pending_.front().byte;
        }
        return static_cast<long>(got);
    }

private:
    struct Pending {
        Micros at;
        uint8_t byte;
        bool closeMark;
    };
    FakeClock& clock_;
    bool open_ = false;
    std::deque<Pending> pending_;
};

}  // namespace kvhost

#endif
