#include "serve_hub.h"

#include <algorithm>

namespace kvhost {

EventHub::Handle EventHub::subscribe(std::string first, size_t limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || subscribers_.size() >= limit) return nullptr;
    auto s = std::make_shared<Subscriber>();
    s->queue.push_back(std::move(first));
    subscribers_.push_back(s);
    return s;
}

void EventHub::unsubscribe(const Handle& subscriber) {
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), subscriber), subscribers_.end());
}

size_t EventHub::subscribers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscribers_.size();
}

void EventHub::publish(const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Handle& s : subscribers_) {
        {
            std::lock_guard<std::mutex> own(s->mutex);
            if (s->overflowed) continue;  // a snapshot replaces everything anyway
            if (s->queue.size() >= queueLimit_) {
                s->dropped += s->queue.size() + 1;
                s->queue.clear();
                s->overflowed = true;
            } else {
                s->queue.push_back(message);
            }
        }
        s->wake.notify_one();
    }
}

void EventHub::resync(const Handle& subscriber, std::string snapshot) {
    std::lock_guard<std::mutex> own(subscriber->mutex);
    subscriber->queue.clear();
    subscriber->queue.push_back(std::move(snapshot));
    subscriber->overflowed = false;
}

void EventHub::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (const Handle& s : subscribers_) {
        {
            std::lock_guard<std::mutex> own(s->mutex);
            s->closed = true;
        }
        s->wake.notify_all();
    }
}

EventHub::Take EventHub::take(const Handle& subscriber, std::string& out, std::chrono::milliseconds wait) {
    Subscriber& s = *subscriber;
    std::unique_lock<std::mutex> own(s.mutex);
    s.wake.wait_for(own, wait, [&] { return s.closed || s.overflowed || !s.queue.empty(); });
    if (s.closed) return Take::Closed;
    if (s.overflowed) return Take::Overflowed;
    if (s.queue.empty()) return Take::Timeout;
    for (const std::string& m : s.queue) out += m;
    s.queue.clear();
    return Take::Messages;
}

unsigned long EventHub::dropped(const Handle& subscriber) {
    std::lock_guard<std::mutex> own(subscriber->mutex);
    return subscriber->dropped;
}

}  // namespace kvhost
