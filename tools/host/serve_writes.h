// How the writes of HTTP threads end. A thread queues its write with
// intf_setData under an id of its own; the loop thread sees every frame
// that carries the id (accepted or abandoned) and, to learn that nothing of
// the write is left in the driver's queue, queues a one-unit condition read
// behind it: the driver starts a condition read only when no write waits, so
// the first frame of that read settles every write queued before it. A write
// whose id never went out was replaced in the queue by a later write to the
// same units (or dropped from a full queue).
#ifndef KV3000_HOST_SERVE_WRITES_H
#define KV3000_HOST_SERVE_WRITES_H

#include "address.h"
#include "comm_loop.h"
#include "kv3000_records.h"

#include <QString>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace kvhost {

class WriteTracker {
public:
    enum class State {
        Pending,
        Written,   // every frame carrying it was accepted
        Failed,    // a frame was abandoned after its retries: message names it
        Dropped,   // no frame ever carried it
        TimedOut,  // not settled within the wait (it may still go out)
        Closed,    // the host is shutting down
    };
    struct Outcome {
        State state = State::Pending;
        QString message;  // the driver's message for Failed
    };

    // Ids handed out start here, far above the ids of the host's commands.
    static constexpr int kFirstId = 1 << 30;

    // HTTP threads: an id for intf_setData, then queued() once it returned,
    // then wait() for the outcome (which forgets the id).
    int begin(const Address& address);
    void queued(int id);
    Outcome wait(int id, std::chrono::milliseconds timeout);
    // Every waiter returns Closed, now and from now on.
    void close();

    // The loop thread: after every exchange.
    void observe(const Exchange& ex);
    // The loop thread, between steps: true when queued writes wait for a
    // condition read behind them; the caller queues `key` under `id`.
    bool barrierDue(KEY_ADDRESS& key, int& id);

    size_t pending() const;

private:
    struct Entry {
        Address address;
        bool queued = false;
        unsigned long barrier = 0;  // serial of the condition read queued behind it; 0 none yet
        int accepted = 0;
        Outcome outcome;
    };

    mutable std::mutex mutex_;
    std::condition_variable settled_;
    std::map<int, Entry> entries_;
    std::map<int, unsigned long> barriers_;  // condition-read id -> serial
    unsigned long nextSerial_ = 1;
    int nextId_ = kFirstId;
    bool closed_ = false;
};

}  // namespace kvhost

#endif
