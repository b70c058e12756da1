// Answers to every request the host builds, byte by byte, their effect on
// memory, and refusals that change nothing.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <gtest/gtest.h>

using namespace simtest;

namespace {

class Answer : public ::testing::Test {
protected:
    Bytes ask(const Bytes& req, kvsim::Outcome* outcome = nullptr) {
        return kvsim::answer(mem, req.data(), req.size(), outcome);
    }
    uint32_t get(const char* reg, uint32_t a) { return mem.get(reg, a).value(); }
    kvsim::Memory mem;
};

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

TEST_F(Answer, DocumentedDmReadOfThreeWords) {
    mem.set("DM", 100, 0x1234);
    mem.set("DM", 101, 0xABCD);
    mem.set("DM", 102, 7);
    const Bytes req{0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x06, 0x00,
                    0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x64, 0x6A, 0x04};
    EXPECT_EQ(req, readRequest(6, 3, 100));
    kvsim::Outcome o;
    const Bytes r = ask(req, &o);
    ASSERT_TRUE(goodReply(r, 17));
    EXPECT_EQ(o, kvsim::Outcome::Read);
    EXPECT_EQ(Bytes(r.begin() + 9, r.end() - 2), (Bytes{0x12, 0x34, 0xAB, 0xCD, 0x00, 0x07}));
}

TEST_F(Answer, DocumentedDmWriteOfTwoWords) {
    const Bytes req{0x06, 0x01, 0x00, 0xFF, 0x10, 0x1E, 0x01, 0x00, 0x06, 0x00, 0x00, 0x00,
                    0x02, 0x00, 0x00, 0x00, 0x64, 0x12, 0x34, 0x56, 0x78, 0x52, 0x04};
    kvsim::Outcome o;
    EXPECT_TRUE(goodReply(ask(req, &o), 10));
    EXPECT_EQ(o, kvsim::Outcome::WordWrite);
    EXPECT_EQ(get("DM", 100), 0x1234u);
    EXPECT_EQ(get("DM", 101), 0x5678u);
    EXPECT_EQ(get("DM", 99), 0u);
    EXPECT_EQ(get("DM", 102), 0u);
}

TEST_F(Answer, DocumentedTimerValueWriteAndRecordRead) {
    const Bytes req{0x06, 0x01, 0x00, 0xFF, 0x0A, 0x18, 0x00, 0x01, 0x20,
                    0x00, 0x05, 0x00, 0x00, 0x03, 0xE8, 0xCE, 0x04};
    kvsim::Outcome o;
    EXPECT_TRUE(goodReply(ask(req, &o), 9));
    EXPECT_EQ(o, kvsim::Outcome::ValueWrite);
    EXPECT_EQ(get("TC", 5), 1000u);
    EXPECT_EQ(get("TS", 5), 0u);
    EXPECT_TRUE(goodReply(ask(valueRequest(33, 5, 0x01020304)), 9));  // TS
    mem.set("T", 6, 1);
    mem.set("TC", 6, 0xA0B0C0D0);

    // "TC" 5 x2: 06 01 00 FF 0C 1E 00 00 02 00 00 00 02 00 00 00 05 CE 04, 29 bytes.
    const Bytes read{0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x02, 0x00,
                     0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x05, 0xCE, 0x04};
    const Bytes r = ask(read);
    ASSERT_TRUE(goodReply(r, 29));
    EXPECT_EQ(r[9], 0x00);  // T5 contact open
    EXPECT_EQ(be32(r, 10), 1000u);
    EXPECT_EQ(be32(r, 14), 0x01020304u);
    EXPECT_EQ(r[18], 0x80);  // T6 contact closed: bit 7
    EXPECT_EQ(be32(r, 19), 0xA0B0C0D0u);
    EXPECT_EQ(be32(r, 23), 0u);
}

TEST_F(Answer, CounterValueWritesAndRecords) {
    EXPECT_TRUE(goodReply(ask(valueRequest(34, 9999, 77)), 9));  // CC
    EXPECT_TRUE(goodReply(ask(valueRequest(35, 9999, 88)), 9));  // CS
    EXPECT_EQ(get("CC", 9999), 77u);
    EXPECT_EQ(get("CS", 9999), 88u);
    EXPECT_EQ(get("TC", 9999), 0u);
    mem.set("C", 9999, 1);
    const Bytes r = ask(readRequest(3, 1, 9999));
    ASSERT_TRUE(goodReply(r, 20));
    EXPECT_EQ(r[9], 0x80);
    EXPECT_EQ(be32(r, 10), 77u);
    EXPECT_EQ(be32(r, 14), 88u);
}

TEST_F(Answer, TimerContactsReadThreeRecords) {
    mem.set("T", 8, 1);
    const Bytes r = ask(readRequest(2, 3, 7));  // "T" 7 x3
    ASSERT_TRUE(goodReply(r, 38));
    EXPECT_EQ(r[9], 0x00);
    EXPECT_EQ(r[18], 0x80);
    EXPECT_EQ(r[27], 0x00);
}

TEST_F(Answer, DocumentedRelayBitSetAndReset) {
    const Bytes set{0x06, 0x01, 0x00, 0xFF, 0x06, 0x32, 0x00, 0x01, 0x00, 0x00, 0x25, 0xA3, 0x04};
    kvsim::Outcome o;
    EXPECT_TRUE(goodReply(ask(set, &o), 9));
    EXPECT_EQ(o, kvsim::Outcome::BitWrite);
    EXPECT_EQ(get("R", 37), 1u);  // R2.05
    EXPECT_EQ(get("R", 36), 0u);
    EXPECT_EQ(get("R", 38), 0u);
    EXPECT_TRUE(goodReply(ask(bitRequest(false, 0, 37)), 9));
    EXPECT_EQ(get("R", 37), 0u);
}

TEST_F(Answer, RelayBitsTravelAsWordsWithElementZeroInTheLowByte) {
    // "R" 37 length 4: start 32, one word.
    mem.set("R", 37, 1);
    Bytes r = ask(readRequest(0, 1, 32));
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(r[9], 0x00);
    EXPECT_EQ(r[10], 0x20);
    // "R" 30 length 4: start 16, two words; bits 30 and 33.
    mem.set("R", 30, 1);
    mem.set("R", 33, 1);
    r = ask(readRequest(0, 2, 16));
    ASSERT_TRUE(goodReply(r, 15));
    EXPECT_EQ(be16(r, 9), 1u << 14);
    EXPECT_EQ(be16(r, 11), (1u << 1) | (1u << 5));
    EXPECT_EQ(r[9], 0x40);  // element 14 lives in the high byte
    EXPECT_EQ(r[12], 0x22);
}

TEST_F(Answer, LinkRelayBitsWriteAndRead) {
    EXPECT_TRUE(goodReply(ask(bitRequest(true, 27, 0x10)), 9));
    EXPECT_EQ(get("B", 0x10), 1u);
    EXPECT_TRUE(goodReply(ask(bitRequest(true, 27, 0x3FFF)), 9));
    const Bytes r = ask(readRequest(27, 1, 0x3FF0));
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x8000u);
    EXPECT_TRUE(goodReply(ask(bitRequest(false, 27, 0x10)), 9));
    EXPECT_EQ(get("B", 0x10), 0u);
}

TEST_F(Answer, RelayWordsAreAddressedInBits) {
    mem.set("MR", 10, 0x1111);
    mem.set("MR", 11, 0x2222);
    // "MR_bit" 165 length 20: 06 01 00 FF 0C 1E 00 00 11 00 00 00 02 00 00 00 A0 24 04
    const Bytes req{0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x11, 0x00,
                    0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0xA0, 0x24, 0x04};
    const Bytes r = ask(req);
    ASSERT_TRUE(goodReply(r, 15));
    EXPECT_EQ(be16(r, 9), 0x1111u);
    EXPECT_EQ(be16(r, 11), 0x2222u);

    EXPECT_TRUE(goodReply(ask(wordWriteRequest(18, 999 * 16, {0xBEEF}, 2)), 10));  // LR999
    EXPECT_EQ(get("LR", 999), 0xBEEFu);
    EXPECT_TRUE(goodReply(ask(wordWriteRequest(1, 0, {5, 6}, 2)), 10));  // CR0, CR1
    EXPECT_EQ(get("CR", 1), 6u);
    EXPECT_EQ(get("CR_bit", 1 * 16 + 1), 1u);
}

TEST_F(Answer, BitWriteOfDmBitGoesAsReadThenWordWrite) {
    mem.set("DM", 100, 0x00F0);
    // "DM_bit" 1603: the read 06 01 00 FF 0C 1E 00 00 06 00 00 00 01 00 00 00 64 6C 04
    const Bytes read{0x06, 0x01, 0x00, 0xFF, 0x0C, 0x1E, 0x00, 0x00, 0x06, 0x00,
                     0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x64, 0x6C, 0x04};
    const Bytes r = ask(read);
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x00F0u);
    // The write frame as the host patches it: the word with bit 3 set.
    Bytes write{0x06, 0x01, 0x00, 0xFF, 0x0E, 0x1E, 0x01, 0x00, 0x06, 0x00, 0x00,
                0x00, 0x01, 0x00, 0x00, 0x00, 0x64, 0x00, 0xF8, 0x00, 0x04};
    write[19] = check(write.data() + 3, 16);
    EXPECT_TRUE(goodReply(ask(write), 10));
    EXPECT_EQ(get("DM", 100), 0x00F8u);
    EXPECT_EQ(get("DM_bit", 1603), 1u);
}

TEST_F(Answer, DoubleWordAreas) {
    // "Z" 3 x2 reads 19 bytes.
    EXPECT_TRUE(goodReply(ask(wordWriteRequest(48, 3, {0x11223344, 0xFFFFFFFF}, 4)), 10));
    EXPECT_EQ(get("Z", 3), 0x11223344u);
    EXPECT_EQ(get("Z", 4), 0xFFFFFFFFu);
    const Bytes r = ask(readRequest(48, 2, 3));
    ASSERT_TRUE(goodReply(r, 19));
    EXPECT_EQ(Bytes(r.begin() + 9, r.begin() + 13), (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(be32(r, 13), 0xFFFFFFFFu);

    EXPECT_TRUE(goodReply(ask(wordWriteRequest(38, 7, {123456789}, 4)), 10));
    EXPECT_EQ(get("TRM", 7), 123456789u);
}

// Every device area: first and last unit readable and writable through
// frames, one past the end refused. Typed in from the device's ranges.
struct AreaCase {
    const char* reg;
    uint8_t area;
    uint32_t last;      // highest unit
    uint32_t addrStep;  // frame address per unit (16 for relay words)
    size_t width;       // value bytes per unit in a read
    bool wordWritable;
};

const AreaCase kAreas[] = {
    {"DM", 6, 65535, 1, 2, true},   {"TM", 8, 9999, 1, 2, true},   {"CM", 7, 65535, 1, 2, true},
    {"EM", 23, 65535, 1, 2, true},  {"FM", 25, 65535, 1, 2, true}, {"W", 28, 0x3FF, 1, 2, true},
    {"ZF", 44, 131071, 1, 2, true}, {"MR", 17, 999, 16, 2, true},  {"LR", 18, 999, 16, 2, true},
    {"CR", 1, 999, 16, 2, true},    {"Z", 48, 15, 1, 4, true},     {"TRM", 38, 7, 1, 4, true},
    {"TC", 2, 9999, 1, 9, false},   {"CC", 3, 9999, 1, 9, false},
};

TEST_F(Answer, EveryAreaAnswersAcrossItsRange) {
    for (const AreaCase& c : kAreas) {
        SCOPED_TRACE(c.reg);
        for (uint32_t unit : {0u, c.last}) {
            const Bytes r = ask(readRequest(c.area, 1, unit * c.addrStep));
            EXPECT_TRUE(goodReply(r, 11 + c.width));
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
}

TEST_F(Answer, ReadReplyIsElevenPlusValueBytes) {
    for (uint32_t n : {1u, 2u, 64u, 128u}) {
        EXPECT_TRUE(goodReply(ask(readRequest(6, n, 0)), 11 + 2 * n));
        EXPECT_TRUE(goodReply(ask(readRequest(2, n, 0)), 11 + 9 * n));
        EXPECT_TRUE(goodReply(ask(readRequest(48, std::min(n, 16u), 0)), 11 + 4 * std::min(n, 16u)));
    }
}

TEST_F(Answer, RefusalLayout) {
    kvsim::Outcome o;
    const Bytes r = ask(Bytes{0x06, 0x01, 0x00, 0xFF, 0x01, 0x55, 0x00, 0x04}, &o);  // bad check
    EXPECT_EQ(o, kvsim::Outcome::Error);
    ASSERT_TRUE(goodReply(r, 8));
    EXPECT_EQ(r[4], 0x15);
    EXPECT_EQ(r[5], kvsim::REFUSE_CHECK);
}

TEST_F(Answer, RefusalsChangeNothing) {
    mem.set("DM", 100, 1);
    Bytes badCheck = wordWriteRequest(6, 100, {0x4242}, 2);
    badCheck[badCheck.size() - 2] ^= 0x01;
    Bytes noEnd = wordWriteRequest(6, 100, {0x4242}, 2);
    noEnd.back() = 0x03;
    Bytes truncated = wordWriteRequest(6, 100, {0x4242}, 2);
    truncated.resize(truncated.size() - 3);
    Bytes shortData =
        request({0x1E, 0x01, 0x00, 0x06, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x64, 0x42, 0x42});
    Bytes longRead = request({0x1E, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x64, 0x00});

    const struct {
        const char* what;
        Bytes req;
        uint8_t code;
    } cases[] = {
        {"bad check byte", badCheck, kvsim::REFUSE_CHECK},
        {"no end byte", noEnd, kvsim::REFUSE_LENGTH},
        {"truncated", truncated, kvsim::REFUSE_LENGTH},
        {"data shorter than count", shortData, kvsim::REFUSE_LENGTH},
        {"read with extra byte", longRead, kvsim::REFUSE_LENGTH},
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
        const Bytes r = ask(c.req);
        ASSERT_TRUE(isRefusal(r));
        EXPECT_EQ(r[5], c.code);
    }
    EXPECT_EQ(get("DM", 100), 1u);
    EXPECT_EQ(get("DM", 65535), 0u);
    EXPECT_EQ(get("R", 0), 0u);
    EXPECT_EQ(get("MR", 0), 0u);
    EXPECT_EQ(get("TC", 100), 0u);
}

TEST_F(Answer, NothingAndShortInputsAreRefusedSafely) {
    EXPECT_TRUE(isRefusal(kvsim::answer(mem, nullptr, 0)));
    const uint8_t one[] = {0x01};
    EXPECT_TRUE(isRefusal(kvsim::answer(mem, one, 1)));
    const uint8_t two[] = {0x06, 0x06};
    EXPECT_TRUE(isRefusal(kvsim::answer(mem, two, 2)));
    // L larger than the bytes given.
    const uint8_t liar[] = {0x06, 0x01, 0x00, 0xFF, 0xFF, 0x1E, 0x04};
    EXPECT_TRUE(isRefusal(kvsim::answer(mem, liar, sizeof liar)));
}

}  // namespace
