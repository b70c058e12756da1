// kv3000-host serve: a small web HMI. The communication loop stays on the
// calling thread (Session::runUntil); the HTTP threads read values with
// intf_getData and write with intf_setData themselves, as the screens of a
// runtime do. Change reports reach the page through the event hub, write
// outcomes through the write tracker.
#ifndef KV3000_HOST_SERVE_H
#define KV3000_HOST_SERVE_H

#include "commands.h"
#include "options.h"
#include "serve_http.h"
#include "serve_hub.h"
#include "serve_writes.h"

#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvhost {

class ServeApp : public ServeBackend {
public:
    struct Limits {
        int threads = 160;
        size_t maxStreams = 120;
        size_t queueLimit = 256;  // messages a stream may fall behind
    };

    ServeApp(Session& session, const Catalogue& catalogue, std::vector<Address> addresses,
             const ServeOptions& options);
    ServeApp(Session& session, const Catalogue& catalogue, std::vector<Address> addresses,
             const ServeOptions& options, Limits limits);
    ~ServeApp() override;

    // Makes the token (with --allow-writes) and binds. false with a reason.
    bool bind(std::string* error);
    const std::string& origin() const { return http_->origin(); }
    const std::string& token() const { return token_; }
    // Registers the addresses, starts the HTTP threads and runs the loop
    // until the session's stop flag is raised; then closes every stream,
    // answers waiting writes and stops the HTTP threads.
    void run();

    // ServeBackend, on HTTP threads.
    QByteArray values() override;
    QByteArray stats() override;
    EventHub::Handle subscribe(size_t limit) override;
    void resync(const EventHub::Handle& subscriber) override;
    EventHub& hub() override { return hub_; }
    Reply write(const QByteArray& body, const std::string& peer) override;

private:
    struct Unit {
        int address;  // index into addresses_
        int unit;
        QString name;
        // What the loop last published.
        uint32_t value = 0;
        bool known = false;
        qint64 changedMs = 0;
    };

    void tick();
    void publishChanges(const std::vector<Watcher::Change>& changes);
    void publishStats(bool now);
    QJsonObject unitJson(const Unit& u, uint32_t value, bool known) const;
    std::string snapshotLocked() const;
    std::chrono::milliseconds writeTimeout() const;

    Session& session_;
    const Catalogue& catalogue_;
    ServeOptions options_;
    Watcher watcher_;
    WriteTracker tracker_;
    EventHub hub_;
    std::unique_ptr<HttpFront> http_;
    std::string token_;
    bool localWriteOnly_ = false;
    int observer_ = -1;

    // The loop thread's own.
    int blocks_ = 0;
    bool firstPassDone_ = false;
    bool linkUp_ = true;
    Micros nextStatsAt_ = 0;
    Micros lastStatsAt_ = 0;
    uint64_t lastTransactions_ = 0;
    std::deque<Micros> roundTrips_;  // of the latest accepted replies
    SteadyClock clock_;

    // Shared with the HTTP threads; publishing happens under it too, so that
    // a snapshot and the stream that follows it never disagree.
    mutable std::mutex mutex_;
    std::vector<Unit> units_;        // address by address, unit by unit
    std::vector<size_t> firstUnit_;  // of each address
    QJsonObject stats_;
};

// The command: prints "serving http://HOST:PORT/" (and "token: ..." with
// --allow-writes) and serves until SIGINT/SIGTERM. Exit status 1 when it
// cannot listen.
int runServe(Session& session, const Catalogue& catalogue, const PreparedCommand& cmd,
             const ServeOptions& options);

}  // namespace kvhost

#endif
