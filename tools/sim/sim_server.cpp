#include "sim_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>

namespace kvsim {

namespace {

using Clock = std::chrono::steady_clock;

enum SourceKind { LISTENER = 0, TCP_CLIENT = 1, PTY = 2 };

constexpr auto kLivePeriod = std::chrono::milliseconds(100);
constexpr double kPi = 3.14159265358979323846;
constexpr size_t kMaxQueuedBytes = 1 << 20;  // a pty nobody reads must not grow without bound
constexpr int kReadsPerWakeup = 16;          // so that one chatty client cannot starve the others

bool setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

std::string numericHost(const sockaddr* sa) {
    char buf[INET6_ADDRSTRLEN] = "";
    if (sa->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, buf, sizeof buf);
    } else if (sa->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, buf, sizeof buf);
    }
    return buf;
}

}  // namespace

struct Simulator::Link {
    struct Chunk {
        Clock::time_point due;
        std::vector<uint8_t> bytes;
        size_t offset = 0;
        bool close = false;
    };

    Link(int f, int k, Memory& mem, FaultInjector* faults, Counters* counters, Tap tap)
        : fd(f), kind(k), session(mem, faults, counters, tap) {}

    int fd;
    int kind;
    Session session;
    std::deque<Chunk> out;
    size_t queued = 0;
    Clock::time_point lastInput = Clock::now();
    Clock::time_point lastDue = Clock::now();
    bool closing = false;  // a close is scheduled: read nothing more
    bool dead = false;

    void schedule(Delivery d, Clock::time_point now) {
        for (Write& w : d.writes) {
            lastDue = std::max(lastDue, now) + std::chrono::milliseconds(w.pauseMs);
            queued += w.bytes.size();
            out.push_back(Chunk{lastDue, std::move(w.bytes), 0, false});
        }
        if (d.close) {
            lastDue = std::max(lastDue, now);
            out.push_back(Chunk{lastDue, {}, 0, true});
            if (kind != PTY) closing = true;
        }
        if (queued > kMaxQueuedBytes) {
            out.clear();
            queued = 0;
        }
    }

    bool writeReady(Clock::time_point now) const { return !out.empty() && out.front().due <= now; }

    void flush(Clock::time_point now) {
        while (!dead && writeReady(now)) {
            Chunk& c = out.front();
            if (c.close) {
                out.pop_front();
                if (kind == PTY) {
                    session.reset();  // a line cannot be closed: it goes quiet and forgets
                } else {
                    dead = true;
                }
                continue;
            }
            while (c.offset < c.bytes.size()) {
                const size_t left = c.bytes.size() - c.offset;
                const ssize_t n = kind == PTY ? ::write(fd, c.bytes.data() + c.offset, left)
                                              : ::send(fd, c.bytes.data() + c.offset, left, MSG_NOSIGNAL);
                if (n > 0) {
                    c.offset += static_cast<size_t>(n);
                    continue;
                }
                if (n < 0 && errno == EINTR) continue;
                if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
                if (kind != PTY) dead = true;
                return;
            }
            queued -= c.bytes.size();
            out.pop_front();
        }
    }
};

Simulator::Simulator(const Options& options) : options_(options), faults_(options.faults, options.seed) {
    if (pipe2(wakePipe_, O_NONBLOCK | O_CLOEXEC) != 0) wakePipe_[0] = wakePipe_[1] = -1;
}

Simulator::~Simulator() {
    stop();
    for (int& fd : wakePipe_) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

Stats Simulator::stats() const {
    Stats s = counters_.snapshot();
    for (int i = 0; i < FAULT_KINDS; ++i) s.faults[i] = faults_.count(static_cast<Fault>(i));
    if (options_.replay) {
        s.replaying = true;
        s.replayed = options_.replay->replayed();
        s.fromMemory = options_.replay->fromMemory();
    }
    return s;
}

bool Simulator::startTcp(const std::string& host, uint16_t port, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (host.empty()) return fail("no address to listen on");
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // Numeric addresses only (and "localhost"): starting never waits on a name service.
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV | AI_NUMERICHOST;
    addrinfo* list = nullptr;
    const std::string service = std::to_string(port);
    const std::string numeric = host == "localhost" ? "127.0.0.1" : host;
    const int rc = getaddrinfo(numeric.c_str(), service.c_str(), &hints, &list);
    if (rc != 0 || !list) return fail("cannot resolve '" + host + "': " + gai_strerror(rc));
    std::string why = "no address";
    int fd = -1;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) {
            why = std::strerror(errno);
            continue;
        }
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(fd, ai->ai_addr, ai->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0 &&
            setNonBlocking(fd))
            break;
        why = std::strerror(errno);
        ::close(fd);
        fd = -1;
    }
    freeaddrinfo(list);
    if (fd < 0) return fail("cannot listen on " + host + ":" + service + ": " + why);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
    const sockaddr* sa = reinterpret_cast<const sockaddr*>(&bound);
    host_ = numericHost(sa);
    port_ = ntohs(sa->sa_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(sa)->sin6_port
                                            : reinterpret_cast<const sockaddr_in*>(sa)->sin_port);
    addSource(fd, LISTENER);
    return true;
}

bool Simulator::startPty(std::string* error) {
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        if (error) *error = std::string("cannot open a pseudo-terminal: ") + std::strerror(errno);
        return false;
    }
    termios tio{};
    if (tcgetattr(slave, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(slave, TCSANOW, &tio);
    }
    const char* name = ttyname(slave);
    ptyPath_ = name ? name : "";
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(slave, F_SETFD, FD_CLOEXEC);
    setNonBlocking(master);
    // The simulator keeps the slave side open itself, so that the master
    // does not see a hang-up while no host has the line open.
    if (ptySlave_ >= 0) ::close(ptySlave_);
    ptySlave_ = slave;
    addSource(master, PTY);
    return true;
}

void Simulator::addSource(int fd, int kind) {
    {
        std::lock_guard<std::mutex> guard(pendingMutex_);
        pendingSources_.emplace_back(fd, kind);
    }
    ensureThread();
    wake();
}

void Simulator::ensureThread() {
    if (thread_.joinable()) return;
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
}

void Simulator::wake() {
    if (wakePipe_[1] < 0) return;
    const uint8_t b = 1;
    ssize_t n;
    do n = ::write(wakePipe_[1], &b, 1);
    while (n < 0 && errno == EINTR);
}

void Simulator::stop() {
    if (thread_.joinable()) {
        stopping_ = true;
        wake();
        thread_.join();
    }
    {
        std::lock_guard<std::mutex> guard(pendingMutex_);
        for (const auto& p : pendingSources_) ::close(p.first);
        pendingSources_.clear();
    }
    if (ptySlave_ >= 0) ::close(ptySlave_);
    ptySlave_ = -1;
}

void Simulator::liveStep() {
    ++liveTicks_;
    const uint64_t t = liveTicks_;
    auto guard = memory_.lock();
    auto& dm = memory_.words(kvwire::AREA_DM);
    dm[0] = static_cast<uint16_t>(dm[0] + 1);
    dm[1] = static_cast<uint16_t>(
        std::lround(500.0 + 500.0 * std::sin(2.0 * kPi * static_cast<double>(t % 100) / 100.0)));
    // T0 runs up to its set value of 5 s in 100 ms steps, keeps its contact
    // closed for one second, then starts again.
    TimerRecord& t0 = memory_.timers(kvwire::AREA_T)[0];
    t0.set = 50;
    const uint32_t phase = static_cast<uint32_t>(t % 60);
    t0.current = std::min<uint32_t>(phase, t0.set);
    t0.contact = phase >= t0.set;
    if (t % 10 == 0) memory_.words(kvwire::AREA_R)[0] ^= 1u;
}

void Simulator::run() {
    std::vector<int> listeners;
    std::vector<std::unique_ptr<Link>> links;
    auto nextLive = Clock::now() + kLivePeriod;
    const auto frameTimeout = std::chrono::milliseconds(std::max(1, options_.frameTimeoutMs));
    std::vector<pollfd> fds;
    std::vector<uint8_t> inbuf(4096);

    while (!stopping_) {
        {
            std::lock_guard<std::mutex> guard(pendingMutex_);
            for (const auto& p : pendingSources_) {
                if (p.second == LISTENER) {
                    listeners.push_back(p.first);
                } else {
                    links.push_back(
                        std::make_unique<Link>(p.first, p.second, memory_, &faults_, &counters_, tap()));
                }
            }
            pendingSources_.clear();
        }

        auto now = Clock::now();
        auto until = now + std::chrono::milliseconds(200);
        fds.clear();
        fds.push_back(pollfd{wakePipe_[0], POLLIN, 0});
        for (int fd : listeners) fds.push_back(pollfd{fd, POLLIN, 0});
        for (const auto& l : links) {
            short events = l->closing ? 0 : POLLIN;
            if (l->writeReady(now)) events |= POLLOUT;
            fds.push_back(pollfd{l->fd, events, 0});
            if (!l->out.empty()) until = std::min(until, l->out.front().due);
            if (l->session.hasPending()) until = std::min(until, l->lastInput + frameTimeout);
        }
        if (options_.live) until = std::min(until, nextLive);
        const auto waitMs = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count();
        const int timeout = static_cast<int>(std::max<int64_t>(0, waitMs + (until > now ? 1 : 0)));
        const int rc = ::poll(fds.data(), fds.size(), timeout);
        if (rc < 0 && errno != EINTR) break;
        if (stopping_) break;
        now = Clock::now();

        if (rc > 0 && (fds[0].revents & POLLIN)) {
            uint8_t drain[64];
            while (::read(wakePipe_[0], drain, sizeof drain) > 0) {
            }
        }

        for (size_t i = 0; rc > 0 && i < listeners.size(); ++i) {
            if (!(fds[1 + i].revents & POLLIN)) continue;
            for (;;) {
                const int c = ::accept4(listeners[i], nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (c < 0) break;
                const auto clients = std::count_if(links.begin(), links.end(),
                                                   [](const auto& l) { return l->kind == TCP_CLIENT; });
                if (clients >= options_.maxClients) {
                    ::close(c);
                    continue;
                }
                const int one = 1;
                setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                counters_.addConnection();
                links.push_back(std::make_unique<Link>(c, TCP_CLIENT, memory_, &faults_, &counters_, tap()));
            }
        }

        // Links added by accept above have no pollfd yet; they are polled next round.
        const size_t polled = fds.size() - 1 - listeners.size();
        for (size_t i = 0; i < links.size(); ++i) {
            Link& l = *links[i];
            const short revents = (rc > 0 && i < polled) ? fds[1 + listeners.size() + i].revents : 0;
            if (l.closing && (revents & (POLLHUP | POLLERR))) l.dead = true;
            if (!l.closing && (revents & (POLLIN | POLLHUP | POLLERR))) {
                for (int r = 0; r < kReadsPerWakeup && !l.closing && !l.dead; ++r) {
                    const ssize_t n = ::read(l.fd, inbuf.data(), inbuf.size());
                    if (n > 0) {
                        l.lastInput = now;
                        l.schedule(l.session.feed(inbuf.data(), static_cast<size_t>(n)), now);
                        if (static_cast<size_t>(n) < inbuf.size()) break;
                        continue;
                    }
                    if (n < 0 && errno == EINTR) continue;
                    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
                    // End of stream or error. A pty's master reports EIO while
                    // no slave is open, which cannot happen while we hold one.
                    if (l.kind != PTY) l.dead = true;
                    break;
                }
            }
            l.flush(now);
            if (l.session.hasPending() && now - l.lastInput >= frameTimeout) l.session.expire();
        }

        for (auto& l : links) {
            if (l->dead) ::close(l->fd);
        }
        links.erase(std::remove_if(links.begin(), links.end(), [](const auto& l) { return l->dead; }),
                    links.end());

        if (options_.live && now >= nextLive) {
            liveStep();
            nextLive = now + kLivePeriod;
        }
    }

    for (auto& l : links) ::close(l->fd);
    for (int fd : listeners) ::close(fd);
}

}  // namespace kvsim
