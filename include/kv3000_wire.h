// KV-3000 wire constants, shared by the driver's frame builder and the
// controller simulator so that the two cannot silently agree on a mistake.
//
// Request envelope:  [06] 01 00 FF L <L command bytes> check 04
// The handshake's request frames lack the leading 06. The check byte is the
// low byte of the check sum over the FF, L and the command bytes.
// Reply envelope:    06 .. .. <covered bytes> check 04, the check byte
// covering positions 3 .. size-3.
#ifndef KV3000_WIRE_H
#define KV3000_WIRE_H

#include <cstdint>

namespace kvwire {

constexpr uint8_t ACK = 0x06;  // acknowledge: first byte of requests and replies
constexpr uint8_t SOF = 0x01;  // start of frame
constexpr uint8_t EOT = 0x04;  // end of frame
constexpr uint8_t HDR2 = 0x00;
constexpr uint8_t HDR3 = 0xFF;

// Command bytes (the first command bytes after L).
constexpr uint8_t CMD_HANDSHAKE_1 = 0x07;  // 07 01
constexpr uint8_t CMD_HANDSHAKE_2 = 0x20;  // 20 00 01 06 00 00
constexpr uint8_t CMD_WORD = 0x1E;         // 1E 00 00 = read, 1E 01 00 = write
constexpr uint8_t CMD_WORD_READ = 0x00;
constexpr uint8_t CMD_WORD_WRITE = 0x01;
constexpr uint8_t CMD_BIT_SET = 0x32;      // 32 00 01 area addr(2)
constexpr uint8_t CMD_BIT_RESET = 0x33;    // 33 00 01 area addr(2)
constexpr uint8_t CMD_VALUE_WRITE = 0x18;  // 18 00 01 warea addr(2) value(4)

// Lengths.
constexpr int READ_FRAME_LEN = 19;  // 06 01 00 FF 0C 1E 00 00 area 00 00 count(2) start(4) chk 04
constexpr int READ_CMD_LEN = 0x0C;
constexpr int BIT_WRITE_FRAME_LEN = 13;
constexpr int BIT_WRITE_CMD_LEN = 0x06;
constexpr int VALUE_WRITE_FRAME_LEN = 17;
constexpr int VALUE_WRITE_CMD_LEN = 0x0A;
constexpr int WORD_WRITE_HEAD_LEN = 17;  // bytes before the first data byte
constexpr int WORD_WRITE_CMD_BASE = 12;  // L = data bytes + 12
constexpr int FRAME_OVERHEAD = 7;        // [06] 01 00 FF L .. check 04 around L command bytes

constexpr int READ_REPLY_HEADER = 9;     // value bytes start here in a read reply
constexpr int READ_REPLY_OVERHEAD = 11;  // read reply = 11 + value bytes
constexpr int WORD_WRITE_REPLY_LEN = 10;
constexpr int BIT_WRITE_REPLY_LEN = 9;  // also timer/counter value writes
constexpr int HANDSHAKE_1_REPLY_LEN = 9;
constexpr int HANDSHAKE_2_REPLY_LEN = 10;
constexpr int TC_RECORD_LEN = 9;  // timer/counter record, below

// The longest word write whose L stays below 256.
constexpr int MAX_WRITE_WORDS = 121;
constexpr int MAX_WRITE_DWORDS = 60;
constexpr int MAX_BLOCK_UNITS = 128;

// Area codes.
constexpr uint8_t AREA_R = 0;
constexpr uint8_t AREA_CR = 1;
constexpr uint8_t AREA_T = 2;  // also TC/TS reads
constexpr uint8_t AREA_C = 3;  // also CC/CS reads
constexpr uint8_t AREA_DM = 6;
constexpr uint8_t AREA_CM = 7;
constexpr uint8_t AREA_TM = 8;
constexpr uint8_t AREA_MR = 17;
constexpr uint8_t AREA_LR = 18;
constexpr uint8_t AREA_EM = 23;
constexpr uint8_t AREA_FM = 25;
constexpr uint8_t AREA_B = 27;
constexpr uint8_t AREA_W = 28;
constexpr uint8_t AREA_TC_WRITE = 32;
constexpr uint8_t AREA_TS_WRITE = 33;
constexpr uint8_t AREA_CC_WRITE = 34;
constexpr uint8_t AREA_CS_WRITE = 35;
constexpr uint8_t AREA_TRM = 38;
constexpr uint8_t AREA_ZF = 44;
constexpr uint8_t AREA_Z = 48;

// Shared-memory request bytes of the runtime.
constexpr int SHM_RECIPE_WRITE = 60115;
constexpr int SHM_RECIPE_READ = 60116;
constexpr int SHM_MIN_SIZE = 60117;

// Numbers in frames are sent most significant byte first.
constexpr uint32_t getBE16(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 8 | p[1];
}
constexpr uint32_t getBE32(const uint8_t* p) {
    return getBE16(p) << 16 | getBE16(p + 2);
}
constexpr void putBE16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
constexpr void putBE32(uint8_t* p, uint32_t v) {
    putBE16(p, v >> 16);
    putBE16(p + 2, v);
}

// The device answers every element of a T, C, TC, TS, CC or CS read with
// one nine-byte timer/counter record: the contact in bit 7 of byte 0, then
// the current value and the set value, four bytes each.
constexpr int TC_RECORD_CONTACT = 0;
constexpr uint8_t TC_CONTACT_MASK = 0x80;
constexpr int TC_RECORD_CURRENT = 1;
constexpr int TC_RECORD_SET = 5;
static_assert(TC_RECORD_SET + 4 == TC_RECORD_LEN, "contact, current, set");

// The part of a record a register shows.
enum class TimerField : uint8_t { None, Contact, Current, Set };

struct TimerRecord {
    bool contact = false;
    uint32_t current = 0;
    uint32_t set = 0;
};

constexpr TimerRecord readTimerRecord(const uint8_t* p) {
    TimerRecord r;
    r.contact = (p[TC_RECORD_CONTACT] & TC_CONTACT_MASK) != 0;
    r.current = getBE32(p + TC_RECORD_CURRENT);
    r.set = getBE32(p + TC_RECORD_SET);
    return r;
}

constexpr void writeTimerRecord(uint8_t* p, const TimerRecord& r) {
    p[TC_RECORD_CONTACT] = r.contact ? TC_CONTACT_MASK : 0;
    putBE32(p + TC_RECORD_CURRENT, r.current);
    putBE32(p + TC_RECORD_SET, r.set);
}

// One field of a record: the contact as 0 or 1, or a value.
constexpr uint32_t timerField(const TimerRecord& r, TimerField f) {
    switch (f) {
        case TimerField::Contact:
            return r.contact ? 1u : 0u;
        case TimerField::Current:
            return r.current;
        case TimerField::Set:
            return r.set;
        case TimerField::None:
            break;
    }
    return 0;
}

// The check sum of the KV-3000 frames: the byte sum, negated when above 255.
// Only its low byte is used.
constexpr uint16_t checkSum(const uint8_t* bytes, int count) {
    if (count <= 0) return 0;
    uint32_t sum = 0;
    for (int i = 0; i < count; ++i) sum += bytes[i];
    if (sum > 255) sum = 0u - sum;
    return static_cast<uint16_t>(sum);
}

}  // namespace kvwire

#endif
