#include "gateway.h"

#include "output.h"

#include <QStringList>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvhost {

namespace {

constexpr int kBacklog = 64;
constexpr int kChunkUnits = 240;         // units queued at a time by one write
constexpr int kSendTimeoutSeconds = 10;  // a client that reads nothing for this long is dropped
constexpr int kRestWaitMs = 500;         // for the rest of a request whose header says it is longer

std::string peerName(int fd) {
    sockaddr_in a{};
    socklen_t n = sizeof a;
    char ip[INET_ADDRSTRLEN] = "?";
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
        inet_ntop(AF_INET, &a.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(a.sin_port));
}

// libmodbus frames a request by its function code; the header's length
// may promise more (a function it does not know, or trailing bytes). Those
// bytes are read and left out, so that the next request starts where it
// should. false when they do not come or cannot belong to one request.
bool readRest(int fd, const uint8_t* adu, int length) {
    int left = 6 + (adu[4] << 8 | adu[5]) - length;
    if (left <= 0) return true;
    if (length + left > MODBUS_TCP_MAX_ADU_LENGTH) return false;
    uint8_t rest[MODBUS_TCP_MAX_ADU_LENGTH];
    while (left > 0) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kRestWaitMs) != 1) return false;
        const ssize_t n = recv(fd, rest, static_cast<size_t>(left), 0);
        if (n <= 0) return false;
        left -= static_cast<int>(n);
    }
    return true;
}

// "DM100 = 1234", "R0.00:3 = 1,0,1": the values as the controller's units.
QString unitsText(const GatewayMap& map, const UnitWrite& w) {
    Address a = map.address;
    a.address += w.firstUnit;
    QString name = a.unitName(0);
    if (w.values.size() > 1) name += QStringLiteral(":%1").arg(w.values.size());
    QStringList values;
    for (size_t i = 0; i < w.values.size() && i < 8; ++i) values << QString::number(w.values[i]);
    if (w.values.size() > 8) values << QStringLiteral("... (%1 values)").arg(w.values.size());
    return name + QStringLiteral(" = ") + values.join(QLatin1Char(','));
}

std::vector<Address> addressesOf(const std::vector<GatewayMap>& maps) {
    std::vector<Address> out;
    for (const GatewayMap& m : maps) out.push_back(m.address);
    return out;
}

}  // namespace

Gateway::Gateway(Session& session, std::vector<GatewayMap> maps, const GatewayOptions& options)
    : session_(session), options_(options), tables_(maps), watcher_(session, addressesOf(maps)) {}

Gateway::~Gateway() {
    stop();
    if (observer_ >= 0) session_.removeExchangeObserver(observer_);
    session_.onLinkEvent(nullptr);
    if (listenFd_ >= 0) ::close(listenFd_);
    if (listener_) modbus_free(listener_);
    for (int fd : wake_)
        if (fd >= 0) ::close(fd);
}

bool Gateway::bind(std::string* error) {
    const std::string where = options_.host + ":" + std::to_string(options_.port);
    listener_ = modbus_new_tcp(options_.host.c_str(), options_.port);
    listenFd_ = listener_ ? modbus_tcp_listen(listener_, kBacklog) : -1;
    if (listenFd_ < 0) {
        if (error) *error = "cannot listen on " + where + ": " + std::strerror(errno);
        return false;
    }
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
    // A client that leaves between poll and accept must not block the acceptor.
    fcntl(listenFd_, F_SETFL, fcntl(listenFd_, F_GETFL) | O_NONBLOCK);
    if (pipe2(wake_, O_CLOEXEC) != 0) {
        if (error) *error = std::string("cannot make a pipe: ") + std::strerror(errno);
        return false;
    }
    return true;
}

std::string Gateway::where() const {
    return options_.host + ":" + std::to_string(port_);
}

void Gateway::run() {
    session_.onLinkEvent([](LinkEvent e, const std::string& text) {
        if (e == LinkEvent::ConnectFailed) return;
        const bool up = e == LinkEvent::Connected;
        logLine((up ? QStringLiteral("connected: ") : QStringLiteral("link lost: ")) +
                    QString::fromStdString(text),
                true);
    });
    observer_ = session_.addExchangeObserver([this](const Exchange& ex) {
        if (ex.result != KV_DEAL_ABANDONED) return tracker_.observe(ex);
        // The link's sentence is worked out here, on the loop thread that keeps the link's state.
        Exchange explained = ex;
        explained.message = session_.explain(ex.message);
        tracker_.observe(explained);
    });
    blocks_ = watcher_.registerAll();
    printLine(
        QStringLiteral("serving %1 map(s) in %2 read block(s) over %3, %4, %5; Ctrl-C stops")
            .arg(tables_.maps().size())
            .arg(blocks_)
            .arg(QString::fromStdString(session_.linkDescription()))
            .arg(options_.unit < 0 ? QStringLiteral("any unit id")
                                   : QStringLiteral("unit id %1").arg(options_.unit))
            .arg(options_.allowWrites ? QStringLiteral("writes allowed") : QStringLiteral("read only")));
    acceptor_ = std::thread([this] { acceptClients(); });
    session_.runUntil(
        [this] {
            tick();
            return false;
        },
        0, true);
    stop();
}

void Gateway::tick() {
    const std::vector<Watcher::Change> changes = watcher_.takeUpdates(blocks_);
    if (!changes.empty()) publish(changes);
    const int attempts = session_.options().retries;
    for (const Watcher::BlockEvent& e : watcher_.takeBlockEvents())
        logLine(e.block + (e.failing ? QStringLiteral(
                                           " failing: no valid reply after %1 attempt(s); its values stay "
                                           "the last read")
                                           .arg(attempts)
                                     : QStringLiteral(" read again")),
                e.failing);
    KEY_ADDRESS key;
    int id = 0;
    if (tracker_.barrierDue(key, id)) session_.api().addConditionRead(key, id);
}

void Gateway::publish(const std::vector<Watcher::Change>& changes) {
    const Address* base = watcher_.addresses().data();
    for (const Watcher::Change& c : changes)
        tables_.store(static_cast<size_t>(c.address - base), c.unit, c.value);
}

void Gateway::acceptClients() {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            logLine(QStringLiteral("modbus: cannot wait for clients: %1").arg(std::strerror(errno)), true);
            return;
        }
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        reap(false);
        const int fd = modbus_tcp_accept(listener_, &listenFd_);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) continue;
            // Out of descriptors, say: wait a little (or for the stop) before trying again.
            logLine(QStringLiteral("modbus: cannot accept a client: %1").arg(std::strerror(errno)), true);
            poll(&fds[1], 1, 200);
            continue;
        }
        const std::string peer = peerName(fd);
        if (clientsNow_.load() >= kMaxClients) {
            ::close(fd);
            ++clientsRefused_;
            logLine(QStringLiteral("modbus client %1 refused: %2 clients are connected already")
                        .arg(QString::fromStdString(peer))
                        .arg(kMaxClients),
                    true);
            continue;
        }
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const timeval sendTimeout{kSendTimeoutSeconds, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
        ++clientsTotal_;
        const int now = ++clientsNow_;
        int most = clientsMost_.load();
        while (now > most && !clientsMost_.compare_exchange_weak(most, now)) {
        }
        clients_.push_back(std::make_unique<Client>());
        Client& c = *clients_.back();
        c.fd = fd;
        c.peer = peer;
        c.thread = std::thread([this, &c] { serveClient(c); });
    }
}

void Gateway::serveClient(Client& client) {
    // The address given here is not used: the context only frames and answers on the socket.
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", port_);
    if (ctx && modbus_set_socket(ctx, client.fd) == 0) {
        GatewayRequests requests(tables_, *this, GatewayPolicy{options_.allowWrites, options_.unit},
                                 counters_, client.peer);
        uint8_t adu[MODBUS_TCP_MAX_ADU_LENGTH];
        for (;;) {
            const int n = modbus_receive(ctx, adu);
            if (n < 0) break;  // closed, reset, or a request cut short
            if (n == 0) continue;
            if (!readRest(client.fd, adu, n) || requests.answer(ctx, adu, n) < 0) break;
        }
    }
    if (ctx) modbus_free(ctx);  // the socket is closed by reap()
    --clientsNow_;
    client.done = true;
}

void Gateway::reap(bool all) {
    for (auto it = clients_.begin(); it != clients_.end();) {
        Client& c = **it;
        if (!all && !c.done.load()) {
            ++it;
            continue;
        }
        if (c.thread.joinable()) c.thread.join();
        ::close(c.fd);
        it = clients_.erase(it);
    }
}

void Gateway::stop() {
    if (!acceptor_.joinable()) return;
    const char byte = 1;
    if (::write(wake_[1], &byte, 1) != 1) logLine(QStringLiteral("modbus: cannot stop the acceptor"), true);
    acceptor_.join();
    tracker_.close();
    for (const auto& c : clients_) shutdown(c->fd, SHUT_RDWR);
    reap(true);
}

bool Gateway::write(const std::vector<UnitWrite>& writes, const std::string& peer) {
    const HostOptions& o = session_.options();
    const std::vector<GatewayMap>& maps = tables_.maps();
    QStringList what;
    QString failure;
    for (const UnitWrite& w : writes) {
        const GatewayMap& map = maps[w.map];
        const RegisterInfo& reg = *map.address.reg;
        what << unitsText(map, w);
        for (size_t from = 0; failure.isEmpty() && from < w.values.size(); from += kChunkUnits) {
            const int n = static_cast<int>(std::min<size_t>(kChunkUnits, w.values.size() - from));
            Address a = map.address;
            a.address += w.firstUnit + static_cast<int>(from);
            a.count = n;
            // Each frame may take every attempt, and so may a read on the wire and the check behind the
            // write.
            const auto wait =
                std::chrono::milliseconds(static_cast<int64_t>(o.retries) * o.timeoutMs * (2 + n));
            const auto deadline = std::chrono::steady_clock::now() + wait;
            std::vector<unsigned char> buffer(static_cast<size_t>(a.bufferBytes()), 0);
            for (int i = 0; i < n; ++i)
                storeValue(reg, w.values[from + static_cast<size_t>(i)], buffer.data() + i * reg.unitBytes());
            const WriteTracker::Outcome outcome =
                tracker_.write(session_.api(), a, buffer.data(), o.localWriteOnly, deadline);
            switch (outcome.state) {
                case WriteTracker::State::Written:
                    break;
                case WriteTracker::State::Failed:
                    failure = QStringLiteral("failed: ") + outcome.message;
                    break;
                case WriteTracker::State::Dropped:
                    failure = QStringLiteral(
                        "not carried out: the driver replaced it with a later write to the same "
                        "units");
                    break;
                case WriteTracker::State::TimedOut:
                    failure = QStringLiteral("not confirmed within %1 ms; it may still be written")
                                  .arg(wait.count());
                    break;
                case WriteTracker::State::NotQueued:
                    failure = QStringLiteral("not queued: the driver's write queue stayed full");
                    break;
                case WriteTracker::State::Pending:
                case WriteTracker::State::Closed:
                    failure = QStringLiteral("not confirmed: the host is shutting down");
                    break;
            }
        }
        if (!failure.isEmpty()) break;
    }
    logLine(QStringLiteral("modbus write %1 from %2: %3")
                .arg(what.join(QStringLiteral(", ")), QString::fromStdString(peer),
                     failure.isEmpty()
                         ? (o.localWriteOnly ? QStringLiteral("shown locally, not sent (local write only)")
                                             : QStringLiteral("written"))
                         : failure + QStringLiteral(" (exception 4)")),
            !failure.isEmpty());
    return failure.isEmpty();
}

std::string Gateway::summary() const {
    QStringList codes;
    uint64_t exceptions = 0;
    for (size_t code = 1; code < counters_.exceptions.size(); ++code) {
        const uint64_t n = counters_.exceptions[code].load();
        exceptions += n;
        if (n) codes << QStringLiteral("%1 of code %2").arg(n).arg(code);
    }
    QString text = QStringLiteral("modbus: %1 requests (%2 reads, %3 writes), %4 exceptions")
                       .arg(counters_.requests.load())
                       .arg(counters_.reads.load())
                       .arg(counters_.writes.load())
                       .arg(exceptions);
    if (!codes.isEmpty()) text += QStringLiteral(" (") + codes.join(QStringLiteral(", ")) + QLatin1Char(')');
    text +=
        QStringLiteral(", %1 clients (%2 at most at once").arg(clientsTotal_.load()).arg(clientsMost_.load());
    if (clientsRefused_.load()) text += QStringLiteral(", %1 refused").arg(clientsRefused_.load());
    return (text + QLatin1Char(')')).toStdString();
}

int runGateway(Session& session, const PreparedCommand& cmd, const GatewayOptions& options) {
    Gateway gateway(session, cmd.maps, options);
    std::string error;
    if (!gateway.bind(&error)) {
        printError(error);
        return 1;
    }
    printLine("modbus on " + gateway.where());
    gateway.run();
    session.setSummaryExtra("; " + gateway.summary());
    return 0;
}

}  // namespace kvhost
