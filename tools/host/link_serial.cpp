#include "link_serial.h"

#include "fd_io.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <vector>

namespace kvhost {

namespace {

struct BaudRate {
    int value;
    speed_t code;
};
const BaudRate kBauds[] = {{1200, B1200},   {2400, B2400},     {4800, B4800},
                           {9600, B9600},   {19200, B19200},   {38400, B38400},
                           {57600, B57600}, {115200, B115200}, {230400, B230400}};

std::vector<std::string> splitComma(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        parts.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) return parts;
        start = comma + 1;
    }
}

bool isNumber(const std::string& s) {
    return !s.empty() && s.size() <= 7 && s.find_first_not_of("0123456789") == std::string::npos;
}

// A pseudo-terminal has no parity: the C library reports EINVAL when the
// parity bit did not stick, after everything else has been applied.
bool appliedButParity(int fd, const termios& wanted, int error) {
    termios now{};
    if (error != EINVAL || tcgetattr(fd, &now) != 0) return false;
    const tcflag_t parity = PARENB | PARODD;
    return (now.c_cflag & ~parity) == (wanted.c_cflag & ~parity) && now.c_lflag == wanted.c_lflag &&
           now.c_iflag == wanted.c_iflag && cfgetospeed(&now) == cfgetospeed(&wanted);
}

}  // namespace

std::string SerialParams::text() const {
    const char* p = parity == 'N' ? "NONE" : parity == 'O' ? "ODD" : "EVEN";
    return std::to_string(baud) + "," + std::to_string(dataBits) + "," + p + "," + std::to_string(stopBits);
}

bool parseSerialParams(const std::string& text, SerialParams& out, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = "bad serial parameters '" + text + "': " + why;
        return false;
    };
    const std::vector<std::string> f = splitComma(text);
    if (f.size() != 4) return fail("expected BAUD,DATABITS,PARITY,STOPBITS");
    SerialParams p;
    if (!isNumber(f[0])) return fail("baud rate '" + f[0] + "' is not a number");
    p.baud = std::stoi(f[0]);
    if (std::none_of(std::begin(kBauds), std::end(kBauds),
                     [&](const BaudRate& b) { return b.value == p.baud; }))
        return fail("baud rate " + f[0] + " is not supported (1200 to 230400)");
    if (!isNumber(f[1]) || std::stoi(f[1]) < 5 || std::stoi(f[1]) > 8)
        return fail("data bits must be 5 to 8");
    p.dataBits = std::stoi(f[1]);
    std::string parity = f[2];
    std::transform(parity.begin(), parity.end(), parity.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    if (parity == "NONE" || parity == "N")
        p.parity = 'N';
    else if (parity == "EVEN" || parity == "E")
        p.parity = 'E';
    else if (parity == "ODD" || parity == "O")
        p.parity = 'O';
    else
        return fail("parity must be NONE, EVEN or ODD");
    if (f[3] != "1" && f[3] != "2") return fail("stop bits must be 1 or 2");
    p.stopBits = f[3] == "2" ? 2 : 1;
    out = p;
    return true;
}

SerialLink::SerialLink(std::string device, SerialParams params, Micros margin)
    : device_(std::move(device)), params_(params), margin_(margin) {}

SerialLink::~SerialLink() {
    close();
}

std::string SerialLink::describe() const {
    return "serial " + device_ + " " + params_.text();
}

bool SerialLink::open(std::string* error) {
    close();
    const int fd = ::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = std::strerror(errno);
        return false;
    }
    termios t{};
    if (!isatty(fd) || tcgetattr(fd, &t) != 0) {
        if (error) *error = "not a serial device";
        ::close(fd);
        return false;
    }
    cfmakeraw(&t);
    t.c_cflag &= ~(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag |= params_.dataBits == 5   ? CS5
                 : params_.dataBits == 6 ? CS6
                 : params_.dataBits == 7 ? CS7
                                         : CS8;
    if (params_.parity != 'N') t.c_cflag |= PARENB;
    if (params_.parity == 'O') t.c_cflag |= PARODD;
    if (params_.stopBits == 2) t.c_cflag |= CSTOPB;
    t.c_iflag &= ~(IXON | IXOFF | IXANY);
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    speed_t code = B9600;
    for (const BaudRate& b : kBauds)
        if (b.value == params_.baud) code = b.code;
    cfsetispeed(&t, code);
    cfsetospeed(&t, code);
    if (tcsetattr(fd, TCSANOW, &t) != 0 && !appliedButParity(fd, t, errno)) {
        if (error) *error = std::string("cannot set line parameters: ") + std::strerror(errno);
        ::close(fd);
        return false;
    }
    tcflush(fd, TCIOFLUSH);
    fd_ = fd;
    return true;
}

void SerialLink::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void SerialLink::flushInput() {
    if (fd_ < 0) return;
    tcflush(fd_, TCIFLUSH);
    uint8_t sink[256];
    for (;;) {
        const ssize_t n = ::read(fd_, sink, sizeof sink);
        if (n > 0 || (n < 0 && errno == EINTR)) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) close();
        return;
    }
}

bool SerialLink::send(const uint8_t* bytes, size_t n, std::string* error) {
    if (fd_ < 0) {
        if (error) *error = "device closed";
        return false;
    }
    if (!writeAll(fd_, FdMode::Terminal, bytes, n, replyTimeout(static_cast<int>(n)), error)) {
        close();
        return false;
    }
    // The reply timeout starts once the request has left the line.
    tcdrain(fd_);
    return true;
}

long SerialLink::receive(uint8_t* buffer, size_t n, Micros timeout) {
    if (fd_ < 0) return -1;
    const long r = readSome(fd_, FdMode::Terminal, buffer, n, timeout);
    if (r < 0) close();
    return r;
}

Micros SerialLink::replyTimeout(int replyLength) const {
    const Micros transmission =
        static_cast<Micros>(replyLength) * params_.bitsPerCharacter() * 1000000 / std::max(1, params_.baud);
    return transmission + margin_;
}

}  // namespace kvhost
