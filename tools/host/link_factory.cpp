#include "link_factory.h"

#include "link_serial.h"
#include "link_tcp.h"
#include "session.h"

#include <algorithm>

namespace kvhost {

std::unique_ptr<Link> makeLink(const HostOptions& options, uint16_t embeddedPort) {
    const Micros timeout = static_cast<Micros>(options.timeoutMs) * 1000;
    // Connecting takes longer than a reply: twice the reply timeout, at least 1 s.
    const Micros connectTimeout = std::max<Micros>(1000000, 2 * timeout);
    switch (options.link) {
        case HostOptions::LinkKind::Tcp:
            return std::make_unique<TcpLink>(options.tcpHost, options.tcpPort, connectTimeout, timeout);
        case HostOptions::LinkKind::Serial:
            // On a serial line the timeout is the margin after the reply's transmission time.
            return std::make_unique<SerialLink>(options.serialDevice, options.serial, timeout);
        case HostOptions::LinkKind::Embedded:
            break;
    }
    return std::make_unique<TcpLink>("127.0.0.1", embeddedPort, connectTimeout, timeout);
}

}  // namespace kvhost
