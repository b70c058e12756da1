// The simulator as a whole: memory, counters, fault injector, and one
// poll-driven thread that serves TCP clients and a pseudo-terminal.
#ifndef KV3000_SIM_SERVER_H
#define KV3000_SIM_SERVER_H

#include "sim_faults.h"
#include "sim_memory.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvsim {

struct Options {
    FaultSpec faults;
    uint32_t seed = 1;
    bool live = false;         // demo values in DM0, DM1, T0 and R0.00
    int frameTimeoutMs = 500;  // a half frame older than this is dropped
    int maxClients = 64;       // further TCP clients are closed at once
    // Every link's frames recorded here, and replies taken from there first.
    std::shared_ptr<kvcapture::Writer> capture;
    std::shared_ptr<Replay> replay;
};

class Simulator {
public:
    explicit Simulator(const Options& options = Options());
    ~Simulator();  // stop()
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Listens on host:port (port 0: a free one) and serves clients, any
    // number at a time, on the server thread (started by the first start
    // call). false with a reason in error when it cannot listen.
    bool startTcp(const std::string& host = "127.0.0.1", uint16_t port = 0, std::string* error = nullptr);
    // Opens a pseudo-terminal in raw mode; ptyPath() names its slave side.
    bool startPty(std::string* error = nullptr);
    uint16_t port() const { return port_; }
    std::string host() const { return host_; }
    std::string ptyPath() const { return ptyPath_; }

    // Closes every link and joins the server thread; idempotent.
    void stop();
    bool running() const { return thread_.joinable(); }

    Memory& memory() { return memory_; }
    Stats stats() const;

    // One step of the demo values (every 100 ms on the server thread when
    // Options::live is set).
    void liveStep();

private:
    struct Link;
    void ensureThread();
    void addSource(int fd, int kind);
    void run();
    void wake();
    Tap tap() const { return Tap{options_.capture.get(), options_.replay.get()}; }

    Options options_;
    Memory memory_;
    Counters counters_;
    FaultInjector faults_;
    uint16_t port_ = 0;
    std::string host_;
    std::string ptyPath_;
    int ptySlave_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex pendingMutex_;
    std::vector<std::pair<int, int>> pendingSources_;  // fd, kind, handed to the server thread
    uint64_t liveTicks_ = 0;
};

}  // namespace kvsim

#endif
