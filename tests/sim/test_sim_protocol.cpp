// Answers to every request the host builds, byte by byte, their effect on
// memory, and refusals that change nothing.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace simtest;

namespace {

Bytes hex(const char* text) {
    Bytes out;
    std::istringstream in(text);
    for (unsigned b; in >> std::hex >> b;) out.push_back(static_cast<uint8_t>(b));
    return out;
}

class Answer : public ::testing::Test {
protected:
    Bytes ask(const Bytes& req, kvsim::Outcome* outcome = nullptr) {
        return kvsim::answer(mem, req.data(), req.size(), outcome);
    }
    uint32_t get(const char* reg, uint32_t a) { return mem.get(reg, a).value(); }
    kvsim::Memory mem;
};

// The request helpers build the very frames the host sends.
TEST(RequestHelpers, BuildTheHostsFrames) {
    const struct {
        Bytes built;
        const char* frame;
    } cases[] = {
        {readRequest(6, 3, 100), "06 01 00 FF 0C 1E 00 00 06 00 00 00 03 00 00 00 64 6A 04"},  // DM 100 x3
        {readRequest(2, 2, 5), "06 01 00 FF 0C 1E 00 00 02 00 00 00 02 00 00 00 05 CE 04"},    // TC 5 x2
        {readRequest(17, 2, 0xA0),
         "06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04"},  // MR_bit 165 x20
        {readRequest(6, 1, 100), "06 01 00 FF 0C 1E 00 00 06 00 00 00 01 00 00 00 64 6C 04"},  // DM_bit 1603
        {wordWriteRequest(6, 100, {0x1234, 0x5678}, 2),
         "06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04"},
        {valueRequest(32, 5, 1000), "06 01 00 FF 0A 18 00 01 20 00 05 00 00 03 E8 CE 04"},  // TC 5 = 1000
        {bitRequest(true, 0, 37), "06 01 00 FF 06 32 00 01 00 00 25 A3 04"},                // R 2.05 set
    };
    for (const auto& c : cases) EXPECT_EQ(c.built, hex(c.frame)) << c.frame;
}

TEST_F(Answer, HandshakeSequence) {
    kvsim::Outcome o;
    EXPECT_TRUE(ask(kAck, &o).empty());
    EXPECT_EQ(o, kvsim::Outcome::Ack);
    const Bytes r1 = ask(kHandshake1, &o);
    EXPECT_TRUE(goodReply(r1, 9));
    EXPECT_EQ(o, kvsim::Outcome::Handshake);
    EXPECT_EQ(r1, (Bytes{0x06, 0x01, 0x00, 0xFF, 0x07, 0x01, 0x00, r1[7], 0x04}));
    EXPECT_TRUE(goodReply(ask(kHandshake2), 10));
    // An acknowledge in front of a handshake request is the same request.
    Bytes withAck = kAck;
    withAck.insert(withAck.end(), kHandshake1.begin(), kHandshake1.end());
    EXPECT_EQ(ask(withAck), r1);
}

TEST_F(Answer, WordAndDoubleWordReadsAndWrites) {
    mem.set("DM", 100, 0x1234);
    mem.set("DM", 101, 0xABCD);
    mem.set("DM", 102, 7);
    kvsim::Outcome o;
    Bytes r = ask(readRequest(6, 3, 100), &o);
    ASSERT_TRUE(goodReply(r, 17));
    EXPECT_EQ(o, kvsim::Outcome::Read);
    EXPECT_EQ(Bytes(r.begin() + 9, r.end() - 2), hex("12 34 AB CD 00 07"));

    EXPECT_TRUE(goodReply(ask(wordWriteRequest(6, 200, {0x1234, 0x5678}, 2), &o), 10));
    EXPECT_EQ(o, kvsim::Outcome::WordWrite);
    for (uint32_t a : {199u, 200u, 201u, 202u})
        EXPECT_EQ(get("DM", a), a == 200 ? 0x1234u : a == 201 ? 0x5678u : 0u);

    // Relay words are addressed in bits: "MR_bit" 165 x20 reads MR 10 and 11.
    mem.set("MR", 10, 0x1111);
    mem.set("MR", 11, 0x2222);
    r = ask(readRequest(17, 2, 0xA0));
    ASSERT_TRUE(goodReply(r, 15));
    EXPECT_EQ(be32(r, 9), 0x11112222u);
    EXPECT_TRUE(goodReply(ask(wordWriteRequest(1, 0, {5, 6}, 2)), 10));  // CR0, CR1
    EXPECT_EQ(get("CR", 1), 6u);
    EXPECT_EQ(get("CR_bit", 1 * 16 + 1), 1u);

    // Double words go high byte first: "Z" 3 x2 reads 19 bytes.
    EXPECT_TRUE(goodReply(ask(wordWriteRequest(48, 3, {0x11223344, 0xFFFFFFFF}, 4)), 10));
    EXPECT_EQ(get("Z", 4), 0xFFFFFFFFu);
    r = ask(readRequest(48, 2, 3));
    ASSERT_TRUE(goodReply(r, 19));
    EXPECT_EQ(Bytes(r.begin() + 9, r.begin() + 17), hex("11 22 33 44 FF FF FF FF"));
}

TEST_F(Answer, TimerAndCounterValuesAndRecords) {
    kvsim::Outcome o;
    EXPECT_TRUE(goodReply(ask(valueRequest(32, 5, 1000), &o), 9));  // TC
    EXPECT_EQ(o, kvsim::Outcome::ValueWrite);
    EXPECT_EQ(get("TC", 5), 1000u);
    EXPECT_EQ(get("TS", 5), 0u);
    EXPECT_TRUE(goodReply(ask(valueRequest(33, 5, 0x01020304)), 9));  // TS
    mem.set("T", 6, 1);
    mem.set("TC", 6, 0xA0B0C0D0);
    // Records: contact (bit 7), current value, set value.
    Bytes r = ask(readRequest(2, 2, 5));
    ASSERT_TRUE(goodReply(r, 29));
    EXPECT_EQ(Bytes(r.begin() + 9, r.end() - 2),
              hex("00 00 00 03 E8 01 02 03 04 80 A0 B0 C0 D0 00 00 00 00"));

    EXPECT_TRUE(goodReply(ask(valueRequest(34, 9999, 77)), 9));  // CC
    EXPECT_TRUE(goodReply(ask(valueRequest(35, 9999, 88)), 9));  // CS
    EXPECT_EQ(get("TC", 9999), 0u);
    mem.set("C", 9999, 1);
    r = ask(readRequest(3, 1, 9999));
    ASSERT_TRUE(goodReply(r, 20));
    EXPECT_EQ(Bytes(r.begin() + 9, r.end() - 2), hex("80 00 00 00 4D 00 00 00 58"));

    mem.set("T", 8, 1);
    r = ask(readRequest(2, 3, 7));  // "T" 7 x3
    ASSERT_TRUE(goodReply(r, 38));
    EXPECT_EQ((Bytes{r[9], r[18], r[27]}), hex("00 80 00"));
}

TEST_F(Answer, RelayBitsAreSetOneByOneAndReadAsWords) {
    kvsim::Outcome o;
    EXPECT_TRUE(goodReply(ask(bitRequest(true, 0, 37), &o), 9));
    EXPECT_EQ(o, kvsim::Outcome::BitWrite);
    EXPECT_EQ(get("R", 36) << 2 | get("R", 37) << 1 | get("R", 38), 2u);  // R2.05 only
    // "R" 37 length 4 reads the word from 32; element 0 sits in the low byte.
    Bytes r = ask(readRequest(0, 1, 32));
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x0020u);
    // "R" 30 length 4 reads two words from 16: bits 30, 33 and 37.
    mem.set("R", 30, 1);
    mem.set("R", 33, 1);
    r = ask(readRequest(0, 2, 16));
    ASSERT_TRUE(goodReply(r, 15));
    EXPECT_EQ(be32(r, 9), 0x40000022u);
    EXPECT_TRUE(goodReply(ask(bitRequest(false, 0, 37)), 9));
    EXPECT_EQ(get("R", 37), 0u);

    EXPECT_TRUE(goodReply(ask(bitRequest(true, 27, 0x10)), 9));
    EXPECT_EQ(get("B", 0x10), 1u);
    EXPECT_TRUE(goodReply(ask(bitRequest(true, 27, 0x3FFF)), 9));
    r = ask(readRequest(27, 1, 0x3FF0));
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x8000u);
    EXPECT_TRUE(goodReply(ask(bitRequest(false, 27, 0x10)), 9));
    EXPECT_EQ(get("B", 0x10), 0u);
}

TEST_F(Answer, BitWriteOfDmBitGoesAsReadThenWordWrite) {
    mem.set("DM", 100, 0x00F0);
    const Bytes r = ask(readRequest(6, 1, 100));  // "DM_bit" 1603
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x00F0u);
    // The write frame as the host patches it: the word with bit 3 set.
    EXPECT_TRUE(goodReply(ask(wordWriteRequest(6, 100, {0x00F8}, 2)), 10));
    EXPECT_EQ(get("DM_bit", 1603), 1u);
}

// Every device area: first and last unit readable and writable through
// frames, one past the end refused. Typed in from the device's ranges.
TEST_F(Answer, EveryAreaAnswersAcrossItsRange) {
    const struct {
        const char* reg;
        uint8_t area;
        uint32_t last;      // highest unit
        uint32_t addrStep;  // frame address per unit (16 for relay words)
        size_t width;       // value bytes per unit in a read
        bool wordWritable;
    } areas[] = {
        {"DM", 6, 65535, 1, 2, true},   {"TM", 8, 9999, 1, 2, true},   {"CM", 7, 65535, 1, 2, true},
        {"EM", 23, 65535, 1, 2, true},  {"FM", 25, 65535, 1, 2, true}, {"W", 28, 0x3FF, 1, 2, true},
        {"ZF", 44, 131071, 1, 2, true}, {"MR", 17, 999, 16, 2, true},  {"LR", 18, 999, 16, 2, true},
        {"CR", 1, 999, 16, 2, true},    {"Z", 48, 15, 1, 4, true},     {"TRM", 38, 7, 1, 4, true},
        {"TC", 2, 9999, 1, 9, false},   {"CC", 3, 9999, 1, 9, false},
    };
    for (const auto& c : areas) {
        SCOPED_TRACE(c.reg);
        for (uint32_t unit : {0u, c.last}) {
            EXPECT_TRUE(goodReply(ask(readRequest(c.area, 1, unit * c.addrStep)), 11 + c.width));
            if (c.wordWritable) {
                const uint32_t v = c.width == 4 ? 0x89ABCDEFu : 0xC0DEu;
                EXPECT_TRUE(
                    goodReply(ask(wordWriteRequest(c.area, unit * c.addrStep, {v}, int(c.width))), 10));
                EXPECT_EQ(get(c.reg, unit), v);
                const Bytes back = ask(readRequest(c.area, 1, unit * c.addrStep));
                EXPECT_EQ(c.width == 4 ? be32(back, 9) : be16(back, 9), v);
            }
        }
        EXPECT_TRUE(isRefusal(ask(readRequest(c.area, 1, (c.last + 1) * c.addrStep))));
        EXPECT_TRUE(isRefusal(ask(readRequest(c.area, 2, c.last * c.addrStep))));
    }
    // Relay bits: the last word of R (bits 15984..15999) and of B.
    EXPECT_TRUE(goodReply(ask(readRequest(0, 1, 15984)), 13));
    EXPECT_TRUE(isRefusal(ask(readRequest(0, 2, 15984))));
    EXPECT_TRUE(goodReply(ask(readRequest(27, 1, 0x3FF0)), 13));
    EXPECT_TRUE(isRefusal(ask(readRequest(27, 1, 0x4000))));
    EXPECT_TRUE(goodReply(ask(bitRequest(true, 0, 15999)), 9));
    EXPECT_TRUE(isRefusal(ask(bitRequest(true, 0, 16000))));
    EXPECT_TRUE(isRefusal(ask(bitRequest(true, 27, 0x4000))));
    // A read reply is 11 bytes plus the values, up to the host's 128 units.
    for (uint32_t n : {2u, 64u, 128u}) {
        EXPECT_TRUE(goodReply(ask(readRequest(6, n, 0)), 11 + 2 * n));
        EXPECT_TRUE(goodReply(ask(readRequest(2, n, 0)), 11 + 9 * n));
    }
}

TEST_F(Answer, RefusalsChangeNothing) {
    mem.set("DM", 100, 1);
    Bytes badCheck = wordWriteRequest(6, 100, {0x4242}, 2);
    badCheck[badCheck.size() - 2] ^= 0x01;
    Bytes noEnd = wordWriteRequest(6, 100, {0x4242}, 2);
    noEnd.back() = 0x03;
    Bytes truncated = wordWriteRequest(6, 100, {0x4242}, 2);
    truncated.resize(truncated.size() - 3);
    const struct {
        const char* what;
        Bytes req;
        uint8_t code;
    } cases[] = {
        {"bad check byte", badCheck, kvsim::REFUSE_CHECK},
        {"bad check, short", hex("06 01 00 FF 01 55 00 04"), kvsim::REFUSE_CHECK},
        {"no end byte", noEnd, kvsim::REFUSE_LENGTH},
        {"truncated", truncated, kvsim::REFUSE_LENGTH},
        {"data shorter than count", request(hex("1E 01 00 06 00 00 00 02 00 00 00 64 42 42")),
         kvsim::REFUSE_LENGTH},
        {"read with extra byte", request(hex("1E 00 00 06 00 00 00 01 00 00 00 64 00")),
         kvsim::REFUSE_LENGTH},
        {"unknown command", request({0x55, 0x00}), kvsim::REFUSE_COMMAND},
        {"empty command", request({}), kvsim::REFUSE_LENGTH},
        {"handshake with other bytes", request({0x07, 0x02}), kvsim::REFUSE_COMMAND},
        {"unknown area", wordWriteRequest(99, 100, {0x4242}, 2), kvsim::REFUSE_AREA},
        {"word write to timers", wordWriteRequest(2, 100, {0x4242}, 2), kvsim::REFUSE_AREA},
        {"word write to R", wordWriteRequest(0, 0, {0x4242}, 2), kvsim::REFUSE_AREA},
        {"bit write to DM", bitRequest(true, 6, 100), kvsim::REFUSE_AREA},
        {"value write to T", valueRequest(2, 100, 5), kvsim::REFUSE_AREA},
        {"DM past the end", wordWriteRequest(6, 65535, {1, 2}, 2), kvsim::REFUSE_RANGE},
        {"relay word not on a word", wordWriteRequest(17, 8, {1}, 2), kvsim::REFUSE_RANGE},
        {"value write past the end", valueRequest(32, 10000, 5), kvsim::REFUSE_RANGE},
        {"zero count", readRequest(6, 0, 100), kvsim::REFUSE_RANGE},
        {"too many units", readRequest(6, 2000, 0), kvsim::REFUSE_RANGE},
        {"huge start", readRequest(6, 1, 0xFFFFFFFF), kvsim::REFUSE_RANGE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        kvsim::Outcome o;
        const Bytes r = ask(c.req, &o);
        ASSERT_TRUE(isRefusal(r));  // 06 .. 15 code check 04
        EXPECT_EQ(r[5], c.code);
        EXPECT_EQ(o, kvsim::Outcome::Error);
    }
    EXPECT_EQ(get("DM", 100), 1u);
    EXPECT_EQ(get("DM", 65535) | get("R", 0) | get("MR", 0) | get("TC", 100), 0u);

    // Nothing, short inputs, and a length byte larger than the bytes given.
    EXPECT_TRUE(isRefusal(kvsim::answer(mem, nullptr, 0)));
    for (const char* input : {"01", "06 06", "06 01 00 FF FF 1E 04"}) {
        const Bytes b = hex(input);
        EXPECT_TRUE(isRefusal(kvsim::answer(mem, b.data(), b.size()))) << input;
    }
}

}  // namespace
