#include "trace.h"

#include "kv3000_traits.h"
#include "kv3000_wire.h"

#include <cstdio>

namespace kvhost {

namespace {

// The catalogue rows a frame's area code stands for, bit views left out
// (they share their word row's area): "DM", or "T/TC/TS" for the timer area.
struct AreaRows {
    int first = -1;
    std::string names;
};

AreaRows rowsOfArea(int area, bool valueWrite) {
    AreaRows a;
    for (int r = 0; r < REG_COUNT; ++r) {
        const kvreg::Traits& t = kvreg::traits(r);
        if (t.kind == kvreg::Kind::BitInWord || (valueWrite ? t.valueWriteArea : t.readArea) != area)
            continue;
        if (a.first < 0) a.first = r;
        a.names += (a.names.empty() ? "" : "/") + std::string(REG_LIST[r]);
    }
    if (a.first < 0) a.names = "area " + std::to_string(area);
    return a;
}

// An address as the register writes it: word.bit, hexadecimal, or the word
// of a relay word register from its bit-scaled frame address.
std::string addressText(int row, uint32_t frameAddress) {
    const kvreg::Traits& t = kvreg::traits(row);
    char buf[32];
    if (t.notation == kvreg::Notation::WordBit)
        std::snprintf(buf, sizeof buf, "%u.%02u", frameAddress / 16, frameAddress % 16);
    else if (t.relayWord)
        std::snprintf(buf, sizeof buf, "%u", frameAddress / 16);
    else if (t.notation == kvreg::Notation::Hex)
        std::snprintf(buf, sizeof buf, "%X", frameAddress);
    else
        std::snprintf(buf, sizeof buf, "%u", frameAddress);
    return buf;
}

// "values 1, 2, 3" from a read reply, read as the register the frame serves.
std::string valuesText(const FRAME_PRO& f, const uint8_t* reply, int n) {
    int row = kvreg::rowOf(f.reg.toLatin1().constData());
    if (kvreg::traits(row).kind == kvreg::Kind::BitInWord) row = kvreg::traits(row).keyRow;
    const kvreg::Traits& t = kvreg::traits(row);
    if (t.kind == kvreg::Kind::None) return std::string();
    // Relay bits come as whole words.
    const int each = t.kind == kvreg::Kind::RelayBit ? 2 : t.replyBytes();
    const int room = n - f.dataOffset - 2;  // check byte and 04 follow the values
    if (f.dataOffset < 0 || each <= 0 || room < each) return std::string();
    const int count = std::min(f.elementCount, room / each);
    constexpr int kShown = 8;
    std::string s = "values ";
    char buf[24];
    for (int i = 0; i < count && i < kShown; ++i) {
        const uint8_t* p = reply + f.dataOffset + i * each;
        if (t.kind == kvreg::Kind::Contact || t.kind == kvreg::Kind::TimerValue)
            std::snprintf(buf, sizeof buf, "%u", kvwire::timerField(kvwire::readTimerRecord(p), t.field));
        else if (t.kind == kvreg::Kind::RelayBit)
            std::snprintf(buf, sizeof buf, "0x%04X", kvwire::getBE16(p));
        else if (each == 4)
            std::snprintf(buf, sizeof buf, "%u", kvwire::getBE32(p));
        else
            std::snprintf(buf, sizeof buf, "%u", kvwire::getBE16(p));
        s += (i ? ", " : "") + std::string(buf);
    }
    if (count > kShown) s += ", ... (" + std::to_string(count) + " values)";
    return s;
}

// What an accepted reply says: the values read, the answer to the
// handshake, or the status byte of a write.
std::string decodeReply(const Exchange& ex) {
    const int n = ex.reply.size();
    if (ex.result != KV_DEAL_ACCEPTED || n == 0 || n != ex.expected) return std::string();
    const uint8_t* r = reinterpret_cast<const uint8_t*>(ex.reply.constData());
    const FRAME_PRO& f = *ex.frame;
    if (isHandshakeRequest(f.frame, static_cast<size_t>(f.sendLength)))
        return startsLikeKvReply(ex.reply) ? "handshake answered" : "not a KV-3000 reply";
    if (f.elementCount > 0) return valuesText(f, r, n);
    if (n < 5) return std::string();
    char buf[16];
    std::snprintf(buf, sizeof buf, "status %02X", r[n - 3]);
    return buf;
}

}  // namespace

bool isHandshakeRequest(const uint8_t* f, size_t n) {
    return n >= 5 && n <= KV_BUFFER_SIZE && f[0] == kvwire::SOF && f[1] == kvwire::HDR2 &&
           f[2] == kvwire::HDR3 && (f[4] == kvwire::CMD_HANDSHAKE_1 || f[4] == kvwire::CMD_HANDSHAKE_2);
}

bool startsLikeKvReply(const QByteArray& reply) {
    return reply.size() >= 4 && reply.startsWith(QByteArray("\x06\x01\x00\xFF", 4));
}

std::string hexBytes(const uint8_t* bytes, size_t n) {
    std::string s;
    s.reserve(n * 3);
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", bytes[i]);
        s += b;
    }
    return s;
}

std::string describeRequest(const uint8_t* f, size_t n) {
    if (n == 1 && f[0] == kvwire::ACK) return "acknowledge";
    if (isHandshakeRequest(f, n)) return f[4] == kvwire::CMD_HANDSHAKE_1 ? "handshake 1" : "handshake 2";
    if (n < 7 || f[0] != kvwire::ACK || f[1] != kvwire::SOF || f[2] != kvwire::HDR2 || f[3] != kvwire::HDR3)
        return "unknown request";
    const size_t L = f[4];
    if (n < L + 7) return "truncated request";
    const uint8_t* c = f + 5;  // command bytes
    char buf[96];
    if (c[0] == kvwire::CMD_WORD && L >= 12) {
        const AreaRows area = rowsOfArea(c[3], false);
        const uint32_t count = kvwire::getBE16(c + 6);
        const char* what = c[1] == kvwire::CMD_WORD_WRITE ? "write" : "read";
        const bool words = kvreg::traits(area.first).kind == kvreg::Kind::RelayBit;
        std::snprintf(buf, sizeof buf, "%s %s %s x%u%s", what, area.names.c_str(),
                      addressText(area.first, kvwire::getBE32(c + 8)).c_str(), count,
                      words ? (count == 1 ? " word" : " words") : "");
        return buf;
    }
    if ((c[0] == kvwire::CMD_BIT_SET || c[0] == kvwire::CMD_BIT_RESET) && L >= 6) {
        const AreaRows area = rowsOfArea(c[3], false);
        std::snprintf(buf, sizeof buf, "bit %s %s %s", c[0] == kvwire::CMD_BIT_SET ? "set" : "reset",
                      area.names.c_str(), addressText(area.first, kvwire::getBE16(c + 4)).c_str());
        return buf;
    }
    if (c[0] == kvwire::CMD_VALUE_WRITE && L >= 10) {
        const AreaRows area = rowsOfArea(c[3], true);
        std::snprintf(buf, sizeof buf, "value write %s %s = %u", area.names.c_str(),
                      addressText(area.first, kvwire::getBE16(c + 4)).c_str(), kvwire::getBE32(c + 6));
        return buf;
    }
    return "unknown request";
}

std::string describeReply(const Exchange& ex) {
    std::string s;
    switch (ex.result) {
        case KV_DEAL_ACCEPTED:
            s = "reply accepted";
            break;
        case KV_DEAL_RETRY:
            s = "reply rejected, retry " + std::to_string(ex.retry);
            break;
        case KV_DEAL_ABANDONED:
            s = "reply rejected, abandoned: " + ex.message.toStdString();
            break;
        case KV_DEAL_IDLE:
            s = "no frame outstanding";
            break;
        default:
            s = "result " + std::to_string(ex.result);
    }
    if (ex.linkLost) {
        s += " (link lost)";
    } else if (ex.timedOut) {
        s += " (timeout, " + std::to_string(ex.reply.size()) + " of " + std::to_string(ex.expected) +
             " bytes)";
    }
    return s;
}

std::string traceExchange(const Exchange& ex) {
    const FRAME_PRO& f = *ex.frame;
    const size_t sent =
        static_cast<size_t>(std::max(0, std::min(f.sendLength, static_cast<int>(KV_BUFFER_SIZE))));
    std::string out = "-> " + hexBytes(f.frame, sent) + "   " + describeRequest(f.frame, sent);
    // A frame that expects no reply and got none is one line.
    if (ex.expected == 0 && ex.reply.isEmpty() && ex.result == KV_DEAL_ACCEPTED && !ex.linkLost)
        return out + "\n";
    const std::string rx = ex.reply.isEmpty()
                               ? std::string("(nothing)")
                               : hexBytes(reinterpret_cast<const uint8_t*>(ex.reply.constData()),
                                          static_cast<size_t>(ex.reply.size()));
    const std::string decoded = decodeReply(ex);
    out += "\n<- " + rx + "   " + (decoded.empty() ? "" : decoded + "; ") + describeReply(ex) + "\n";
    return out;
}

}  // namespace kvhost
