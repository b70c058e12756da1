// kv3000-host serve under load: the communication loop on the main thread
// against the in-process simulator with live values, while 50 HTTP clients
// at once stream events, read values and statistics and write, one client
// never reads its stream, one leaves at once, and one subscriber of the hub
// never takes anything. Bounded by a watchdog. At the end every write was
// answered 200 and the simulator holds each writer's last value, every
// stream saw changes, the stalled subscriber lost messages rather than
// holding the loop up, and the loop kept exchanging frames throughout.
#include "address.h"
#include "driver_loader.h"
#include "kv3000_sim.h"
#include "serve.h"
#include "session.h"

#include <QCoreApplication>

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace kvhost;

namespace {

constexpr int kStreams = 40;
constexpr int kReaders = 6;
constexpr int kWriters = 4;  // with the two odd clients: 52 at once
constexpr int kWritesEach = 25;
constexpr auto kWatchdog = std::chrono::seconds(150);

std::atomic<bool> stopLoop{false};
std::atomic<bool> stopReading{false};
std::atomic<int> writesDone{0};
std::atomic<int> readersDone{0};
std::atomic<int> badAnswers{0};
std::atomic<long> reads{0};

void fail(const char* what) {
    std::fprintf(stderr, "stress_serve: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

void quietMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

// Counts the change events of one stream until the server ends it.
void streamer(uint16_t port, std::atomic<int>* changes) {
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(30, 0);
    std::string pending;
    c.Get("/api/events", [&](const char* data, size_t n) {
        pending.append(data, n);
        for (size_t at; (at = pending.find("event: change")) != std::string::npos;) {
            ++*changes;
            pending.erase(0, at + 1);
        }
        if (pending.size() > 64) pending.erase(0, pending.size() - 64);
        return true;
    });
}

void reader(uint16_t port) {
    httplib::Client c("127.0.0.1", port);
    while (!stopReading.load()) {
        for (const char* path : {"/api/values", "/api/stats"}) {
            auto r = c.Get(path);
            if (!r || r->status != 200) ++badAnswers;
            ++reads;
        }
    }
    ++readersDone;
}

void writer(uint16_t port, const std::string& origin, const std::string& token, int k) {
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(30, 0);
    const httplib::Headers headers{{"Authorization", "Bearer " + token}, {"Origin", origin}};
    for (int i = 1; i <= kWritesEach; ++i) {
        const std::string body = "{\"address\": \"DM" + std::to_string(100 + k) +
                                 "\", \"value\": " + std::to_string(1000 * k + i) + "}";
        auto r = c.Post("/api/write", headers, body, "application/json");
        if (!r || r->status != 200) {
            std::fprintf(stderr, "stress_serve: write %s: %d %s\n", body.c_str(), r ? r->status : -1,
                         r ? r->body.c_str() : httplib::to_string(r.error()).c_str());
            ++badAnswers;
        }
    }
    ++writesDone;
}

// A client that asks for the stream and never reads it.
int slowClient(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    int small = 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail("connect");
    const char request[] = "GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (send(fd, request, sizeof request - 1, 0) < 0) fail("send");
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quietMessages);
    signal(SIGPIPE, SIG_IGN);

    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(doneMutex);
        if (!doneSignal.wait_for(lock, kWatchdog, [&] { return done; })) fail("no end in time: a stall");
    });

    static DriverApi api;
    std::string error;
    if (!loadDriver(KV3000_DRIVER_PATH, api, &error)) fail(error.c_str());
    const Catalogue catalogue(api);
    std::vector<Address> addresses;
    for (const char* text : {"DM0", "DM1", "T0", "TC0", "R0.00", "DM100:4", "MR_bit10.05"}) {
        Address a;
        QString why;
        if (!parseAddress(catalogue, api, QLatin1String(text), Access::Read, a, &why)) fail(qPrintable(why));
        addresses.push_back(a);
    }
    HostOptions host;
    host.liveSimulator = true;
    Session session(api, host);
    if (!session.start(&error)) fail(error.c_str());
    session.setStopFlag(&stopLoop);

    ServeOptions options;
    options.port = 0;
    options.allowWrites = true;
    ServeApp::Limits limits;
    limits.threads = 64;
    limits.maxStreams = 48;
    limits.queueLimit = 16;
    ServeApp serve(session, catalogue, addresses, options, limits);
    if (!serve.bind(&error)) fail(error.c_str());
    const uint16_t port =
        static_cast<uint16_t>(std::stoi(serve.origin().substr(serve.origin().rfind(':') + 1)));

    // Subscribed before the loop runs and never read: it must lose messages.
    const EventHub::Handle stalled = serve.subscribe(limits.maxStreams);
    std::vector<std::atomic<int>> changes(kStreams);
    std::vector<std::thread> clients;
    for (int i = 0; i < kStreams; ++i) clients.emplace_back(streamer, port, &changes[static_cast<size_t>(i)]);
    for (int i = 0; i < kReaders; ++i) clients.emplace_back(reader, port);
    for (int i = 0; i < kWriters; ++i) clients.emplace_back(writer, port, serve.origin(), serve.token(), i);
    std::thread leaver([port] {
        httplib::Client c("127.0.0.1", port);
        c.Get("/api/events", [](const char*, size_t) { return false; });
    });
    // Stops the loop a while after the last write, so that streams see changes throughout.
    int slow = -1;
    std::thread conductor([&] {
        slow = slowClient(port);
        while (writesDone.load() < kWriters) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        stopReading = true;
        while (readersDone.load() < kReaders) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        stopLoop = true;
    });

    const auto started = std::chrono::steady_clock::now();
    serve.run();  // the loop, here on the main thread, until stopLoop
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    conductor.join();
    leaver.join();
    for (std::thread& t : clients) t.join();
    close(slow);

    bool ok = badAnswers.load() == 0;
    for (int k = 0; k < kWriters; ++k) {
        const auto held = session.simulator()->memory().get("DM", static_cast<uint32_t>(100 + k));
        if (!held || *held != static_cast<uint32_t>(1000 * k + kWritesEach)) {
            std::fprintf(stderr, "stress_serve: DM%d holds %u, not the last write %d\n", 100 + k,
                         held ? *held : 0u, 1000 * k + kWritesEach);
            ok = false;
        }
    }
    int quietStreams = 0;
    for (const auto& c : changes) quietStreams += c.load() == 0;
    if (quietStreams > 0) {
        std::fprintf(stderr, "stress_serve: %d stream(s) saw no change\n", quietStreams);
        ok = false;
    }
    if (EventHub::dropped(stalled) == 0) {
        std::fprintf(stderr, "stress_serve: the stalled subscriber lost nothing\n");
        ok = false;
    }
    // The live simulator changes every 100 ms and a pass is due every 50 ms:
    // a loop held up by its clients falls far below this.
    const double tps = static_cast<double>(session.stats().transactions()) / seconds;
    if (tps < 20) {
        std::fprintf(stderr, "stress_serve: the loop made %.1f transactions/s\n", tps);
        ok = false;
    }
    std::printf(
        "%.1f s, %.1f transactions/s, %d writes, %ld reads, %d streams, %lu messages dropped by the "
        "stalled subscriber, %d bad answers\n",
        seconds, tps, kWriters * kWritesEach, reads.load(), kStreams, EventHub::dropped(stalled),
        badAnswers.load());
    {
        std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
    }
    doneSignal.notify_all();
    watchdog.join();
    return ok ? 0 : 1;
}
