// How the writes of HTTP threads end. A thread queues its write with
// intf_setData under an id of its own; the loop thread sees every frame
// that carries the id (accepted or abandoned) and, to learn that nothing of
// the write is left in the driver's queue, queues a one-unit condition read
// behind it: the driver starts a condition read only when no write waits, so
// the first frame of that read settles every write queued before it. A write
// whose id never went out was replaced in the queue by a later write to the
// same units. The driver's queue holds 513 items and drops the oldest when
// full, each unit taking at most one: the units of writes not yet seen
// through (by a condition read behind them) stay within a budget below that,
// and a write waits for room before it is queued.
#ifndef KV3000_HOST_SERVE_WRITES_H
#define KV3000_HOST_SERVE_WRITES_H

#include "address.h"
#include "comm_loop.h"
#include "driver_loader.h"
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
        Written,    // every frame carrying it was accepted
        Failed,     // a frame was abandoned after its retries: message names it
        Dropped,    // no frame ever carried it
        TimedOut,   // not settled within the wait (it may still go out)
        NotQueued,  // no room in the driver's write queue within the wait: never sent
        Closed,     // the host is shutting down
    };
    struct Outcome {
        State state = State::Pending;
        QString message;  // the driver's message for Failed
    };

    // Ids handed out start here, far above the ids of the host's commands.
    static constexpr int kFirstId = 1 << 30;
    // Units queued and not yet seen through, at most.
    static constexpr int kQueueUnits = 480;

    // Client threads: an id for intf_setData, once the address's units fit
    // in the budget (-1 when they did not by `deadline`, or on close), then
    // queued() once intf_setData returned and wait() for the outcome; or,
    // when the write is local only and queued nothing, local(). A write
    // keeps its units until it is seen through, even after wait() gave up.
    int begin(const Address& address, std::chrono::steady_clock::time_point deadline);
    void queued(int id);
    void local(int id);
    Outcome wait(int id, std::chrono::milliseconds timeout);
    // All of the above for one write of address's units (values as
    // intf_setData takes them): Written at once when the driver writes
    // locally only; NotQueued when no room came by `deadline`.
    Outcome write(const DriverApi& api, const Address& address, unsigned char* values, bool localOnly,
                  std::chrono::steady_clock::time_point deadline);
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
        bool through = false;     // nothing of it is left in the driver's queue
        bool waiterGone = false;  // wait() returned; forgotten once through
        Outcome outcome;
    };
    // Nothing of the write is left in the driver's queue: its units return
    // to the budget, and it is forgotten if nobody waits for it.
    void seeThrough(std::map<int, Entry>::iterator it);

    mutable std::mutex mutex_;
    std::condition_variable settled_;
    std::map<int, Entry> entries_;
    std::map<int, unsigned long> barriers_;  // condition-read id -> serial
    unsigned long nextSerial_ = 1;
    int nextId_ = kFirstId;
    int freeUnits_ = kQueueUnits;
    bool closed_ = false;
};

}  // namespace kvhost

#endif
