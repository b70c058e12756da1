// Blocking loopback TCP for the end-to-end benchmark programs: one server,
// one client, one connection, Nagle off on both ends.
#ifndef KV3000_E2E_NET_H
#define KV3000_E2E_NET_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <time.h>

namespace e2e {

inline void die(const char* what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

inline void noDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Listens on 127.0.0.1 at a free port, prints "port N" and returns the one
// accepted connection.
inline int serveOne() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) die("socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("bind");
    if (listen(s, 1) != 0) die("listen");
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    std::printf("port %u\n", unsigned(ntohs(a.sin_port)));
    std::fflush(stdout);
    const int c = accept(s, nullptr, nullptr);
    if (c < 0) die("accept");
    close(s);
    noDelay(c);
    return c;
}

inline int connectTo(int port) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) die("socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port));
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("connect");
    noDelay(s);
    return s;
}

inline bool sendAll(int fd, const void* data, size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= size_t(w);
    }
    return true;
}

inline bool recvExact(int fd, void* data, size_t n) {
    char* p = static_cast<char*>(data);
    while (n > 0) {
        const ssize_t r = recv(fd, p, n, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

using Clock = std::chrono::steady_clock;

inline double seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// CPU time this process has used, user and system, in seconds.
inline double processCpu() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Runs `once` (one round trip, false on a closed link) for a warm-up of
// 0.3 s, then for `duration` seconds, and prints the rate of the second part
// on stdout, and this side's CPU time per round trip on stderr: the part of
// a round trip that is this process's own, less noisy than the rate.
template <class F>
int timedLoop(const char* name, double duration, F once) {
    const Clock::time_point warm = Clock::now();
    while (seconds(warm, Clock::now()) < 0.3)
        if (!once()) return 1;
    long long count = 0;
    const double cpu = processCpu();
    const Clock::time_point start = Clock::now();
    Clock::time_point now = start;
    while (seconds(start, now) < duration) {
        for (int i = 0; i < 64; ++i) {
            if (!once()) return 1;
            ++count;
        }
        now = Clock::now();
    }
    std::printf("%s %.1f\n", name, double(count) / seconds(start, now));
    std::fprintf(stderr, "cpu per round trip: %.3f us\n", (processCpu() - cpu) * 1e6 / double(count));
    return 0;
}

inline std::string hex(const unsigned char* p, int n) {
    std::string s;
    char b[4];
    for (int i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", p[i]);
        s += b;
    }
    return s;
}

}  // namespace e2e

#endif
