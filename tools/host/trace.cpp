#include "trace.h"

#include "kv3000_wire.h"

#include <cstdio>

namespace kvhost {

namespace {

const char* areaName(int code) {
    switch (code) {
        case kvwire::AREA_R:
            return "R";
        case kvwire::AREA_CR:
            return "CR";
        case kvwire::AREA_T:
            return "T";
        case kvwire::AREA_C:
            return "C";
        case kvwire::AREA_DM:
            return "DM";
        case kvwire::AREA_CM:
            return "CM";
        case kvwire::AREA_TM:
            return "TM";
        case kvwire::AREA_MR:
            return "MR";
        case kvwire::AREA_LR:
            return "LR";
        case kvwire::AREA_EM:
            return "EM";
        case kvwire::AREA_FM:
            return "FM";
        case kvwire::AREA_B:
            return "B";
        case kvwire::AREA_W:
            return "W";
        case kvwire::AREA_TC_WRITE:
            return "TC";
        case kvwire::AREA_TS_WRITE:
            return "TS";
        case kvwire::AREA_CC_WRITE:
            return "CC";
        case kvwire::AREA_CS_WRITE:
            return "CS";
        case kvwire::AREA_TRM:
            return "TRM";
        case kvwire::AREA_ZF:
            return "ZF";
        case kvwire::AREA_Z:
            return "Z";
        default:
            return nullptr;
    }
}

uint32_t be(const uint8_t* p, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

// An address as the register writes it: R word.bit, B and W hexadecimal,
// relay words from their bit-scaled frame address.
std::string addressText(int area, uint32_t frameAddress) {
    char buf[32];
    switch (area) {
        case kvwire::AREA_R:
            std::snprintf(buf, sizeof buf, "%u.%02u", frameAddress / 16, frameAddress % 16);
            break;
        case kvwire::AREA_B:
        case kvwire::AREA_W:
            std::snprintf(buf, sizeof buf, "%X", frameAddress);
            break;
        case kvwire::AREA_MR:
        case kvwire::AREA_LR:
        case kvwire::AREA_CR:
            std::snprintf(buf, sizeof buf, "%u", frameAddress / 16);
            break;
        default:
            std::snprintf(buf, sizeof buf, "%u", frameAddress);
    }
    return buf;
}

std::string regText(int area) {
    const char* name = areaName(area);
    if (area == kvwire::AREA_T) return "timer";  // contacts, current and set values share the area
    if (area == kvwire::AREA_C) return "counter";
    if (name) return name;
    return "area " + std::to_string(area);
}

}  // namespace

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
    if (n >= 5 && f[0] == kvwire::SOF && f[1] == kvwire::HDR2 && f[2] == kvwire::HDR3) {
        if (f[4] == kvwire::CMD_HANDSHAKE_1) return "handshake 1";
        if (f[4] == kvwire::CMD_HANDSHAKE_2) return "handshake 2";
        return "unknown request";
    }
    if (n < 7 || f[0] != kvwire::ACK || f[1] != kvwire::SOF || f[2] != kvwire::HDR2 || f[3] != kvwire::HDR3)
        return "unknown request";
    const size_t L = f[4];
    if (n < L + 7) return "truncated request";
    const uint8_t* c = f + 5;  // command bytes
    char buf[96];
    if (c[0] == kvwire::CMD_WORD && L >= 12) {
        const int area = c[3];
        const uint32_t count = be(c + 6, 2);
        const uint32_t start = be(c + 8, 4);
        const char* what = c[1] == kvwire::CMD_WORD_WRITE ? "write" : "read";
        const bool words = area == kvwire::AREA_R || area == kvwire::AREA_B;
        std::snprintf(buf, sizeof buf, "%s %s %s x%u%s", what, regText(area).c_str(),
                      addressText(area, start).c_str(), count,
                      words ? (count == 1 ? " word" : " words") : "");
        return buf;
    }
    if ((c[0] == kvwire::CMD_BIT_SET || c[0] == kvwire::CMD_BIT_RESET) && L >= 6) {
        const int area = c[3];
        std::snprintf(buf, sizeof buf, "bit %s %s %s", c[0] == kvwire::CMD_BIT_SET ? "set" : "reset",
                      regText(area).c_str(), addressText(area, be(c + 4, 2)).c_str());
        return buf;
    }
    if (c[0] == kvwire::CMD_VALUE_WRITE && L >= 10) {
        std::snprintf(buf, sizeof buf, "value write %s %u = %u", regText(c[3]).c_str(), be(c + 4, 2),
                      be(c + 6, 4));
        return buf;
    }
    return "unknown request";
}

std::string describeReply(const Exchange& ex) {
    std::string s;
    switch (ex.result) {
        case 1:
            s = "reply accepted";
            break;
        case 8:
            s = "reply rejected, retry " + std::to_string(ex.retry);
            break;
        case 2:
            s = "reply rejected, abandoned: " + ex.message.toStdString();
            break;
        case 0:
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
    std::string out = "-> " + hexBytes(f.frame, sent) + "   " + describeRequest(f.frame, sent) + "\n";
    const std::string rx = ex.reply.isEmpty()
                               ? std::string(ex.expected == 0 ? "(no reply expected)" : "(nothing)")
                               : hexBytes(reinterpret_cast<const uint8_t*>(ex.reply.constData()),
                                          static_cast<size_t>(ex.reply.size()));
    out += "<- " + rx + "   " + describeReply(ex) + "\n";
    return out;
}

}  // namespace kvhost
