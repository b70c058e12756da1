// The simulated controller's request side: answering single frames and
// cutting frames out of a byte stream fed in pieces of any size.
#include "fuzz_input.h"
#include "kv3000_wire.h"
#include "sim_protocol.h"

#include <cstdio>
#include <cstdlib>

using namespace kvfuzz;

namespace {

// Largest frame: 01 00 FF L, 255 command bytes, check byte, 04.
constexpr size_t MAX_FRAME = 255 + 6;
// Largest answer: 1024 nine-byte records and the 11 envelope bytes.
constexpr size_t MAX_ANSWER = 11 + 9 * kvsim::MAX_READ_UNITS;

kvsim::Memory& plc() {
    static kvsim::Memory* m = new kvsim::Memory;
    return *m;
}

void checkAnswer(const std::vector<uint8_t>& reply, kvsim::Outcome outcome) {
    if (outcome == kvsim::Outcome::Ack) {
        KV_FUZZ_ASSERT(reply.empty());
        return;
    }
    KV_FUZZ_ASSERT(reply.size() >= kvsim::REFUSAL_LEN && reply.size() <= MAX_ANSWER);
    KV_FUZZ_ASSERT(reply.front() == kvwire::ACK && reply.back() == kvwire::EOT);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t mode = in.u8() % 3;
    if (mode == 0) {
        const std::vector<uint8_t> frame = in.bytes(in.left());
        kvsim::Outcome outcome = kvsim::Outcome::Error;
        const std::vector<uint8_t> reply = kvsim::answer(plc(), frame.data(), frame.size(), &outcome);
        checkAnswer(reply, outcome);
        return 0;
    }
    if (mode == 1) {
        const std::vector<uint8_t> stream = in.bytes(in.left());
        kvsim::feedStream(plc(), stream.data(), stream.size());
        return 0;
    }
    // Pieces: a length byte (top bit: expire first), then the piece.
    kvsim::StreamParser parser;
    while (!in.empty()) {
        const uint8_t head = in.u8();
        if (head & 0x80) parser.expire();
        const std::vector<uint8_t> piece = in.bytes(head & 0x7F);
        for (const auto& frame : parser.feed(piece.data(), piece.size())) {
            KV_FUZZ_ASSERT(frame.size() >= 6 && frame.size() <= MAX_FRAME);
            KV_FUZZ_ASSERT(frame.front() == kvwire::SOF && frame.back() == kvwire::EOT);
            KV_FUZZ_ASSERT(frame.size() == static_cast<size_t>(frame[3]) + 6);
            kvsim::Outcome outcome = kvsim::Outcome::Error;
            const std::vector<uint8_t> reply = kvsim::answer(plc(), frame.data(), frame.size(), &outcome);
            checkAnswer(reply, outcome);
        }
        KV_FUZZ_ASSERT(parser.pending() <= MAX_FRAME);
    }
    return 0;
}
