// The capture reader behind kv3000-sim --replay and kv3000-host
// --replay-check: any file bytes, read through libpcap from memory, then
// replayed request by request.
#include "capture_file.h"
#include "fuzz_input.h"
#include "sim_replay.h"

#include <cstdio>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::FILE* stream = size ? fmemopen(const_cast<uint8_t*>(data), size, "rb") : nullptr;
    kvcapture::Capture capture;
    std::string why;
    if (!kvcapture::readCapture(stream, "fuzz input", capture, &why)) {
        KV_FUZZ_ASSERT(!why.empty() && capture.exchanges.empty());
        return 0;
    }
    uint64_t previous = 0;
    for (const kvcapture::Exchange& e : capture.exchanges) {
        KV_FUZZ_ASSERT(!e.request.empty() && e.packet > previous && e.packet <= capture.records);
        KV_FUZZ_ASSERT(e.answered ? e.replyPacket == e.packet + 1 : e.reply.empty() && e.replyPacket == 0);
        previous = e.answered ? e.replyPacket : e.packet;
    }
    // Asked in recorded order, the replay hands back each recorded reply.
    kvsim::Replay replay(capture);
    uint64_t asked = 0;
    for (const kvcapture::Exchange& e : capture.exchanges) {
        if (!e.answered || kvcapture::isLoneAcknowledge(e.request)) continue;
        std::vector<uint8_t> reply;
        KV_FUZZ_ASSERT(replay.next(e.request, reply) && reply == e.reply);
        ++asked;
    }
    KV_FUZZ_ASSERT(asked == replay.recordedExchanges() && replay.fromMemory() == 0);
    if (!capture.exchanges.empty()) {
        std::vector<uint8_t> reply;
        KV_FUZZ_ASSERT(!replay.next(capture.exchanges.front().request, reply));
    }
    return 0;
}
