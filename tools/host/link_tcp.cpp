#include "link_tcp.h"

#include "fd_io.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kvhost {

namespace {

// Lets the kernel notice a dead peer on an idle connection within about 10 s.
void keepAlive(int fd) {
    const int on = 1, idle = 5, interval = 2, count = 3;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

bool parseHostPort(const std::string& text, std::string& host, uint16_t& port, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return fail("'" + text + "' has no port (HOST:PORT)");
    std::string h = text.substr(0, colon);
    const std::string p = text.substr(colon + 1);
    if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
    if (h.empty()) return fail("'" + text + "' has no host (HOST:PORT)");
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos)
        return fail("'" + p + "' is not a port number");
    const unsigned long v = std::strtoul(p.c_str(), nullptr, 10);
    if (v < 1 || v > 65535) return fail("port " + p + " is out of range (1-65535)");
    host = h;
    port = static_cast<uint16_t>(v);
    return true;
}

TcpLink::TcpLink(std::string host, uint16_t port, Micros connectTimeout, Micros replyTimeout)
    : host_(std::move(host)), port_(port), connectTimeout_(connectTimeout), replyTimeout_(replyTimeout) {}

TcpLink::~TcpLink() {
    close();
}

std::string TcpLink::describe() const {
    return "tcp " + peer();
}

std::string TcpLink::peer() const {
    const std::string h = host_.find(':') != std::string::npos ? "[" + host_ + "]" : host_;
    return h + ":" + std::to_string(port_);
}

bool TcpLink::open(std::string* error) {
    close();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const std::string service = std::to_string(port_);
    const int rc = getaddrinfo(host_.c_str(), service.c_str(), &hints, &list);
    if (rc != 0) {
        if (error) *error = std::string("cannot resolve ") + host_ + ": " + gai_strerror(rc);
        return false;
    }
    std::string why = "no address";
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        const int fd =
            ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) {
            why = std::strerror(errno);
            continue;
        }
        int err = 0;
        if (::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
            err = errno;
            if (err == EINPROGRESS) {
                pollfd p{fd, POLLOUT, 0};
                int n;
                do {
                    n = ::poll(&p, 1, toPollMs(connectTimeout_));
                } while (n < 0 && errno == EINTR);
                if (n == 0) {
                    err = ETIMEDOUT;
                } else {
                    socklen_t len = sizeof err;
                    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
                }
            }
        }
        if (err == 0) {
            keepAlive(fd);
            fd_ = fd;
            break;
        }
        why = err == ETIMEDOUT ? "connection timed out" : std::strerror(err);
        ::close(fd);
    }
    freeaddrinfo(list);
    if (fd_ < 0 && error) *error = why;
    return fd_ >= 0;
}

void TcpLink::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void TcpLink::flushInput() {
    if (fd_ < 0) return;
    uint8_t sink[512];
    for (;;) {
        const ssize_t n = ::recv(fd_, sink, sizeof sink, MSG_DONTWAIT);
        if (n > 0 || (n < 0 && errno == EINTR)) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        close();  // the peer has closed: reconnect before the next send
        return;
    }
}

bool TcpLink::send(const uint8_t* bytes, size_t n, std::string* error) {
    if (fd_ < 0) {
        if (error) *error = "not connected";
        return false;
    }
    if (writeAll(fd_, FdMode::Socket, bytes, n, replyTimeout_, error)) return true;
    close();
    return false;
}

long TcpLink::receive(uint8_t* buffer, size_t n, Micros timeout) {
    if (fd_ < 0) return -1;
    const long r = readSome(fd_, FdMode::Socket, buffer, n, timeout);
    if (r < 0) close();
    return r;
}

}  // namespace kvhost
