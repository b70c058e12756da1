#include "serve_writes.h"

#include "operations.h"

namespace kvhost {

int WriteTracker::begin(const Address& address, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    const int units = address.count;
    if (units > kQueueUnits ||
        !settled_.wait_until(lock, deadline, [&] { return closed_ || freeUnits_ >= units; }) || closed_)
        return -1;
    freeUnits_ -= units;
    const int id = nextId_++;
    if (nextId_ < kFirstId) nextId_ = kFirstId;  // wrapped after 2^30 writes
    entries_[id].address = address;
    return id;
}

void WriteTracker::queued(int id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(id);
    if (it != entries_.end()) it->second.queued = true;
}

void WriteTracker::local(int id) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = entries_.find(id);
        if (it == entries_.end()) return;
        it->second.waiterGone = true;
        seeThrough(it);
    }
    settled_.notify_all();
}

void WriteTracker::seeThrough(std::map<int, Entry>::iterator it) {
    it->second.through = true;
    freeUnits_ += it->second.address.count;
    if (it->second.waiterGone) entries_.erase(it);
}

WriteTracker::Outcome WriteTracker::wait(int id, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto it = entries_.find(id);
    if (it == entries_.end()) return {State::Closed, QString()};
    settled_.wait_for(lock, timeout, [&] { return closed_ || it->second.outcome.state != State::Pending; });
    Outcome o = it->second.outcome;
    if (o.state == State::Pending) o.state = closed_ ? State::Closed : State::TimedOut;
    // A write not yet through keeps its units: it stays, without its waiter.
    if (it->second.through || closed_)
        entries_.erase(it);
    else
        it->second.waiterGone = true;
    return o;
}

WriteTracker::Outcome WriteTracker::write(const DriverApi& api, const Address& address, unsigned char* values,
                                          bool localOnly, std::chrono::steady_clock::time_point deadline) {
    const int id = begin(address, deadline);
    if (id < 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        return {closed_ ? State::Closed : State::NotQueued, QString()};
    }
    QString name = address.reg->name;
    api.setData(1, &name, address.address, address.runtimeLength(), values, id);
    if (localOnly) {
        local(id);
        return {State::Written, QString()};
    }
    queued(id);
    return wait(id, std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now()));
}

void WriteTracker::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    settled_.notify_all();
}

size_t WriteTracker::pending() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

void WriteTracker::observe(const Exchange& ex) {
    const int id = ex.frame->id;
    if (id < kFirstId) return;
    bool settledAny = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto w = entries_.find(id);
        if (w != entries_.end()) {
            if (ex.result == 1) ++w->second.accepted;
            if (ex.result == 2 && w->second.outcome.state == State::Pending) {
                w->second.outcome = {State::Failed, ex.message};
                settledAny = true;
            }
        }
        auto b = barriers_.find(id);
        if (b != barriers_.end()) {
            // Chosen while no write waited: everything queued before it is through.
            const unsigned long serial = b->second;
            for (auto e = entries_.begin(); e != entries_.end();) {
                const auto it = e++;  // seeThrough may erase it
                Entry& en = it->second;
                if (en.through || en.barrier == 0 || en.barrier > serial) continue;
                if (en.outcome.state == State::Pending)
                    en.outcome.state = en.accepted > 0 ? State::Written : State::Dropped;
                seeThrough(it);
                settledAny = true;
            }
            if (ex.result == 2) {
                // An abandoned condition read empties the driver's condition-read
                // queue: the other barriers are gone, and are queued anew.
                barriers_.clear();
                for (auto& e : entries_)
                    if (!e.second.through) e.second.barrier = 0;
            } else if (ex.result == 1) {
                barriers_.erase(b);
            }
        }
    }
    if (settledAny) settled_.notify_all();
}

bool WriteTracker::barrierDue(KEY_ADDRESS& key, int& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Address* first = nullptr;
    for (auto& e : entries_) {
        Entry& en = e.second;
        if (!en.queued || en.barrier != 0 || en.through) continue;
        if (!first) first = &en.address;
        en.barrier = nextSerial_;
    }
    if (!first) return false;
    key = conditionKey(*first, 1);
    id = nextId_++;
    if (nextId_ < kFirstId) nextId_ = kFirstId;
    barriers_[id] = nextSerial_++;
    return true;
}

}  // namespace kvhost
