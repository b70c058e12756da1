// The host's link, made in one place from its options: TCP to a controller
// or to the simulator started in the process, or a serial line.
#ifndef KV3000_HOST_LINK_FACTORY_H
#define KV3000_HOST_LINK_FACTORY_H

#include "link.h"

#include <cstdint>
#include <memory>

namespace kvhost {

struct HostOptions;

// embeddedPort: the loopback port of the embedded simulator, used when the
// options name neither TCP nor a serial line.
std::unique_ptr<Link> makeLink(const HostOptions& options, uint16_t embeddedPort);

}  // namespace kvhost

#endif
