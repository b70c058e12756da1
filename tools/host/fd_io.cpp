#include "fd_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvhost {

int toPollMs(Micros us) {
    if (us <= 0) return 0;
    const Micros ms = (us + 999) / 1000;
    return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms);
}

bool writeAll(int fd, FdMode mode, const uint8_t* bytes, size_t n, Micros room, std::string* error) {
    size_t done = 0;
    while (done < n) {
        const ssize_t w = mode == FdMode::Socket ? ::send(fd, bytes + done, n - done, MSG_NOSIGNAL)
                                                 : ::write(fd, bytes + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) continue;
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, toPollMs(room)) > 0) continue;
            if (error) *error = "send timed out";
        } else if (error) {
            *error = w == 0 ? "nothing written" : std::strerror(errno);
        }
        return false;
    }
    return true;
}

long readSome(int fd, FdMode mode, uint8_t* buffer, size_t n, Micros timeout) {
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, toPollMs(timeout));
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (ready == 0) return 0;
    const ssize_t r = mode == FdMode::Socket ? ::recv(fd, buffer, n, MSG_DONTWAIT) : ::read(fd, buffer, n);
    if (r > 0) return static_cast<long>(r);
    if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
    // A serial line reads 0 bytes without hanging up: nothing yet.
    if (mode == FdMode::Terminal && r == 0 && !(p.revents & (POLLHUP | POLLERR))) return 0;
    return -1;
}

}  // namespace kvhost
