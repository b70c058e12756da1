// Cutting requests out of a byte stream: pieces of any size, acknowledges,
// garbage, half frames and noise.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <random>

#include <gtest/gtest.h>

using namespace simtest;

namespace {

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes answersOf(kvsim::Memory& mem, const Bytes& stream) {
    return kvsim::feedStream(mem, stream.data(), stream.size());
}

TEST(Stream, HostHandshakeAndRequestsInAnyPieces) {
    kvsim::Memory mem;
    mem.set("DM", 0, 0x0102);
    const Bytes stream =
        concat({kAck, kHandshake1, kAck, kHandshake2, kAck, readRequest(6, 1, 0),
                wordWriteRequest(6, 1, {9}, 2), bitRequest(true, 0, 3), valueRequest(32, 1, 2)});
    const Bytes whole = answersOf(mem, stream);
    ASSERT_EQ(whole.size(), 9u + 10 + 13 + 10 + 9 + 9);
    EXPECT_TRUE(goodReply(Bytes(whole.begin(), whole.begin() + 9), 9));
    EXPECT_TRUE(goodReply(Bytes(whole.begin() + 9, whole.begin() + 19), 10));
    EXPECT_EQ(be16(whole, 19 + 9), 0x0102u);

    for (size_t piece : {1u, 2u, 3u, 7u, 19u}) {
        SCOPED_TRACE(piece);
        kvsim::Memory m2;
        m2.set("DM", 0, 0x0102);
        kvsim::StreamParser parser;
        Bytes got;
        for (size_t i = 0; i < stream.size(); i += piece) {
            const size_t n = std::min(piece, stream.size() - i);
            for (const auto& f : parser.feed(stream.data() + i, n)) {
                const Bytes r = kvsim::answer(m2, f.data(), f.size());
                got.insert(got.end(), r.begin(), r.end());
            }
        }
        EXPECT_EQ(got, whole);
        EXPECT_EQ(parser.pending(), 0u);
        EXPECT_EQ(parser.garbageBytes(), 0u);
    }
}

TEST(Stream, LoneAcknowledgesGetNoAnswer) {
    kvsim::StreamParser parser;
    const uint8_t ack = 0x06;
    EXPECT_TRUE(parser.feed(&ack, 1).empty());
    EXPECT_EQ(parser.pending(), 1u);  // could still open a request
    EXPECT_TRUE(parser.feed(&ack, 1).empty());
    EXPECT_EQ(parser.acks(), 1u);
    const Bytes req = readRequest(6, 1, 0);  // starts with its own 06
    EXPECT_EQ(parser.feed(req.data(), req.size()).size(), 1u);
    EXPECT_EQ(parser.acks(), 2u);
    parser.feed(&ack, 1);
    parser.expire();
    EXPECT_EQ(parser.acks(), 3u);
    EXPECT_EQ(parser.pending(), 0u);
}

// Junk in front of a request: the request is found and answered, and the
// memory a half write would have changed is left alone.
TEST(Stream, JunkBeforeARequestIsSkippedOrGivenUp) {
    const Bytes write = wordWriteRequest(6, 100, std::vector<uint32_t>(20, 1), 2);
    const struct {
        const char* what;
        Bytes junk;
        int garbage, abandoned;  // -1: not looked at
    } cases[] = {
        {"garbage", {0x00, 0xFF, 0x04, 0x01, 0x02, 0x01, 0x00, 0x00, 0x99}, 9, 0},
        // 01 00 FF 02 x x y: looks like a start, but position 7 is not 04.
        {"false start without end byte", {0x01, 0x00, 0xFF, 0x02, 0x10, 0x20, 0x30, 0x40}, -1, -1},
        // Announces 255 command bytes; the next request is complete long before.
        {"half frame longer than what follows", {0x06, 0x01, 0x00, 0xFF, 0xFF, 0x1E, 0x00}, -1, -1},
        // A write of 20 words cut after 10 bytes, then the host's next request.
        {"half write", Bytes(write.begin(), write.begin() + 10), 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        kvsim::Memory mem;
        kvsim::StreamParser parser;
        const Bytes req = readRequest(6, 2, 100);
        EXPECT_TRUE(parser.feed(c.junk.data(), c.junk.size()).empty());
        const auto frames = parser.feed(req.data(), req.size());
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_TRUE(goodReply(kvsim::answer(mem, frames[0].data(), frames[0].size()), 15));
        if (c.garbage >= 0) {
            EXPECT_EQ(parser.garbageBytes(), uint64_t(c.garbage));
        }
        if (c.abandoned >= 0) {
            EXPECT_EQ(parser.abandoned(), uint64_t(c.abandoned));
        }
        EXPECT_EQ(mem.get("DM", 100).value(), 0u);
    }
}

TEST(Stream, ExpireDropsAHalfFrame) {
    kvsim::StreamParser parser;
    const Bytes req = readRequest(6, 1, 0);
    parser.feed(req.data(), 8);
    EXPECT_EQ(parser.pending(), 7u);  // the 06 is not kept once the 01 follows
    parser.expire();
    EXPECT_EQ(parser.pending(), 0u);
    EXPECT_EQ(parser.abandoned(), 1u);
    // The rest of the old frame is now garbage; the next request is found.
    parser.feed(req.data() + 8, req.size() - 8);
    EXPECT_EQ(parser.feed(req.data(), req.size()).size(), 1u);
}

TEST(Stream, BadCheckByteGetsARefusalInItsTurn) {
    kvsim::Memory mem;
    Bytes bad = wordWriteRequest(6, 5, {7}, 2);
    bad[bad.size() - 2] ^= 0xFF;
    const Bytes r = answersOf(mem, concat({bad, readRequest(6, 1, 5)}));
    ASSERT_EQ(r.size(), 8u + 13);
    EXPECT_TRUE(isRefusal(Bytes(r.begin(), r.begin() + 8)));
    EXPECT_EQ(be16(r, 8 + 9), 0u);
}

// A megabyte of random bytes, and noise made of the bytes that matter to the
// framing: never more than one frame's worth kept, every frame found answered,
// and the next good request found.
TEST(Stream, NoiseNeverStalls) {
    kvsim::Memory mem;
    mem.set("DM", 4321, 0xCAFE);
    std::mt19937 rng(42);
    const uint8_t alphabet[] = {0x06, 0x01, 0x00, 0xFF, 0x04, 0x0C, 0x1E, 0x02};
    for (bool frameLike : {false, true}) {
        Bytes noise(frameLike ? 200000 : 1 << 20);
        for (auto& b : noise) b = frameLike ? alphabet[rng() % sizeof alphabet] : static_cast<uint8_t>(rng());
        kvsim::StreamParser parser;
        for (size_t i = 0; i < noise.size(); i += 1000) {
            for (const auto& f : parser.feed(noise.data() + i, std::min<size_t>(1000, noise.size() - i)))
                kvsim::answer(mem, f.data(), f.size());
            ASSERT_LE(parser.pending(), 261u);
        }
        parser.expire();
        const Bytes req = readRequest(6, 1, 4321);
        const auto last = parser.feed(req.data(), req.size());
        ASSERT_EQ(last.size(), 1u);
        const Bytes r = kvsim::answer(mem, last[0].data(), last[0].size());
        ASSERT_TRUE(goodReply(r, 13));
        EXPECT_EQ(be16(r, 9), 0xCAFEu);
    }
}

}  // namespace
