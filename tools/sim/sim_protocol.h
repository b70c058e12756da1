// The simulated controller's side of the KV-3000 protocol: answering one
// request frame, and cutting frames out of a byte stream.
//
// Reply layouts (positions from 0; the check byte is the low byte of
// kvwire::checkSum over positions 3 .. size-3, as the host checks it):
//
//   read            06 01 00 FF 1E 00 area cntH cntL <values> chk 04   11 + value bytes
//   word write      06 01 00 FF 1E 01 area 00 chk 04                   10
//   bit set/reset   06 01 00 FF 32|33 area 00 chk 04                   9
//   value write     06 01 00 FF 18 warea 00 chk 04                     9
//   handshake 07 01 06 01 00 FF 07 01 00 chk 04                        9
//   handshake 20 .. 06 01 00 FF 20 00 01 00 chk 04                     10
//   refusal         06 01 00 FF 15 code chk 04                         8
//
// The refusal is shorter than any reply the host expects, so a host that
// checks lengths rejects it; the request it answers changed nothing.
// Values: words and 32-bit numbers high byte first; R and B as 16-bit words
// whose bit k is bit start + k; T and C (also for TC/TS/CC/CS reads) as
// nine-byte records: contact in bit 7 of byte 0, current value in bytes
// 1-4, set value in bytes 5-8.
#ifndef KV3000_SIM_PROTOCOL_H
#define KV3000_SIM_PROTOCOL_H

#include "sim_memory.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvsim {

enum class Outcome { Ack, Handshake, Read, WordWrite, BitWrite, ValueWrite, Error };

// Refusal codes, byte 5 of the refusal.
enum RefusalCode : uint8_t {
    REFUSE_CHECK = 1,    // check byte wrong
    REFUSE_COMMAND = 2,  // unknown command or malformed command bytes
    REFUSE_AREA = 3,     // area code unknown or not valid for the command
    REFUSE_RANGE = 4,    // address or count out of range
    REFUSE_LENGTH = 5,   // envelope broken or command bytes of the wrong length
};

constexpr uint8_t REFUSAL = 0x15;
constexpr size_t REFUSAL_LEN = 8;
// A read of more units is refused; the host never asks more than 128.
constexpr uint32_t MAX_READ_UNITS = 1024;

// Answers one complete request frame: "06 01 00 FF L ... chk 04", the same
// without the leading 06 (handshake requests), or a lone 06 (acknowledge,
// empty answer). Anything else gets a refusal. Thread-safe (locks mem).
std::vector<uint8_t> answer(Memory& mem, const uint8_t* req, size_t n, Outcome* outcome = nullptr);
std::vector<uint8_t> refusal(uint8_t code);
// 06 01 00 FF, the command bytes, the check byte and 04: a reply around body.
std::vector<uint8_t> replyEnvelope(const std::vector<uint8_t>& body);

// Cuts request frames out of a byte stream, fed in pieces of any size.
//
// A frame is 01 00 FF L, L command bytes, check byte, 04; an 06 directly in
// front of the 01 belongs to it (the acknowledge that opens every request; a
// lone acknowledge followed by a handshake request is the same byte sequence
// and means the same). An 06 followed by anything else is a lone acknowledge.
// A lone 06 at the end of the buffer is kept until the next byte shows what
// it is: it is owed no answer either way.
// Resynchronisation: a byte that cannot start a frame is skipped; a frame
// whose byte at position L+5 is not 04 loses its first byte and the scan
// goes on from the next. A half frame is given up when a complete frame with
// a valid check byte starts later in the buffer (the host moved on to its
// next request), or on expire(), which the server calls after a quiet spell.
// The buffer never holds more than one frame's worth of bytes.
//
// Keeping acknowledges (the simulator's links do, so that a capture shows
// what came in): an 06 in front of a frame stays in it, and every other 06
// comes out at once as a one-byte frame of its own instead of being counted.
class StreamParser {
public:
    explicit StreamParser(bool keepAcknowledges = false) : keepAcks_(keepAcknowledges) {}
    // Returns the complete frames now available, each from its 01 to its 04.
    std::vector<std::vector<uint8_t>> feed(const uint8_t* data, size_t n);
    // Drops a half frame or a pending lone 06.
    void expire();
    size_t pending() const { return buf_.size(); }

    uint64_t acks() const { return acks_; }
    uint64_t garbageBytes() const { return garbage_; }
    uint64_t abandoned() const { return abandoned_; }

private:
    size_t findCompleteFrame(size_t from) const;

    bool keepAcks_;
    std::vector<uint8_t> buf_;
    uint64_t acks_ = 0;
    uint64_t garbage_ = 0;
    uint64_t abandoned_ = 0;
};

// Feeds bytes to a fresh parser and answers every frame found; returns the
// answers concatenated. For fuzzing and tests.
std::vector<uint8_t> feedStream(Memory& mem, const uint8_t* data, size_t n);

}  // namespace kvsim

#endif
