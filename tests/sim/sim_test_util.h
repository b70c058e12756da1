// Helpers for the simulator tests: request frames built from the documented
// layout with a check byte computed here, reply envelope checks, and a
// blocking loopback client.
#ifndef KV3000_SIM_TEST_UTIL_H
#define KV3000_SIM_TEST_UTIL_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace simtest {

using Bytes = std::vector<uint8_t>;

// Byte sum, negated when above 255; low byte.
inline uint8_t check(const uint8_t* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum += p[i];
    if (sum > 255) sum = 0u - sum;
    return static_cast<uint8_t>(sum);
}

// 06 01 00 FF L <cmd> chk 04
inline Bytes request(const Bytes& cmd) {
    Bytes f{0x06, 0x01, 0x00, 0xFF, static_cast<uint8_t>(cmd.size())};
    for (uint8_t b : cmd) f.push_back(b);
    f.push_back(check(f.data() + 3, f.size() - 3));
    f.push_back(0x04);
    return f;
}

inline void put16(Bytes& b, uint32_t v) {
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v));
}
inline void put32(Bytes& b, uint32_t v) {
    put16(b, v >> 16);
    put16(b, v);
}

inline Bytes readRequest(uint8_t area, uint32_t count, uint32_t start) {
    Bytes c{0x1E, 0x00, 0x00, area, 0x00, 0x00};
    put16(c, count);
    put32(c, start);
    return request(c);
}

// values are 16-bit (width 2) or 32-bit (width 4)
inline Bytes wordWriteRequest(uint8_t area, uint32_t start, const std::vector<uint32_t>& values, int width) {
    Bytes c{0x1E, 0x01, 0x00, area, 0x00, 0x00};
    put16(c, static_cast<uint32_t>(values.size()));
    put32(c, start);
    for (uint32_t v : values) width == 4 ? put32(c, v) : put16(c, v);
    return request(c);
}

inline Bytes bitRequest(bool set, uint8_t area, uint32_t address) {
    Bytes c{static_cast<uint8_t>(set ? 0x32 : 0x33), 0x00, 0x01, area};
    put16(c, address);
    return request(c);
}

inline Bytes valueRequest(uint8_t warea, uint32_t address, uint32_t value) {
    Bytes c{0x18, 0x00, 0x01, warea};
    put16(c, address);
    put32(c, value);
    return request(c);
}

inline const Bytes kAck{0x06};
inline const Bytes kHandshake1{0x01, 0x00, 0xFF, 0x02, 0x07, 0x01, 0xF7, 0x04};
inline const Bytes kHandshake2{0x01, 0x00, 0xFF, 0x06, 0x20, 0x00, 0x01, 0x06, 0x00, 0x00, 0xD4, 0x04};

// What the host checks: size, 06 first, 04 last, check byte over 3..size-3.
inline ::testing::AssertionResult goodReply(const Bytes& r, size_t size) {
    if (r.size() != size)
        return ::testing::AssertionFailure() << "size " << r.size() << ", expected " << size;
    if (size < 6) return ::testing::AssertionFailure() << "too short";
    if (r[0] != 0x06) return ::testing::AssertionFailure() << "first byte not 06";
    if (r[size - 1] != 0x04) return ::testing::AssertionFailure() << "last byte not 04";
    if (check(r.data() + 3, size - 5) != r[size - 2])
        return ::testing::AssertionFailure() << "check byte wrong";
    return ::testing::AssertionSuccess();
}

inline bool isRefusal(const Bytes& r) {
    return r.size() == 8 && r[0] == 0x06 && r[4] == 0x15 && r[7] == 0x04 && check(r.data() + 3, 3) == r[6];
}

inline uint32_t be16(const Bytes& r, size_t at) {
    return static_cast<uint32_t>(r.at(at)) << 8 | r.at(at + 1);
}
inline uint32_t be32(const Bytes& r, size_t at) {
    return be16(r, at) << 16 | be16(r, at + 2);
}

// Reads from fd until n bytes arrived, the deadline passed or the other end
// closed; `reads` counts the reads that returned bytes.
inline Bytes readFd(int fd, size_t n, int timeoutMs = 2000, int* reads = nullptr, bool* closed = nullptr) {
    Bytes out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        uint8_t buf[4096];
        const ssize_t got = ::read(fd, buf, std::min(sizeof buf, n - out.size()));
        if (got <= 0) {
            if (closed) *closed = true;
            break;
        }
        if (reads) ++*reads;
        out.insert(out.end(), buf, buf + got);
    }
    return out;
}

inline bool writeAll(int fd, const Bytes& b) {
    size_t off = 0;
    while (off < b.size()) {
        const ssize_t n = ::send(fd, b.data() + off, b.size() - off, MSG_NOSIGNAL);
        const ssize_t w = n < 0 && errno == ENOTSOCK ? ::write(fd, b.data() + off, b.size() - off) : n;
        if (w <= 0) return false;
        off += static_cast<size_t>(w);
    }
    return true;
}

// Opens a pseudo-terminal's line in raw mode; -1 on failure.
inline int openRawLine(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios tio{};
    if (fd < 0 || tcgetattr(fd, &tio) != 0) return fd;
    cfmakeraw(&tio);
    cfsetspeed(&tio, B9600);
    tio.c_cflag |= PARENB;
    tcsetattr(fd, TCSANOW, &tio);
    return fd;
}

// Loopback client with deadlines.
class Client {
public:
    explicit Client(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
            setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        else
            ::close(std::exchange(fd_, -1));
    }
    ~Client() {
        if (fd_ >= 0) ::close(fd_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool ok() const { return fd_ >= 0; }
    bool send(const Bytes& b) { return writeAll(fd_, b); }
    Bytes receive(size_t n, int timeoutMs = 2000, int* reads = nullptr, bool* closed = nullptr) {
        return readFd(fd_, n, timeoutMs, reads, closed);
    }
    Bytes transact(const Bytes& req, size_t replySize, int timeoutMs = 2000) {
        if (!send(req)) return {};
        return receive(replySize, timeoutMs);
    }

private:
    int fd_ = -1;
};

}  // namespace simtest

#endif
