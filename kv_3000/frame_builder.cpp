// Request frames of the KV-3000: the handshake, block reads and the writes of
// words, double words, single bits and timer/counter values.
//
// Envelope: [06] 01 00 FF L <L command bytes> check 04, the check byte taken
// over the FF, L and the command bytes; numbers most significant byte first.
#include "kv_3000/frame_builder.h"

#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "protocol.h"

#include <QLatin1String>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

using kvreg::Kind;

// Start address as the frame carries it; -1 when it does not fit the 4-byte field.
int64_t frameStart(const kvreg::Traits& t, int64_t address) {
    const int64_t start = t.relayWord ? address * 16 : address;
    return (start < 0 || start > 0xFFFFFFFFLL) ? -1 : start;
}

// 06 01 00 FF L; the command bytes follow at position 5.
void openFrame(FRAME_PRO& f, int cmdLen) {
    f.frame[0] = kvwire::ACK;
    f.frame[1] = kvwire::SOF;
    f.frame[2] = kvwire::HDR2;
    f.frame[3] = kvwire::HDR3;
    f.frame[4] = static_cast<unsigned char>(cmdLen);
}

// Check byte over positions 3 .. 4 + L, then 04.
void closeFrame(FRAME_PRO& f, int cmdLen) {
    const int end = 5 + cmdLen;
    f.frame[end] =
        static_cast<unsigned char>(computate_check(f.frame + 3, static_cast<unsigned short>(cmdLen + 2)));
    f.frame[end + 1] = kvwire::EOT;
    f.sendLength = end + 2;
}

void fillRecord(FRAME_PRO& f, const VARIABLE& var) {
    f.id = var.id;
    f.station = var.station;
    f.reg = var.reg;
    f.address = var.address;
    f.length = var.length;
    std::memcpy(f.data, var.data, sizeof f.data);
}

FRAME_PRO recordFor(const VARIABLE& var) {
    FRAME_PRO f;
    fillRecord(f, var);
    return f;
}

// The "_bit" rule without the block's data bytes: the working block's
// catalogue row (-1 for a name outside the catalogue), address and length.
struct Working {
    int row;
    int32_t address;
    int32_t length;
};

Working workingOf(const VARIABLE& var, int row) {
    const kvreg::Traits& t = kvreg::traits(row);
    if (t.kind != Kind::BitInWord) return {row, var.address, var.length};
    // Words covering bits (address mod 16) .. (address mod 16) + length - 1;
    // in 64 bits so that a huge length cannot wrap. No bits, no words.
    const int64_t bits = int64_t(var.address % 16) + var.length;
    return {t.keyRow, var.address / 16, bits <= 0 ? 0 : static_cast<int32_t>((bits + 15) / 16)};
}

// 1E 01 00 area 00 00 n(2) start(4) values: one word-write frame of n units of
// 2k bytes taken from data, MSB first.
FRAME_PRO wordWriteFrame(const VARIABLE& var, int area, int k, int n, uint32_t start,
                         const unsigned char* data) {
    FRAME_PRO f = recordFor(var);
    const int cmdLen = 2 * k * n + kvwire::WORD_WRITE_CMD_BASE;
    openFrame(f, cmdLen);
    unsigned char* p = f.frame + 5;
    *p++ = kvwire::CMD_WORD;
    *p++ = kvwire::CMD_WORD_WRITE;
    *p++ = 0x00;
    *p++ = static_cast<unsigned char>(area);
    *p++ = 0x00;
    *p++ = 0x00;
    kvwire::putBE16(p, static_cast<uint32_t>(n));
    kvwire::putBE32(p + 2, start);
    p = f.frame + kvwire::WORD_WRITE_HEAD_LEN;
    const int unitBytes = 2 * k;
    for (int i = 0; i < n; ++i) {
        for (int b = unitBytes - 1; b >= 0; --b) *p++ = data[unitBytes * i + b];
    }
    closeFrame(f, cmdLen);
    f.replyLength = kvwire::WORD_WRITE_REPLY_LEN;
    f.dataOffset = kvwire::WORD_WRITE_HEAD_LEN;
    f.elementCount = 0;
    return f;
}

}  // namespace

unsigned short computate_check(unsigned char* bytes, unsigned short count) {
    if (!bytes) return 0;
    return kvwire::checkSum(bytes, count);
}

VARIABLE workingBlock(const VARIABLE& var) {
    VARIABLE w = var;
    const Working working = workingOf(var, getIndexFromRegName(var.reg));
    if (working.row >= 0) w.reg = QLatin1String(REG_LIST[working.row]);
    w.address = working.address;
    w.length = working.length;
    return w;
}

void handShakeFrame() {
    FRAME_PRO ack;
    ack.frame[0] = kvwire::ACK;
    ack.sendLength = 1;
    ack.replyLength = 0;

    // Requests of the handshake go without the leading 06.
    FRAME_PRO first;
    const unsigned char req1[] = {kvwire::SOF, kvwire::HDR2, kvwire::HDR3, 0x02, kvwire::CMD_HANDSHAKE_1,
                                  0x01};
    std::copy(std::begin(req1), std::end(req1), first.frame);
    first.frame[6] = static_cast<unsigned char>(computate_check(first.frame + 2, 4));
    first.frame[7] = kvwire::EOT;
    first.sendLength = 8;
    first.replyLength = kvwire::HANDSHAKE_1_REPLY_LEN;

    FRAME_PRO second;
    const unsigned char req2[] = {kvwire::SOF, kvwire::HDR2, kvwire::HDR3, 0x06, kvwire::CMD_HANDSHAKE_2,
                                  0x00,        0x01,         0x06,         0x00, 0x00};
    std::copy(std::begin(req2), std::end(req2), second.frame);
    second.frame[10] = static_cast<unsigned char>(computate_check(second.frame + 2, 8));
    second.frame[11] = kvwire::EOT;
    second.sendLength = 12;
    second.replyLength = kvwire::HANDSHAKE_2_REPLY_LEN;

    driver.frameList.append(ack);
    driver.frameList.append(first);
    driver.frameList.append(ack);
    driver.frameList.append(second);
    driver.frameList.append(ack);
}

int getReadFrame(QList<VARIABLE> list) {
    if (list.isEmpty()) return 0;
    // constFirst: the list shares its items with the caller's, and first() would copy them.
    return appendReadFrame(list.constFirst());
}

int appendReadFrame(const VARIABLE& var) {
    const Working w = workingOf(var, getIndexFromRegName(var.reg));
    // Nothing to read, or an address the frame cannot carry.
    if (var.length <= 0 || w.length <= 0 || var.address < 0) return 0;
    const kvreg::Traits& t = kvreg::traits(w.row);
    const Kind kind = t.kind;
    if (kind == Kind::None) return 0;

    int64_t start;
    int64_t count;
    if (kind == Kind::RelayBit) {
        start = w.address - w.address % 16;
        count = (w.address - start + int64_t(w.length) + 15) / 16;
    } else {
        start = frameStart(t, w.address);
        count = w.length;
    }
    // The count field has 16 bits, the start field 32.
    if (start < 0 || count > 0xFFFF) return 0;

    // Built in place in the list: a frame record is over 2 KiB.
    const int at = driver.frameList.size();
    driver.frameList.resize(at + 1);
    FRAME_PRO& f = driver.frameList[at];
    fillRecord(f, var);
    if (kind == Kind::RelayBit) {
        // The block grows to the aligned start, so the reply's bits line up with it.
        f.length = static_cast<int32_t>(w.address - start + w.length);
        f.address = static_cast<int32_t>(start);
        f.replyLength = static_cast<int32_t>(2 * count + kvwire::READ_REPLY_OVERHEAD);
        f.elementCount = f.length;
    } else {
        f.replyLength = t.replyBytes() * w.length + kvwire::READ_REPLY_OVERHEAD;
        f.elementCount = w.length;
    }

    openFrame(f, kvwire::READ_CMD_LEN);
    f.frame[5] = kvwire::CMD_WORD;
    f.frame[6] = kvwire::CMD_WORD_READ;
    f.frame[7] = 0x00;
    f.frame[8] = t.readArea;
    f.frame[9] = 0x00;
    f.frame[10] = 0x00;
    kvwire::putBE16(f.frame + 11, static_cast<uint32_t>(count));
    kvwire::putBE32(f.frame + 13, static_cast<uint32_t>(start));
    closeFrame(f, kvwire::READ_CMD_LEN);
    f.dataOffset = kvwire::READ_REPLY_HEADER;
    return 1;
}

void getWriteFrame(VARIABLE& var) {
    // Unknown names, no values to write, or an address no frame can carry.
    const int row = getIndexFromRegName(var.reg);
    if (row < 0) return;
    if (var.length <= 0 || var.address < 0) return;
    const bool bitInWord = kvreg::traits(row).kind == Kind::BitInWord;
    const Working w = workingOf(var, row);
    const kvreg::Traits& t = kvreg::traits(w.row);
    const Kind kind = t.kind;

    // Contacts are read-only on the device.
    if (!t.writable()) return;

    if (kind == Kind::RelayBit || kind == Kind::TimerValue) {
        // These frames carry one element each. A block of several elements
        // (a recipe block, a timer write of two values) goes out as one frame
        // per element in the same transaction, so no value is dropped. The
        // address has two bytes, and data holds 1024 bits or 256 values.
        const bool bits = kind == Kind::RelayBit;
        const int64_t n = var.length;
        if (n > (bits ? KV_BUFFER_SIZE : KV_BUFFER_SIZE / 4) || int64_t(var.address) + n - 1 > 0xFFFF) return;
        for (int j = 0; j < n; ++j) {
            FRAME_PRO f = recordFor(var);
            unsigned char* p = f.frame + 5;
            const uint32_t address = static_cast<uint32_t>(var.address + j);
            int cmdLen;
            if (bits) {
                cmdLen = kvwire::BIT_WRITE_CMD_LEN;
                *p++ = var.data[j] ? kvwire::CMD_BIT_SET : kvwire::CMD_BIT_RESET;
                *p++ = 0x00;
                *p++ = 0x01;
                *p++ = t.readArea;
                kvwire::putBE16(p, address);
            } else {
                cmdLen = kvwire::VALUE_WRITE_CMD_LEN;
                *p++ = kvwire::CMD_VALUE_WRITE;
                *p++ = 0x00;
                *p++ = 0x01;
                *p++ = t.valueWriteArea;
                kvwire::putBE16(p, address);
                p += 2;
                for (int b = 3; b >= 0; --b) *p++ = var.data[4 * j + b];
            }
            openFrame(f, cmdLen);
            closeFrame(f, cmdLen);
            f.replyLength = kvwire::BIT_WRITE_REPLY_LEN;
            f.dataOffset = 0;
            f.elementCount = 0;
            driver.frameList.append(f);
        }
        return;
    }

    const int k = t.transferBits / 16;
    const int perFrame = k == 2 ? kvwire::MAX_WRITE_DWORDS : kvwire::MAX_WRITE_WORDS;

    if (bitInWord) {
        // A bit write is a read of the covering words and their write-back,
        // which the read's reply completes; it needs both frames or neither.
        // Everything is checked before the read goes in. The covering words
        // must fit one write frame, and data holds one byte per bit, so no
        // more bits than that can be named.
        if (w.length <= 0 || w.length > perFrame || var.length > KV_BUFFER_SIZE) return;
        if (frameStart(t, w.address) < 0) return;
        if (!appendReadFrame(var)) return;
        static const unsigned char zeros[KV_BUFFER_SIZE] = {};
        driver.frameList.append(
            wordWriteFrame(var, t.readArea, k, w.length, uint32_t(frameStart(t, w.address)), zeros));
        return;
    }

    // Refused when data cannot hold the values, or when the last frame's
    // start would not fit its 4-byte field.
    const int64_t n = w.length;
    if (n * 2 * k > KV_BUFFER_SIZE) return;
    if (frameStart(t, int64_t(w.address) + n - 1) < 0) return;

    // Longer blocks go out as several frames whose length byte stays below 256.
    for (int done = 0; done < n;) {
        const int part = std::min<int>(perFrame, static_cast<int>(n) - done);
        const uint32_t start = static_cast<uint32_t>(frameStart(t, int64_t(w.address) + done));
        driver.frameList.append(wordWriteFrame(var, t.readArea, k, part, start, var.data + 2 * k * done));
        done += part;
    }
}
