// A scripted link and a clock that only moves when the loop waits, so that
// timeouts and backoff are tested in microseconds without sleeping.
#ifndef KV3000_HOST_TEST_FAKE_LINK_H
#define KV3000_HOST_TEST_FAKE_LINK_H

#include "link.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace kvhost {

class FakeClock : public Clock {
public:
    Micros now() override { return now_; }
    void sleepFor(Micros us) override {
        if (us > 0) now_ += us;
        slept_ += std::max<Micros>(us, 0);
    }
    void advance(Micros us) { now_ += us; }
    Micros slept() const { return slept_; }

private:
    Micros now_ = 1000000;  // not 0, so that "time 0" bugs show
    Micros slept_ = 0;
};

class FakeLink : public Link {
public:
    // What the peer does with the next frame sent.
    struct Answer {
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
    bool open(std::string* error) override {
        openTimes.push_back(clock_.now());
        bool ok = true;
        if (!openResults.empty()) {
            ok = openResults.front();
            openResults.pop_front();
        }
        if (!ok && error) *error = "refused";
        open_ = ok;
        if (ok) pending_.clear();
        return ok;
    }
    void close() override {
        open_ = false;
        pending_.clear();
    }
    bool isOpen() const override { return open_; }
    void flushInput() override {
        const Micros now = clock_.now();
        while (!pending_.empty() && pending_.front().at <= now) {
            if (pending_.front().closeMark) {
                close();
                return;
            }
            ++flushedBytes;
            pending_.pop_front();
        }
    }
    bool send(const uint8_t* bytes, size_t n, std::string* error) override {
        if (!open_) {
            if (error) *error = "not connected";
            return false;
        }
        sent.emplace_back(bytes, bytes + n);
        clock_.advance(sendTakes);
        if (!answers.empty()) {
            const Answer a = answers.front();
            answers.pop_front();
            const Micros at = clock_.now() + a.delay;
            for (uint8_t b : a.bytes) pending_.push_back({at, b, false});
            if (a.close) pending_.push_back({at, 0, true});
        }
        return true;
    }
    long receive(uint8_t* buffer, size_t n, Micros wait) override {
        if (!open_) return -1;
        if (pending_.empty() || pending_.front().at > clock_.now() + wait) {
            clock_.advance(wait);
            return 0;
        }
        if (pending_.front().at > clock_.now()) clock_.advance(pending_.front().at - clock_.now());
        size_t got = 0;
        while (got < n && !pending_.empty() && pending_.front().at <= clock_.now()) {
            if (pending_.front().closeMark) {
                if (got > 0) break;
                close();
                return -1;
            }
            buffer[got++] = pending_.front().byte;
            pending_.pop_front();
        }
        return static_cast<long>(got);
    }
    Micros replyTimeout(int) const override { return timeout; }

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
