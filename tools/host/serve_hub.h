// Fan-out of the live stream: the loop thread publishes each message once,
// every subscriber (one per open event stream) has its own bounded queue.
// Publishing never waits for a client: a subscriber that falls behind by
// more than its queue holds loses its queued messages and is told to start
// again from a fresh snapshot.
#ifndef KV3000_HOST_SERVE_HUB_H
#define KV3000_HOST_SERVE_HUB_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvhost {

class EventHub {
public:
    struct Subscriber;
    using Handle = std::shared_ptr<Subscriber>;

    enum class Take {
        Messages,    // out holds one or more messages
        Overflowed,  // messages were lost: send a snapshot (resync) before anything else
        Timeout,     // nothing within the wait
        Closed,      // the hub is closing: end the stream
    };

    explicit EventHub(size_t queueLimit = 256) : queueLimit_(queueLimit) {}

    // A new subscriber whose first message is `first`. nullptr when `limit`
    // subscribers are open already or the hub is closed.
    Handle subscribe(std::string first, size_t limit);
    void unsubscribe(const Handle& subscriber);
    size_t subscribers() const;

    // Queues the message for every subscriber.
    void publish(const std::string& message);
    // Replaces whatever a subscriber has queued with `snapshot`.
    void resync(const Handle& subscriber, std::string snapshot);
    // Wakes every waiting subscriber with Closed, now and from now on.
    void close();

    // Waits up to `wait` for messages and appends them all to out.
    Take take(const Handle& subscriber, std::string& out, std::chrono::milliseconds wait);
    // Messages a subscriber lost to overflows so far.
    static unsigned long dropped(const Handle& subscriber);

private:
    const size_t queueLimit_;
    mutable std::mutex mutex_;
    std::vector<Handle> subscribers_;
    bool closed_ = false;
};

struct EventHub::Subscriber {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::string> queue;
    bool overflowed = false;
    bool closed = false;
    unsigned long dropped = 0;
};

}  // namespace kvhost

#endif
