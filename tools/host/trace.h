// --trace: every frame in hex with a one-line reading of what it asks or
// what became of its reply.
#ifndef KV3000_HOST_TRACE_H
#define KV3000_HOST_TRACE_H

#include "comm_loop.h"

#include <cstdint>
#include <string>

namespace kvhost {

// "06 01 00 FF"
std::string hexBytes(const uint8_t* bytes, size_t n);

// What a request frame asks: "handshake 1/2", "acknowledge",
// "read DM 100 x3", "write DM 100 x2", "bit set R 2.05", "bit reset B 1F",
// "value write TC 5 = 1000", "unknown request".
std::string describeRequest(const uint8_t* frame, size_t n);

// What became of a reply: "reply accepted", "reply rejected, retry 2",
// "reply rejected, abandoned: 1#DM100(3)", with "(timeout, 3 of 17 bytes)"
// or "(link lost)" when the reply was incomplete.
std::string describeReply(const Exchange& ex);

// The two trace lines of an exchange, each ending in '\n'.
std::string traceExchange(const Exchange& ex);

}  // namespace kvhost

#endif
