// Threads against one driver: a communication loop polling the simulated
// controller over loopback TCP, two screens writing, reading and
// condition-reading random units, a registration thread re-registering
// monitored addresses and recipes and requesting recipe transfers, and a
// change callback that calls back into the driver. Bounded by a watchdog.
// At the end, with every write answered and a few full read cycles done, the
// data area must show exactly the controller's memory.
#include "kv3000_intf.h"
#include "kv3000_sim.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "protocol.h"

#include <QByteArray>
#include <QMutex>
#include <QMutexLocker>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kScreenOps = 6000;
constexpr int kRegistrations = 300;
constexpr auto kWatchdog = std::chrono::seconds(60);

struct Area {
    const char* reg;
    int units;  // addresses 0 .. units-1 (bit addresses for the bit kinds)
    const kvreg::Traits& traits() const { return kvreg::traits(kvreg::rowOf(reg)); }
};

// Small areas, so that screens, recipes and the callback collide often.
const Area kAreas[] = {
    {"DM", 64}, {"DM_bit", 64 * 16}, {"R", 64}, {"EM", 32}, {"TS", 8}, {"Z", 16},
};

// ---- the runtime's shared memory and its mutex ----

unsigned char shm[60117];
unsigned short recipeBuffer[4096];
QMutex shmMutex;

// TSan cannot see inside QMutex: the bytes are accessed atomically under it.
void setRequest(int position, unsigned char value) {
    QMutexLocker lock(&shmMutex);
    __atomic_store_n(shm + position, value, __ATOMIC_RELEASE);
}
unsigned char request(int position) {
    QMutexLocker lock(&shmMutex);
    return __atomic_load_n(shm + position, __ATOMIC_ACQUIRE);
}

std::atomic<bool> quiet{false};  // the callback only reads back once set
std::atomic<long> reports{0};
std::atomic<long> callbackWrites{0};
std::atomic<long> transactions{0};
std::atomic<long> readTimeouts{0};

void fail(const char* what) {
    std::fprintf(stderr, "stress: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

std::mt19937& rng() {
    thread_local std::mt19937 r(std::hash<std::thread::id>()(std::this_thread::get_id()) & 0xFFFF);
    return r;
}
int pick(int n) {
    return static_cast<int>(rng()() % static_cast<unsigned>(n));
}

// ---- the change callback ----

thread_local int callbackDepth = 0;

const kvreg::Traits& traitsOf(const QString& name) {
    return kvreg::traits(getIndexFromRegName(name));
}

void onChange(int context, int station, const QString& name, int address) {
    ++reports;
    if (context != 1 || callbackDepth > 0) return;  // recipe words and condition-read ends
    ++callbackDepth;
    unsigned char shown[8] = {};
    intf_getData(station, name, address, traitsOf(name).unitLength(), shown);
    if (!quiet.load()) {
        const int dice = pick(20);
        if (dice == 0) {
            QString reg = name;
            unsigned char value[4] = {static_cast<unsigned char>(pick(2)),
                                      static_cast<unsigned char>(pick(256)), 0, 0};
            intf_setData(station, &reg, address, traitsOf(name).unitLength(), value, 900);
            ++callbackWrites;
        } else if (dice == 1) {
            KEY_ADDRESS key;
            key.station = station;
            key.reg = name;
            key.address = address;
            key.length = 1;
            key.dataType = traitsOf(name).countsBits() ? -1 : 0;
            intf_addConditionRead(key, 901);
        }
    }
    --callbackDepth;
}

// ---- the communication loop over TCP ----

int connectTo(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) fail("socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail("connect to the simulator");
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

void sendAll(int fd, const unsigned char* p, int n) {
    while (n > 0) {
        const ssize_t k = send(fd, p, static_cast<size_t>(n), MSG_NOSIGNAL);
        if (k <= 0) fail("send to the simulator");
        p += k;
        n -= static_cast<int>(k);
    }
}

// The expected number of bytes, or what came before the line went quiet.
QByteArray receive(int fd, int expected) {
    QByteArray got;
    int waitMs = 2000;
    while (got.size() < expected) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, waitMs) <= 0) {
            ++readTimeouts;
            break;
        }
        char buf[2048];
        const ssize_t k =
            recv(fd, buf, std::min<size_t>(sizeof buf, static_cast<size_t>(expected - got.size())), 0);
        if (k <= 0) fail("the simulator closed the link");
        got.append(buf, static_cast<int>(k));
        waitMs = 100;
    }
    return got;
}

void communicationLoop(uint16_t port, const std::atomic<bool>& stop) {
    const int fd = connectTo(port);
    while (!stop.load()) {
        FRAME_PRO frame;
        if (intf_getSendFrame(&frame) == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        sendAll(fd, frame.frame, frame.sendLength);
        QByteArray reply = frame.replyLength > 0 ? receive(fd, frame.replyLength) : QByteArray();
        QString message;
        const int result = intf_dealRcvFrame(&reply, &message);
        if (result != 1) {
            std::fprintf(stderr, "stress: reply refused (%d): %s\n", result, qPrintable(message));
        }
        ++transactions;
    }
    close(fd);
}

// ---- screens ----

struct Unit {
    const Area* area;
    int address;
};

Unit randomUnit() {
    const Area& a = kAreas[pick(static_cast<int>(sizeof kAreas / sizeof kAreas[0]))];
    return {&a, pick(a.units)};
}

// Elements of a request of n units (words for word and dword registers).
int lengthOf(const Area& a, int units) {
    return a.traits().unitLength() * units;
}

void screen() {
    for (int op = 0; op < kScreenOps; ++op) {
        const Unit u = randomUnit();
        const int units = 1 + pick(std::min(4, u.area->units - u.address));
        const int len = lengthOf(*u.area, units);
        QString reg = QString::fromLatin1(u.area->reg);
        const int dice = pick(10);
        if (dice < 4) {
            unsigned char data[16];
            for (int i = 0; i < 16; ++i) {
                data[i] = static_cast<unsigned char>(u.area->traits().countsBits() ? pick(2) : pick(256));
            }
            intf_setData(0, &reg, u.address, len, data, op);
        } else if (dice < 8) {
            unsigned char shown[16];
            intf_getData(0, reg, u.address, len, shown);
        } else {
            KEY_ADDRESS key;
            key.reg = reg;
            key.address = u.address;
            key.length = len;
            key.dataType = u.area->traits().countsBits() ? -1 : 0;
            intf_addConditionRead(key, op);
        }
        // Paced, so that the screens' calls spread over many transactions.
        std::this_thread::sleep_for(std::chrono::microseconds(100 + pick(200)));
    }
}

// ---- registrations and recipe transfers ----

KEY_ADDRESS keyOf(const Area& a, int address, int len) {
    KEY_ADDRESS k;
    k.reg = QString::fromLatin1(a.reg);
    k.address = address;
    k.length = len;
    k.dataType = a.traits().countsBits() ? -1 : 0;
    return k;
}

// Every unit of every area, monitored.
QList<KEY_ADDRESS> everything() {
    QList<KEY_ADDRESS> keys;
    for (const Area& a : kAreas) {
        if (a.traits().kind == kvreg::Kind::BitInWord) continue;  // the words of DM cover them
        keys.append(keyOf(a, 0, lengthOf(a, a.units)));
    }
    return keys;
}

void waitUntilServed(int position) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (request(position) != 0) {
        if (Clock::now() > deadline) fail("a recipe request was never served");
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
}

void registrations() {
    for (int i = 0; i < kRegistrations; ++i) {
        QList<KEY_ADDRESS> keys;
        for (int k = 1 + pick(10); k > 0; --k) {
            const Unit u = randomUnit();
            keys.append(keyOf(*u.area, u.address,
                              lengthOf(*u.area, 1 + pick(std::min(6, u.area->units - u.address)))));
        }
        intf_addrMerge(keys);

        if (i % 3 == 0) {
            // Entries back to back in the buffer, two words per unit at most.
            QVector<_RCP_VAR_PRO> entries;
            int offset = 0;
            for (int k = 1 + pick(4); k > 0; --k) {
                const Unit u = randomUnit();
                _RCP_VAR_PRO e;
                e.protocolId = 1;
                e.reg = QString::fromLatin1(u.area->reg);
                e.address = u.address;
                e.length = lengthOf(*u.area, 1 + pick(std::min(4, u.area->units - u.address)));
                e.bufferOffset = offset;
                offset += 2 * e.length + 2;
                entries.append(e);
            }
            intf_setRcpAddress(entries);
            // The buffer is the runtime's again once the request byte is back at 0.
            const bool download = pick(2) == 0;
            if (download) {
                for (int w = 0; w < offset; ++w)
                    recipeBuffer[w] = static_cast<unsigned short>(pick(2) ? pick(2) : pick(65536));
            }
            const int position = download ? kvwire::SHM_RECIPE_WRITE : kvwire::SHM_RECIPE_READ;
            setRequest(position, 1);
            if (pick(2) == 0) intf_addrMerge(keys);  // re-registered while the transfer runs
            waitUntilServed(position);
            unsigned sum = 0;
            for (int w = 0; w < offset; ++w) sum += recipeBuffer[w];
            (void)sum;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// ---- final comparison ----

bool sameAsController(kvsim::Memory& plc) {
    bool same = true;
    int compared = 0;
    for (const Area& a : kAreas) {
        for (int address = 0; address < a.units; ++address) {
            unsigned char shown[4] = {};
            intf_getData(0, QString::fromLatin1(a.reg), address, a.traits().unitLength(), shown);
            const uint32_t value =
                shown[0] | shown[1] << 8 | shown[2] << 16 | static_cast<uint32_t>(shown[3]) << 24;
            const auto truth = plc.get(a.reg, static_cast<uint32_t>(address));
            ++compared;
            if (!truth || *truth != value) {
                std::fprintf(stderr, "stress: %s %d shows %u, the controller holds %u\n", a.reg, address,
                             value, truth ? *truth : 0u);
                same = false;
            }
        }
    }
    std::printf("compared %d units\n", compared);
    return same;
}

void quietMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

int main() {
    qInstallMessageHandler(quietMessages);
    const auto started = Clock::now();

    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(doneMutex);
        if (!doneSignal.wait_for(lock, kWatchdog, [&] { return done; }))
            fail("no end within 60 s: deadlock or livelock");
    });

    kvsim::Simulator sim;
    std::string error;
    if (!sim.startTcp("127.0.0.1", 0, &error)) fail(error.c_str());

    int status = -1;
    intf_initProperty(shm, nullptr, recipeBuffer, &status, "1#0#0#3#10", &shmMutex);
    intf_setAddrValueChangeCallBack(onChange);
    QList<KEY_ADDRESS> initial = everything();
    intf_addrMerge(initial);

    std::atomic<bool> stopLoop{false};
    std::thread loop(communicationLoop, sim.port(), std::cref(stopLoop));
    std::thread screenA(screen);
    std::thread screenB(screen);
    std::thread registrar(registrations);
    screenA.join();
    screenB.join();
    registrar.join();
    quiet = true;

    // Everything monitored again, registered while frames are on the wire.
    QList<KEY_ADDRESS> all = everything();
    const int blocks = intf_addrMerge(all);
    for (;;) {
        bool idle;
        {
            std::lock_guard<std::recursive_mutex> serial(driver.serial);
            std::lock_guard<std::mutex> writes(driver.mutex);
            idle = driver.writeList.isEmpty() && driver.conditionReadList.isEmpty();
        }
        if (idle) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const long from = transactions.load();
    while (transactions.load() < from + 3L * blocks + 4)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    stopLoop = true;
    loop.join();

    const bool same = sameAsController(sim.memory());
    sim.stop();
    {
        std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
    }
    doneSignal.notify_all();
    watchdog.join();

    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::printf(
        "%ld transactions, %ld change reports, %ld writes from the callback, %ld read timeouts, %.1f s\n",
        transactions.load(), reports.load(), callbackWrites.load(), readTimeouts.load(), seconds);
    if (!same) {
        std::fprintf(stderr, "stress: the data area differs from the controller's memory\n");
        return 1;
    }
    return 0;
}
