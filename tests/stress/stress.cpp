// Threads against one driver and the host's loop on the embedded simulator, for ThreadSanitizer (each mode:
// README.md, "Threading checks"); serve and gateway must keep the loop's pace (20 transactions/s at least).
#include "address.h"
#include "driver_loader.h"
#include "gateway.h"
#include "kv3000_sim.h"
#include "kv3000_traits.h"
#include "serve.h"
#include "session.h"

#include <QCoreApplication>

#include <arpa/inet.h>
#include <httplib.h>
#include <modbus.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace kvhost;
using namespace std::chrono_literals;

namespace {

std::atomic<bool> stopLoop{false};
std::atomic<int> bad{0};  // requests not answered as they must be

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "stress: %s\n", what.c_str());  // stderr is unbuffered
    std::abort();
}

int pick(int n) {
    thread_local std::mt19937 r(std::hash<std::thread::id>()(std::this_thread::get_id()) & 0xFFFF);
    return static_cast<int>(r() % static_cast<unsigned>(n));
}

// A loopback connection with a small receive buffer, for clients that never read.
int connectTo(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    int small = 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET, a.sin_port = htons(port), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail("connect");
    return fd;
}

void expectHeld(Session& s, int address, uint32_t value) {
    const auto held = s.simulator()->memory().get("DM", static_cast<uint32_t>(address));
    if (!held || *held != value)
        std::fprintf(stderr, "stress: DM%d holds %u, not %u\n", address, held ? *held : 0u, value), ++bad;
}

struct Area {
    const char* reg;
    int units;  // addresses 0 .. units-1 (bit addresses for the bit kinds)
    const kvreg::Traits& traits() const { return kvreg::traits(kvreg::rowOf(reg)); }
};
// Small areas, so that screens, recipes and the callback collide often.
const Area kAreas[] = {{"DM", 64}, {"DM_bit", 64 * 16}, {"R", 64}, {"EM", 32}, {"TS", 8}, {"Z", 16}};

KEY_ADDRESS keyOf(const Area& a, int address, int units) {
    KEY_ADDRESS k;
    k.reg = QString::fromLatin1(a.reg), k.address = address;
    k.length = a.traits().unitLength() * units, k.dataType = a.traits().countsBits() ? -1 : 0;
    return k;
}
KEY_ADDRESS randomKey(int most) {  // up to `most` units from a random one
    const Area& a = kAreas[pick(std::size(kAreas))];
    const int address = pick(a.units);
    return keyOf(a, address, 1 + pick(std::min(most, a.units - address)));
}
QList<KEY_ADDRESS> everything() {  // the words of DM cover DM_bit
    QList<KEY_ADDRESS> keys;
    for (const Area& a : kAreas)
        if (a.traits().kind != kvreg::Kind::BitInWord) keys.append(keyOf(a, 0, a.units));
    return keys;
}

void screen(const DriverApi& api) {
    for (int op = 0; op < 6000; ++op) {
        KEY_ADDRESS k = randomKey(4);
        unsigned char data[16];
        const int dice = pick(10);
        for (unsigned char& d : data) d = static_cast<unsigned char>(pick(k.dataType < 0 ? 2 : 256));
        if (dice < 4)
            api.setData(0, &k.reg, k.address, k.length, data, op);
        else if (dice < 8)
            api.getData(0, k.reg, k.address, k.length, data);
        else
            api.addConditionRead(k, op);
        std::this_thread::sleep_for(std::chrono::microseconds(100 + pick(200)));  // spread over transactions
    }
}

// A recipe transfer the registration thread wants: 1 download, 2 upload. The loop thread sets the request
// byte, as the host does (TSan cannot see the runtime's mutex order it), and clears this once served.
std::atomic<int> recipeAsked{0};

void registrations(Session& s) {
    Runtime& rt = s.runtime();
    for (int i = 0; i < 300; ++i) {
        QList<KEY_ADDRESS> keys;
        for (int k = 1 + pick(10); k > 0; --k) keys.append(randomKey(6));
        s.api().addrMerge(keys);
        if (i % 3 == 0) {
            QVector<_RCP_VAR_PRO> entries;  // back to back in the buffer
            int offset = 0;
            for (int k = 1 + pick(4); k > 0; --k) {
                const KEY_ADDRESS key = randomKey(4);
                _RCP_VAR_PRO e;
                e.protocolId = 1, e.reg = key.reg, e.address = key.address, e.length = key.length;
                e.bufferOffset = offset, offset += 2 * e.length + 2;
                entries.append(e);
            }
            s.api().setRcpAddress(entries);
            // The buffer is the runtime's again once the request byte is back at 0.
            const bool download = pick(2) == 0;
            for (int w = 0; download && w < offset; ++w)
                rt.recipeBuffer()[w] = static_cast<unsigned short>(pick(2) ? pick(2) : pick(65536));
            recipeAsked = download ? 1 : 2;
            if (pick(2) == 0) s.api().addrMerge(keys);  // re-registered while the transfer runs
            const auto deadline = std::chrono::steady_clock::now() + 20s;
            while (recipeAsked != 0) {
                if (std::chrono::steady_clock::now() > deadline) fail("a recipe request was never served");
                std::this_thread::sleep_for(300us);
            }
            unsigned sum = 0;
            for (int w = 0; w < offset; ++w) sum += rt.recipeBuffer()[w];
            (void)sum;
        }
        std::this_thread::sleep_for(2ms);
    }
}

void threads(Session& s) {
    const DriverApi& api = s.api();
    std::atomic<bool> quiet{false};  // the callback only reads back once set
    std::atomic<long> reports{0}, callbackWrites{0};
    thread_local int depth = 0;
    s.onChange([&](int context, int station, const QString& name, int address) {
        ++reports;
        if (context != 1 || depth > 0) return;  // recipe words and condition-read ends
        ++depth;
        const kvreg::Traits& t = kvreg::traits(kvreg::rowOf(name.toLatin1().constData()));
        unsigned char value[8] = {static_cast<unsigned char>(pick(2)), static_cast<unsigned char>(pick(256))};
        api.getData(station, name, address, t.unitLength(), value + 4);
        const int dice = quiet ? -1 : pick(20);
        QString reg = name;
        if (dice == 0) api.setData(station, &reg, address, t.unitLength(), value, 900), ++callbackWrites;
        if (dice == 1) {
            KEY_ADDRESS key;
            key.station = station, key.reg = name, key.address = address, key.length = 1;
            key.dataType = t.countsBits() ? -1 : 0;
            api.addConditionRead(key, 901);
        }
        --depth;
    });
    QList<KEY_ADDRESS> all = everything();
    api.addrMerge(all);
    bool requested = false;
    s.addExchangeObserver([&](const Exchange&) {
        Runtime& rt = s.runtime();
        if (recipeAsked != 0 && !requested) {
            recipeAsked == 1 ? rt.requestRecipeWrite() : rt.requestRecipeRead();
            requested = true;
        } else if (requested && !rt.recipeWritePending() && !rt.recipeReadPending()) {
            requested = false, recipeAsked = 0;
        }
    });
    std::atomic<bool> done{false};
    std::thread conductor([&] {
        std::thread a(screen, std::cref(api)), b(screen, std::cref(api)), r(registrations, std::ref(s));
        a.join(), b.join(), r.join();
        quiet = true, done = true;
    });
    s.runUntil([&] { return done.load(); }, 0, true);
    conductor.join();
    // Everything monitored again; then enough full passes in a row with no write or condition read.
    all = everything();
    const int blocks = api.addrMerge(all);
    int cyclicInARow = 0;
    s.addExchangeObserver([&](const Exchange& ex) { cyclicInARow = ex.cyclicRead() ? cyclicInARow + 1 : 0; });
    s.runUntil([&] { return cyclicInARow >= 3 * blocks + 4; }, 0, true);

    int compared = 0;
    for (const Area& a : kAreas) {
        for (int address = 0; address < a.units; ++address, ++compared) {
            unsigned char shown[4] = {};
            api.getData(0, QString::fromLatin1(a.reg), address, a.traits().unitLength(), shown);
            const uint32_t value = shown[0] | shown[1] << 8 | shown[2] << 16 | uint32_t(shown[3]) << 24;
            const auto truth = s.simulator()->memory().get(a.reg, static_cast<uint32_t>(address));
            if (!truth || *truth != value)
                std::fprintf(stderr, "stress: %s%d shows %u, the controller holds %u\n", a.reg, address,
                             value, truth ? *truth : 0u),
                    ++bad;
        }
    }
    std::printf("compared %d units; %lu transactions, %ld change reports, %ld writes from the callback\n",
                compared, static_cast<unsigned long>(s.stats().transactions()), reports.load(),
                callbackWrites.load());
}

// serve and gateway: the loop runs until stopLoop.
void serve(Session& s, const Catalogue& catalogue) {
    constexpr int kStreams = 40, kReaders = 6, kWriters = 4, kWritesEach = 25;
    std::vector<Address> addresses;
    for (const char* text : {"DM0", "DM1", "T0", "TC0", "R0.00", "DM100:4", "MR_bit10.05"}) {
        QString why;
        if (!parseAddress(catalogue, s.api(), QLatin1String(text), Access::Read, addresses.emplace_back(),
                          &why))
            fail(why.toStdString());
    }
    ServeOptions options;
    options.port = 0, options.allowWrites = true;
    ServeApp::Limits limits;
    limits.threads = 64, limits.maxStreams = 48, limits.queueLimit = 16;
    ServeApp app(s, catalogue, addresses, options, limits);
    std::string error;
    if (!app.bind(&error)) fail(error);
    const int port = std::stoi(app.origin().substr(app.origin().rfind(':') + 1));
    const EventHub::Handle stalled = app.subscribe(limits.maxStreams);  // never read: must lose messages
    std::vector<std::atomic<int>> changes(kStreams);
    std::atomic<int> writersDone{0}, readersDone{0};
    std::atomic<bool> stopReading{false};
    std::vector<std::thread> clients;
    for (auto& count : changes) {
        clients.emplace_back([&count, port] {  // counts the change events until the server ends the stream
            httplib::Client c("127.0.0.1", port);
            c.set_read_timeout(30, 0);
            std::string pending;
            c.Get("/api/events", [&](const char* data, size_t n) {
                pending.append(data, n);
                for (size_t at; (at = pending.find("event: change")) != std::string::npos; ++count)
                    pending.erase(0, at + 1);
                if (pending.size() > 64) pending.erase(0, pending.size() - 64);
                return true;
            });
        });
    }
    for (int i = 0; i < kReaders; ++i) {
        clients.emplace_back([&, port] {
            httplib::Client c("127.0.0.1", port);
            while (!stopReading)
                for (const char* path : {"/api/values", "/api/stats"})
                    if (auto r = c.Get(path); !r || r->status != 200) ++bad;
            ++readersDone;
        });
    }
    for (int k = 0; k < kWriters; ++k) {
        clients.emplace_back([&, port, k] {
            httplib::Client c("127.0.0.1", port);
            c.set_read_timeout(30, 0);
            const httplib::Headers headers{{"Authorization", "Bearer " + app.token()},
                                           {"Origin", app.origin()}};
            for (int i = 1; i <= kWritesEach; ++i) {
                const std::string body = "{\"address\": \"DM" + std::to_string(100 + k) +
                                         "\", \"value\": " + std::to_string(1000 * k + i) + "}";
                auto r = c.Post("/api/write", headers, body, "application/json");
                if (!r || r->status != 200)
                    std::fprintf(stderr, "stress: write %s: %d\n", body.c_str(), r ? r->status : -1), ++bad;
            }
            ++writersDone;
        });
    }
    clients.emplace_back([port] {  // leaves at once
        httplib::Client("127.0.0.1", port).Get("/api/events", [](const char*, size_t) { return false; });
    });
    const int slow = connectTo(static_cast<uint16_t>(port));  // asks for the stream, never reads it
    const char request[] = "GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (send(slow, request, sizeof request - 1, 0) < 0) fail("send");
    std::thread conductor([&] {  // the loop stops a while after the last write
        while (writersDone < kWriters) std::this_thread::sleep_for(50ms);
        std::this_thread::sleep_for(1s);
        stopReading = true;
        while (readersDone < kReaders) std::this_thread::sleep_for(10ms);
        stopLoop = true;
    });
    app.run();
    conductor.join();
    for (std::thread& t : clients) t.join();
    close(slow);
    for (int k = 0; k < kWriters; ++k) expectHeld(s, 100 + k, static_cast<uint32_t>(1000 * k + kWritesEach));
    for (const auto& c : changes)
        if (c == 0) std::fprintf(stderr, "stress: a stream saw no change\n"), ++bad;
    if (EventHub::dropped(stalled) == 0)
        std::fprintf(stderr, "stress: the stalled subscriber lost nothing\n"), ++bad;
    std::printf("%lu messages dropped by the stalled subscriber; ", EventHub::dropped(stalled));
}

void gateway(Session& s, const Catalogue& catalogue) {
    constexpr int kClients = 20, kRequestsEach = 300;  // every tenth a write
    std::vector<GatewayMap> maps;
    for (const char* text : {"DM0:100=hr0", "TC0:4=ir0", "R0.00:16=co0", "T0:8=di0"}) {
        QString why;
        if (!parseGatewayMap(catalogue, s.api(), QLatin1String(text), maps.emplace_back(), &why))
            fail(why.toStdString());
    }
    GatewayOptions options;
    options.port = 0, options.allowWrites = true;
    Gateway gw(s, maps, options);
    std::string error;
    if (!gw.bind(&error)) fail(error);
    const uint16_t port = gw.port();
    auto client = [port](int k) {
        modbus_t* c = modbus_new_tcp("127.0.0.1", port);
        modbus_set_response_timeout(c, 30, 0);
        if (modbus_connect(c) != 0) fail("connect");
        uint16_t regs[10], counter = 0;
        uint8_t bits[16];
        for (int i = 1; i <= kRequestsEach; ++i) {
            const int rc = i % 10 == 0 ? modbus_write_register(c, 20 + k, static_cast<uint16_t>(1000 * k + i))
                           : i % 10 == 5 ? modbus_read_bits(c, 0, 16, bits)
                                         : modbus_read_registers(c, 0, 10, regs);
            if (rc < 0)
                std::fprintf(stderr, "stress: client %d request %d: %s\n", k, i, modbus_strerror(errno)),
                    ++bad;
            if (rc == 10 && static_cast<uint16_t>(regs[0] - counter) > 0x8000) ++bad;  // DM0 went back
            if (rc == 10) counter = regs[0];
        }
        modbus_close(c);
        modbus_free(c);
    };
    std::thread conductor([&] {
        const int stalled = connectTo(port);  // asks for 2000 answers and never reads them
        const uint8_t read[] = {0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 100};
        for (int i = 0; i < 2000 && send(stalled, read, sizeof read, MSG_DONTWAIT) > 0; ++i) {
        }
        const int leaver = connectTo(port);  // leaves after half a request
        if (send(leaver, read, 5, 0) != 5) fail("send");
        close(leaver);
        modbus_t* probe = modbus_new_tcp("127.0.0.1", port);  // the clients start once every map was read
        uint16_t one = 0;
        if (modbus_connect(probe) != 0) fail("connect");
        while (modbus_read_registers(probe, 0, 1, &one) != 1) std::this_thread::sleep_for(20ms);
        modbus_close(probe);
        modbus_free(probe);
        std::vector<std::thread> clients;
        for (int k = 0; k < kClients; ++k) clients.emplace_back(client, k);
        for (std::thread& t : clients) t.join();
        stopLoop = true;
        close(stalled);
    });
    gw.run();
    conductor.join();
    for (int k = 0; k < kClients; ++k) expectHeld(s, 20 + k, static_cast<uint32_t>(1000 * k + kRequestsEach));
    std::printf("%s; ", gw.summary().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    signal(SIGPIPE, SIG_IGN);
    const std::string mode = argc == 2 ? argv[1] : "";
    if (mode != "threads" && mode != "serve" && mode != "gateway")
        fail("usage: kv3000_stress threads|serve|gateway");
    std::thread([] {
        std::this_thread::sleep_for(150s);
        fail("no end within 150 s: a deadlock, a livelock or a stall");
    }).detach();
    static DriverApi api;
    std::string error;
    if (!loadDriver(KV3000_DRIVER_PATH, api, &error)) fail(error);
    const Catalogue catalogue(api);
    HostOptions host;
    host.liveSimulator = mode != "threads";
    Session session(api, host);
    if (!session.start(&error)) fail(error);
    session.setStopFlag(&stopLoop);
    if (mode == "threads") {
        threads(session);
    } else {
        const auto started = std::chrono::steady_clock::now();
        mode == "serve" ? serve(session, catalogue) : gateway(session, catalogue);
        const double tps = session.stats().transactions() /
                           std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        std::printf("%.1f transactions/s\n", tps);
        if (tps < 20) std::fprintf(stderr, "stress: the loop made only %.1f transactions/s\n", tps), ++bad;
    }
    std::printf("%d bad answers or values\n", bad.load());
    return bad == 0 ? 0 : 1;
}
