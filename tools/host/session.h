// One run of the host: the driver initialised as a runtime does, the link
// (or the embedded simulator), the communication loop, and the bookkeeping
// that tells the commands how their requests ended.
#ifndef KV3000_HOST_SESSION_H
#define KV3000_HOST_SESSION_H

#include "address.h"
#include "comm_loop.h"
#include "driver_loader.h"
#include "link_serial.h"
#include "runtime.h"
#include "stats.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kvsim {
class Replay;
class Simulator;
}  // namespace kvsim

namespace kvhost {

struct HostOptions {
    enum class LinkKind { Embedded, Tcp, Serial };
    LinkKind link = LinkKind::Embedded;
    std::string tcpHost;
    uint16_t tcpPort = 0;
    std::string serialDevice;
    SerialParams serial;
    std::string params = "1#0#0#3#10";
    int protocolId = 1;
    int retries = 3;
    bool localWriteOnly = false;  // writes change only the driver's data area
    int timeoutMs = 500;
    bool trace = false;
    bool liveSimulator = false;                      // demo values in the embedded simulator
    std::shared_ptr<kvsim::Replay> simulatorReplay;  // the embedded simulator replays a capture
};

// How one request (a write or a condition read, by its id) ended.
struct RequestOutcome {
    int accepted = 0;     // replies accepted for its frames
    bool failed = false;  // a frame was abandoned after its retries
    QString message;      // the driver's message for the abandoned frame
};

class Session {
public:
    enum class RunResult {
        Done,          // the condition became true
        LinkFailed,    // the link stayed down, or nothing valid came back, for too long
        Interrupted,   // the stop flag was raised
        TimeUp,        // the time limit passed
        OutputClosed,  // the results cannot be written any more (see outputClosed())
    };

    Session(const DriverApi& api, const HostOptions& options);
    ~Session();

    // Starts the embedded simulator when no link was given, initialises the
    // driver and connects. false with a reason when the first connection
    // cannot be made.
    bool start(std::string* error);

    const DriverApi& api() const { return api_; }
    Runtime& runtime() { return *runtime_; }
    Stats& stats() { return stats_; }
    const HostOptions& options() const { return options_; }
    kvsim::Simulator* simulator() { return simulator_.get(); }
    std::string linkDescription() const;
    // "the peer at 127.0.0.1:8000 does not answer like a KV-3000 (reply starts
    // 48 54 54 50)" while nothing from the peer looked like a controller's
    // reply and its handshake replies did not; empty otherwise.
    std::string foreignPeer() const;
    // The driver's message for a failed request, or the reason above when it applies.
    QString explain(const QString& message) const;

    // Runs the loop until done() is true. Unless persistent, gives up when
    // the link stays down, or no reply is accepted, for too long.
    RunResult runUntil(const std::function<bool()>& done, double timeLimitSeconds = 0,
                       bool persistent = false);
    const std::string& failure() const { return failure_; }
    void setStopFlag(const std::atomic<bool>* stop) { stop_ = stop; }

    // Request ids for intf_setData and intf_addConditionRead; each gets its
    // outcome tracked from the frames that carry it.
    int newRequestId();
    const RequestOutcome& outcome(int id) { return outcomes_[id]; }

    // The end of the most recent condition read: 0 success, -1 failure,
    // nothing yet (returns false).
    void resetConditionRead() { conditionEnded_ = false; }
    bool conditionReadEnded(int* status = nullptr) const;

    // Value and recipe reports other than the condition-read end.
    void onChange(Runtime::ChangeHandler handler) { changeHandler_ = std::move(handler); }
    // Called after every exchange (after the trace line and the outcome
    // bookkeeping) until removed.
    int addExchangeObserver(std::function<void(const Exchange&)> observer);
    void removeExchangeObserver(int token);
    // Link events printed to stderr by default; watch turns them into timestamped lines.
    // NotAController comes once, with foreignPeer() as its text.
    void onLinkEvent(std::function<void(LinkEvent, const std::string&)> handler) {
        linkHandler_ = std::move(handler);
    }

    // Cyclic reads are paced: one pass over the read blocks at most every
    // scan period. blocks = 0 turns pacing off.
    void setCyclicBlocks(int blocks) {
        cyclicBlocks_ = blocks;
        cyclicInPass_ = 0;
        pauseUntil_ = 0;
    }

    // Text appended to the summary line ("; modbus: ...").
    void setSummaryExtra(std::string text) { summaryExtra_ = std::move(text); }
    void printSummary();

private:
    void handleExchange(const Exchange& ex);
    void handleLink(LinkEvent event, const std::string& text);

    const DriverApi& api_;
    HostOptions options_;
    std::unique_ptr<kvsim::Simulator> simulator_;
    std::unique_ptr<Runtime> runtime_;
    std::unique_ptr<Link> link_;
    SteadyClock clock_;
    std::unique_ptr<CommLoop> loop_;
    Stats stats_;
    std::string failure_;
    const std::atomic<bool>* stop_ = nullptr;

    int nextId_ = 1000;
    std::map<int, RequestOutcome> outcomes_;
    bool conditionEnded_ = false;
    int conditionStatus_ = 0;
    int handshakeFailures_ = 0;
    bool controllerSeen_ = false;  // a reply looked like a KV-3000's
    int foreignReplies_ = 0;       // handshake replies that did not, since the last one that did
    std::string foreignStart_;     // the first bytes of the last of them, in hex
    Micros lastAccepted_ = 0;
    int cyclicBlocks_ = 0;
    int cyclicInPass_ = 0;
    Micros passStart_ = 0;
    Micros pauseUntil_ = 0;
    Runtime::ChangeHandler changeHandler_;
    std::map<int, std::function<void(const Exchange&)>> exchangeObservers_;
    int nextObserver_ = 0;
    std::function<void(LinkEvent, const std::string&)> linkHandler_;
    std::string summaryExtra_;
};

}  // namespace kvhost

#endif
