// Byte I/O on the non-blocking descriptor of a link, shared by the TCP and
// the serial link.
#ifndef KV3000_HOST_FD_IO_H
#define KV3000_HOST_FD_IO_H

#include "link.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvhost {

// Microseconds to a poll() timeout in milliseconds, rounded up.
int toPollMs(Micros us);

// What kind of descriptor a link has. A socket is written with
// MSG_NOSIGNAL, so a closed peer is an error, not a signal; a terminal that
// reads 0 bytes without hanging up has nothing yet, it is not finished.
enum class FdMode { Socket, Terminal };

// Writes all n bytes, waiting up to `room` each time the descriptor is full.
bool writeAll(int fd, FdMode mode, const uint8_t* bytes, size_t n, Micros room, std::string* error);

// Reads what arrives within `timeout`, at most n bytes: the count, 0 for
// nothing yet, -1 when the descriptor is finished (the caller closes it).
long readSome(int fd, FdMode mode, uint8_t* buffer, size_t n, Micros timeout);

}  // namespace kvhost

#endif
