// --trace: every frame in hex with a one-line reading of what it asks, and
// of what its reply says and what became of it.
#ifndef KV3000_HOST_TRACE_H
#define KV3000_HOST_TRACE_H

#include "comm_loop.h"

#include <cstdint>
#include <string>

namespace kvhost {

// "06 01 00 FF"
std::string hexBytes(const uint8_t* bytes, size_t n);

// What a request frame asks: "handshake 1/2", "acknowledge",
// "read DM 100 x3", "read T/TC/TS 5 x1", "write DM 100 x2", "bit set R 2.05",
// "bit reset B 1F", "value write TC 5 = 1000", "unknown request". Register
// names and notations come from the catalogue's area codes.
std::string describeRequest(const uint8_t* frame, size_t n);

// What became of a reply: "reply accepted", "reply rejected, retry 2",
// "reply rejected, abandoned: 1#DM100(3)", with "(timeout, 3 of 17 bytes)"
// or "(link lost)" when the reply was incomplete.
std::string describeReply(const Exchange& ex);

// The trace of an exchange, each line ending in '\n': the request, then the
// reply with what an accepted one says ("values 1, 2, 3", "status 00",
// "handshake answered") and what became of it. A frame that expects no
// reply (a lone acknowledge) is one line.
std::string traceExchange(const Exchange& ex);

// One of the two handshake requests.
bool isHandshakeRequest(const uint8_t* frame, size_t n);
// Starts as every KV-3000 reply does: 06 01 00 FF.
bool startsLikeKvReply(const QByteArray& reply);

}  // namespace kvhost

#endif
