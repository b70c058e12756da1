// What the commands do with the driver: condition reads, writes with their
// outcome, and watching monitored addresses.
#ifndef KV3000_HOST_OPERATIONS_H
#define KV3000_HOST_OPERATIONS_H

#include "address.h"
#include "session.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace kvhost {

// A message of the driver, "1#DM100(5)" or "2#DM_bit100.5(1)", taken apart.
struct FrameName {
    int station = 0;
    QString reg;
    int address = 0;  // integer form (word x 16 + bit for word.bit names)
    int length = 0;
};
bool parseDriverMessage(const QString& message, FrameName& out);

struct ReadResult {
    bool ok = false;
    QString message;  // the driver's message when a frame was abandoned, or the link failure
    std::vector<uint32_t> values;
    Session::RunResult run = Session::RunResult::Done;
};
// The key of a condition read of the first count units of an address (bit
// registers are read in whole words that stay inside the register).
KEY_ADDRESS conditionKey(const Address& a, int count);

// One condition read of the whole address, then intf_getData.
ReadResult readAddress(Session& session, const Address& address);

struct WriteRequest {
    Address address;
    std::vector<uint32_t> values;  // one per unit
    QStringList valueTexts;        // as typed: one for all units, or one per unit
};
struct WriteResult {
    bool ok = false;
    bool confirmed = false;  // false: the link failed before the write was settled
    QString message;
};
// intf_setData for each request, in batches the driver's queue holds, and
// runs the loop until every write has left the queue (a condition read
// queued behind them ends only after the writes). One result per request.
std::vector<WriteResult> writeAll(Session& session, const std::vector<WriteRequest>& requests,
                                  Session::RunResult* run);

// Registers addresses with intf_addrMerge and turns the driver's change
// reports into (unit name, value) pairs, read with intf_getData right after
// the report. Reports may come from any thread (intf_setData reports the
// value it shows at once); the rest belongs to the loop thread. Follows the
// cyclic read blocks: which units have been read, and which blocks' reads
// are failing.
class Watcher {
public:
    struct Change {
        const Address* address;
        int unit;  // index within the address
        uint32_t value;
    };
    // A block's reads started failing, or went through again.
    struct BlockEvent {
        QString block;  // the driver's message, "1#DM0(1)"
        bool failing;
    };

    Watcher(Session& session, std::vector<Address> addresses);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    // Registers the addresses; returns the number of read blocks.
    int registerAll();
    // Reports received since the last call, each unit once, with its current
    // value; units whose value equals the last one taken are left out. A unit
    // read for the first time after the snapshot comes with its value.
    std::vector<Change> takeChanges();
    // Every watched unit that has been read, with its current value.
    std::vector<Change> snapshot();
    // Blocks that started failing or recovered since the last call.
    std::vector<BlockEvent> takeBlockEvents();
    // Every unit has been read at least once, and no block is failing now.
    bool allRead() const { return unread_.empty() && failing_.empty(); }
    // The addresses with a unit never read: "DM0, TC3".
    QString unreadText() const;
    const std::vector<Address>& addresses() const { return addresses_; }
    // Cyclic read transactions seen (accepted or abandoned).
    int cyclicReads() const { return cyclicReads_; }

private:
    void report(const QString& name, int address);
    void observe(const Exchange& ex);
    uint32_t valueOf(const Address& a, int unit);

    Session& session_;
    std::vector<Address> addresses_;
    std::mutex pendingMutex_;                   // taken without the driver's lock held by this class
    std::vector<std::pair<int, int>> pending_;  // address index, unit
    std::map<std::pair<int, int>, uint32_t> last_;
    std::set<std::pair<int, int>> unread_;
    std::set<QString> failing_;
    std::vector<BlockEvent> blockEvents_;
    int cyclicReads_ = 0;
    int observer_ = -1;
};

}  // namespace kvhost

#endif
