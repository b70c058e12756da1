#include "operations.h"

#include <QStringList>

#include <algorithm>
#include <set>

namespace kvhost {

namespace {

// Units queued per batch of writes; each unit is at most one queue item, so
// a batch always fits the driver's write queue (513 items).
constexpr int kUnitsPerBatch = 256;

KEY_ADDRESS keyFor(const Address& a, int count) {
    KEY_ADDRESS key;
    key.station = 1;
    key.reg = a.reg->name;
    key.address = a.address;
    key.dataType = a.reg->dataType();
    key.length = count * a.reg->unitLength();
    return key;
}

QString runFailure(Session& session, Session::RunResult run) {
    switch (run) {
        case Session::RunResult::Interrupted:
            return QStringLiteral("interrupted");
        case Session::RunResult::TimeUp:
            return QStringLiteral("time limit reached");
        case Session::RunResult::OutputClosed:
            return QStringLiteral("the output was closed");
        default:
            return QString::fromStdString(session.failure());
    }
}

}  // namespace

bool parseDriverMessage(const QString& message, FrameName& out) {
    const int hash = message.indexOf(QLatin1Char('#'));
    const int open = message.lastIndexOf(QLatin1Char('('));
    if (hash <= 0 || open <= hash || !message.endsWith(QLatin1Char(')'))) return false;
    bool ok1 = false, ok2 = false;
    FrameName f;
    f.station = message.left(hash).toInt(&ok1);
    f.length = message.mid(open + 1, message.size() - open - 2).toInt(&ok2);
    const QString regAddress = message.mid(hash + 1, open - hash - 1);
    int n = 0;
    while (n < regAddress.size() && (regAddress[n].isLetter() || regAddress[n] == QLatin1Char('_'))) ++n;
    f.reg = regAddress.left(n);
    const QStringList parts = regAddress.mid(n).split(QLatin1Char('.'));
    bool ok3 = false, ok4 = true;
    if (parts.size() == 2) {
        f.address = parts[0].toInt(&ok3) * 16 + parts[1].toInt(&ok4);
    } else {
        f.address = parts[0].toInt(&ok3);
    }
    if (!ok1 || !ok2 || !ok3 || !ok4 || f.reg.isEmpty() || parts.size() > 2) return false;
    out = f;
    return true;
}

KEY_ADDRESS conditionKey(const Address& a, int count) {
    if (a.reg->unit() != kvreg::Unit::Bit) return keyFor(a, count);
    // The driver reads 16 bits (R, B) or 16 contacts (T, C) for every one
    // asked: ask for a sixteenth, and start early enough that the range
    // read stays inside the register.
    const int words = (count + 15) / 16;
    const int covered = 16 * words;
    const int last = a.reg->maxAddress;
    KEY_ADDRESS key = keyFor(a, count);
    key.length = words;
    if (a.address + covered - 1 > last) key.address = std::max(a.reg->minAddress, last - covered + 1);
    return key;
}

ReadResult readAddress(Session& session, const Address& address) {
    ReadResult r;
    const int id = session.newRequestId();
    session.resetConditionRead();
    session.api().addConditionRead(conditionKey(address, address.count), id);
    r.run = session.runUntil([&] { return session.conditionReadEnded() || session.outcome(id).failed; });
    if (r.run != Session::RunResult::Done) {
        r.message = runFailure(session, r.run);
        return r;
    }
    const RequestOutcome& o = session.outcome(id);
    int status = 0;
    session.conditionReadEnded(&status);
    if (o.failed || status != 0) {
        r.message =
            session.explain(o.message.isEmpty() ? QStringLiteral("the condition read failed") : o.message);
        return r;
    }
    std::vector<unsigned char> buffer(static_cast<size_t>(address.bufferBytes()), 0);
    session.api().getData(1, address.reg->name, address.address, address.runtimeLength(), buffer.data());
    for (int i = 0; i < address.count; ++i)
        r.values.push_back(loadValue(*address.reg, buffer.data() + i * address.reg->unitBytes()));
    r.ok = true;
    return r;
}

std::vector<WriteResult> writeAll(Session& session, const std::vector<WriteRequest>& requests,
                                  Session::RunResult* run) {
    // Requests are cut into chunks of at most a batch: a bit register
    // becomes one queue item per bit.
    struct Chunk {
        size_t request;
        int offset;
        int count;
        int id = 0;
    };
    std::vector<Chunk> chunks;
    for (size_t r = 0; r < requests.size(); ++r)
        for (int off = 0; off < requests[r].address.count; off += kUnitsPerBatch)
            chunks.push_back({r, off, std::min(kUnitsPerBatch, requests[r].address.count - off)});

    std::vector<WriteResult> results(requests.size());
    *run = Session::RunResult::Done;
    size_t next = 0;
    while (next < chunks.size()) {
        const size_t begin = next;
        int units = 0;
        while (next < chunks.size() && units + chunks[next].count <= kUnitsPerBatch)
            units += chunks[next++].count;
        for (size_t k = begin; k < next; ++k) {
            Chunk& c = chunks[k];
            const WriteRequest& w = requests[c.request];
            const RegisterInfo& reg = *w.address.reg;
            std::vector<unsigned char> buffer(static_cast<size_t>(c.count * reg.unitBytes()), 0);
            for (int i = 0; i < c.count; ++i)
                storeValue(reg, w.values[static_cast<size_t>(c.offset + i)],
                           buffer.data() + i * reg.unitBytes());
            c.id = session.newRequestId();
            QString name = reg.name;
            session.api().setData(1, &name, w.address.address + c.offset, c.count * reg.unitLength(),
                                  buffer.data(), c.id);
        }
        // The scheduler serves a condition read only while no write waits,
        // so its end means every write of the batch has left the queue.
        const int barrier = session.newRequestId();
        session.resetConditionRead();
        session.api().addConditionRead(conditionKey(requests[chunks[begin].request].address, 1), barrier);
        const Session::RunResult r =
            session.runUntil([&] { return session.conditionReadEnded() || session.outcome(barrier).failed; });
        for (size_t k = begin; k < next; ++k) {
            const RequestOutcome& o = session.outcome(chunks[k].id);
            WriteResult& res = results[chunks[k].request];
            const bool failedBefore = res.confirmed && !res.ok;
            if (o.failed) {
                if (!failedBefore) res.message = session.explain(o.message);
                res.ok = false;
                res.confirmed = true;
            } else if (r != Session::RunResult::Done) {
                if (!failedBefore) {
                    res.ok = false;
                    res.confirmed = false;
                    res.message = QStringLiteral("not confirmed: ") + runFailure(session, r);
                }
            } else if (!failedBefore && (res.ok || res.message.isEmpty())) {
                res.ok = true;
                res.confirmed = true;
            }
        }
        if (r != Session::RunResult::Done) {
            *run = r;
            for (size_t k = next; k < chunks.size(); ++k) {
                WriteResult& res = results[chunks[k].request];
                if (res.confirmed && !res.ok) continue;
                res.ok = false;
                res.confirmed = false;
                if (res.message.isEmpty())
                    res.message = QStringLiteral("not sent: ") + runFailure(session, r);
            }
            break;
        }
    }
    return results;
}

Watcher::Watcher(Session& session, std::vector<Address> addresses)
    : session_(session), addresses_(std::move(addresses)) {}

Watcher::~Watcher() {
    if (observer_ >= 0) session_.removeExchangeObserver(observer_);
    session_.onChange(nullptr);
    session_.setCyclicBlocks(0);
}

int Watcher::registerAll() {
    QList<KEY_ADDRESS> keys;
    unread_.clear();
    for (size_t i = 0; i < addresses_.size(); ++i) {
        const Address& a = addresses_[i];
        keys.append(keyFor(a, a.count));
        for (int u = 0; u < a.count; ++u) unread_.insert({static_cast<int>(i), u});
    }
    session_.onChange([this](int, int, const QString& name, int address) { report(name, address); });
    if (observer_ >= 0) session_.removeExchangeObserver(observer_);
    observer_ = session_.addExchangeObserver([this](const Exchange& ex) { observe(ex); });
    const int blocks = session_.api().addrMerge(keys);
    session_.setCyclicBlocks(blocks);
    return blocks;
}

namespace {

// A cyclic read block covers a unit of its own register, or a bit of one of
// its words: the driver reads bit views as the words of their word register.
bool covers(const FrameName& block, const Address& a, int unit) {
    int address = a.address + unit;
    QString reg = a.reg->name;
    if (a.reg->unit() == kvreg::Unit::BitInWord) {
        reg = QString::fromLatin1(REG_LIST[a.reg->traits.keyRow]);
        address /= 16;
    }
    return block.reg == reg && address >= block.address &&
           address < block.address + std::max(1, block.length);
}

}  // namespace

void Watcher::observe(const Exchange& ex) {
    if (!ex.cyclicRead() || (ex.result != KV_DEAL_ACCEPTED && ex.result != KV_DEAL_ABANDONED)) return;
    ++cyclicReads_;
    const bool ok = ex.result == KV_DEAL_ACCEPTED;
    if (ok == (failing_.count(ex.message) != 0)) {
        if (ok)
            failing_.erase(ex.message);
        else
            failing_.insert(ex.message);
        blockEvents_.push_back({ex.message, !ok});
    }
    FrameName block;
    if (!ok || !parseDriverMessage(ex.message, block)) return;
    // Units read for the first time are reported with their value.
    for (auto it = unread_.begin(); it != unread_.end();) {
        const bool read = covers(block, addresses_[static_cast<size_t>(it->first)], it->second);
        if (read) pending_.push_back(*it);
        it = read ? unread_.erase(it) : std::next(it);
    }
}

std::vector<Watcher::BlockEvent> Watcher::takeBlockEvents() {
    std::vector<BlockEvent> events;
    events.swap(blockEvents_);
    return events;
}

QString Watcher::unreadText() const {
    QStringList texts;
    int last = -1;
    for (const auto& u : unread_)
        if (u.first != last) texts << addresses_[static_cast<size_t>(last = u.first)].text;
    return texts.join(QStringLiteral(", "));
}

void Watcher::report(const QString& name, int address) {
    std::lock_guard<std::mutex> lock(pendingMutex_);
    for (size_t i = 0; i < addresses_.size(); ++i) {
        const Address& a = addresses_[i];
        if (name == a.reg->name && address >= a.address && address < a.address + a.count)
            pending_.emplace_back(static_cast<int>(i), address - a.address);
    }
}

uint32_t Watcher::valueOf(const Address& a, int unit) {
    unsigned char buffer[4] = {};
    session_.api().getData(1, a.reg->name, a.address + unit, a.reg->unitLength(), buffer);
    return loadValue(*a.reg, buffer);
}

std::vector<Watcher::Change> Watcher::takeChanges() {
    std::vector<std::pair<int, int>> pending;
    {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        pending.swap(pending_);
    }
    std::vector<Change> changes;
    std::set<std::pair<int, int>> seen;
    for (const auto& p : pending) {
        if (!seen.insert(p).second) continue;
        const Address& a = addresses_[static_cast<size_t>(p.first)];
        const uint32_t v = valueOf(a, p.second);
        auto it = last_.find(p);
        if (it != last_.end() && it->second == v) continue;
        last_[p] = v;
        changes.push_back({&a, p.second, v});
    }
    return changes;
}

std::vector<Watcher::Change> Watcher::snapshot() {
    std::vector<Change> all;
    {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        pending_.clear();
    }
    for (size_t i = 0; i < addresses_.size(); ++i) {
        const Address& a = addresses_[i];
        for (int u = 0; u < a.count; ++u) {
            if (unread_.count({static_cast<int>(i), u})) continue;
            const uint32_t v = valueOf(a, u);
            last_[{static_cast<int>(i), u}] = v;
            all.push_back({&a, u, v});
        }
    }
    return all;
}

}  // namespace kvhost
