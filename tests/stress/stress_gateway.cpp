// kv3000-host gateway under load: the communication loop on the main thread
// against the in-process simulator with live values, while 20 libmodbus
// clients at once read registers and coils and write a register of their
// own, one client sends requests and never reads the answers, and one leaves
// in the middle of a request. Bounded by a watchdog. At the end every
// request was answered, the simulator holds each client's last write, the
// live counter DM0 never went back for any client, and the loop kept
// exchanging frames throughout.
#include "address.h"
#include "driver_loader.h"
#include "gateway.h"
#include "kv3000_sim.h"
#include "session.h"

#include <QCoreApplication>

#include <arpa/inet.h>
#include <modbus.h>
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
#include <thread>
#include <vector>

using namespace kvhost;

namespace {

constexpr int kClients = 20;
constexpr int kRequestsEach = 300;  // every tenth a write
constexpr auto kWatchdog = std::chrono::seconds(150);

std::atomic<bool> stopLoop{false};
std::atomic<int> clientsDone{0};
std::atomic<int> bad{0};

void fail(const char* what) {
    std::fprintf(stderr, "stress_gateway: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

void quietMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

void client(uint16_t port, int k) {
    modbus_t* c = modbus_new_tcp("127.0.0.1", port);
    modbus_set_response_timeout(c, 30, 0);
    if (modbus_connect(c) != 0) fail("connect");
    uint16_t regs[10];
    uint8_t bits[16];
    uint16_t lastCounter = 0;
    for (int i = 1; i <= kRequestsEach; ++i) {
        int rc;
        if (i % 10 == 0) {
            rc = modbus_write_register(c, 20 + k, static_cast<uint16_t>(1000 * k + i));
        } else if (i % 10 == 5) {
            rc = modbus_read_bits(c, 0, 16, bits);
        } else {
            rc = modbus_read_registers(c, 0, 10, regs);
            // DM0 counts up in the live simulator; a client never sees it go back.
            if (rc == 10 && static_cast<uint16_t>(regs[0] - lastCounter) > 0x8000) ++bad;
            if (rc == 10) lastCounter = regs[0];
        }
        if (rc < 0) {
            std::fprintf(stderr, "stress_gateway: client %d request %d: %s\n", k, i, modbus_strerror(errno));
            ++bad;
        }
    }
    modbus_close(c);
    modbus_free(c);
    ++clientsDone;
}

int rawClient(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    int small = 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail("connect");
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
    std::vector<GatewayMap> maps;
    for (const char* text : {"DM0:100=hr0", "TC0:4=ir0", "R0.00:16=co0", "T0:8=di0"}) {
        GatewayMap m;
        QString why;
        if (!parseGatewayMap(catalogue, api, QLatin1String(text), m, &why)) fail(qPrintable(why));
        maps.push_back(m);
    }
    HostOptions host;
    host.liveSimulator = true;
    Session session(api, host);
    if (!session.start(&error)) fail(error.c_str());
    session.setStopFlag(&stopLoop);
    GatewayOptions options;
    options.port = 0;
    options.allowWrites = true;
    Gateway gateway(session, maps, options);
    if (!gateway.bind(&error)) fail(error.c_str());
    const uint16_t port = gateway.port();

    std::vector<std::thread> clients;
    std::thread conductor([&] {
        // Asks for 2000 registers' worth of answers and never reads them.
        const int stalled = rawClient(port);
        const uint8_t read[] = {0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 100};
        for (int i = 0; i < 2000; ++i)
            if (send(stalled, read, sizeof read, MSG_DONTWAIT) < 0) break;
        // Leaves after half a request.
        const int leaver = rawClient(port);
        if (send(leaver, read, 5, 0) != 5) fail("send");
        close(leaver);
        // The clients start once the first pass has read every map.
        modbus_t* probe = modbus_new_tcp("127.0.0.1", port);
        uint16_t one = 0;
        if (modbus_connect(probe) != 0) fail("connect");
        while (modbus_read_registers(probe, 0, 1, &one) != 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        modbus_close(probe);
        modbus_free(probe);
        for (int k = 0; k < kClients; ++k) clients.emplace_back(client, port, k);
        while (clientsDone.load() < kClients) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stopLoop = true;
        for (std::thread& t : clients) t.join();
        close(stalled);
    });

    const auto started = std::chrono::steady_clock::now();
    gateway.run();  // the loop, here on the main thread, until stopLoop
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    conductor.join();

    bool ok = bad.load() == 0;
    for (int k = 0; k < kClients; ++k) {
        const auto held = session.simulator()->memory().get("DM", static_cast<uint32_t>(20 + k));
        const uint32_t last = static_cast<uint32_t>(1000 * k + kRequestsEach);
        if (!held || *held != last) {
            std::fprintf(stderr, "stress_gateway: DM%d holds %u, not the last write %u\n", 20 + k,
                         held ? *held : 0u, last);
            ok = false;
        }
    }
    const double tps = static_cast<double>(session.stats().transactions()) / seconds;
    if (tps < 20) {
        std::fprintf(stderr, "stress_gateway: the loop made %.1f transactions/s\n", tps);
        ok = false;
    }
    std::printf("%.1f s, %.1f transactions/s, %d bad answers; %s\n", seconds, tps, bad.load(),
                gateway.summary().c_str());
    {
        std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
    }
    doneSignal.notify_all();
    watchdog.join();
    return ok ? 0 : 1;
}
