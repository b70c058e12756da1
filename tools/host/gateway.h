// kv3000-host gateway: chosen controller registers as a Modbus TCP server.
// The communication loop stays on the calling thread (Session::runUntil);
// it keeps the served values current from the driver's change reports. One
// thread accepts clients and each client has a thread of its own that
// receives with libmodbus and answers through GatewayRequests: reads from
// the values, writes through intf_setData, answered once the write tracker
// has seen the driver settle them. A client that stalls, or waits for a
// slow write, holds up only its own thread.
#ifndef KV3000_HOST_GATEWAY_H
#define KV3000_HOST_GATEWAY_H

#include "commands.h"
#include "gateway_requests.h"
#include "options.h"
#include "serve_writes.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvhost {

class Gateway : public GatewayWriter {
public:
    static constexpr int kMaxClients = 64;  // further clients are closed at once

    Gateway(Session& session, std::vector<GatewayMap> maps, const GatewayOptions& options);
    ~Gateway() override;
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    // Listens. false with a reason ("cannot listen on 127.0.0.1:5020: Address already in use").
    bool bind(std::string* error);
    // "127.0.0.1:5020", with the port actually bound.
    std::string where() const;
    uint16_t port() const { return port_; }
    // Registers the maps, accepts clients and runs the loop until the
    // session's stop flag is raised; then answers waiting writes, closes
    // every client and joins their threads.
    void run();
    // "modbus: 120 requests (100 reads, 20 writes), exceptions 2: 3, 4: 1; 21 clients (20 at most at once)".
    std::string summary() const;
    const GatewayCounters& counters() const { return counters_; }

    // GatewayWriter, on client threads.
    bool write(const std::vector<UnitWrite>& writes, const std::string& peer) override;

private:
    struct Client {
        int fd = -1;
        std::string peer;
        std::thread thread;
        std::atomic<bool> done{false};
    };
    // The driver's write queue holds 513 items, each unit at most one: the
    // units the gateway has queued and not seen settled stay below that.
    class QueueBudget {
    public:
        explicit QueueBudget(int units) : free_(units) {}
        bool acquire(int units, std::chrono::steady_clock::time_point deadline);
        void release(int units);
        void close();

    private:
        std::mutex mutex_;
        std::condition_variable changed_;
        int free_;
        bool closed_ = false;
    };

    void tick();
    void publish(const std::vector<Watcher::Change>& changes);
    void acceptClients();
    void serveClient(Client& client);
    void reap(bool all);
    void stop();

    Session& session_;
    GatewayOptions options_;
    GatewayTables tables_;
    GatewayCounters counters_;
    Watcher watcher_;
    WriteTracker tracker_;
    QueueBudget budget_;
    modbus_t* listener_ = nullptr;
    int listenFd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::thread acceptor_;
    std::list<std::unique_ptr<Client>> clients_;  // the acceptor's, until it has ended
    std::atomic<uint64_t> clientsTotal_{0}, clientsRefused_{0};
    std::atomic<int> clientsNow_{0}, clientsMost_{0};
    int observer_ = -1;
    // The loop thread's own.
    int blocks_ = 0;
    bool firstPassDone_ = false;
};

// The command: prints "modbus on HOST:PORT" first and serves until SIGINT or
// SIGTERM. Exit status 1 when it cannot listen.
int runGateway(Session& session, const PreparedCommand& cmd, const GatewayOptions& options);

}  // namespace kvhost

#endif
