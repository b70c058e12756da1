// What the benchmarks need of an HMI runtime: shared memory, the shared
// mutex, a change callback that only counts, replies in the device's layout,
// and a message handler that drops the driver's debug lines.
#ifndef KV3000_BENCH_SUPPORT_H
#define KV3000_BENCH_SUPPORT_H

#include "kv3000_intf.h"
#include "kv3000_wire.h"

#include <QByteArray>
#include <QLoggingCategory>
#include <QMutex>
#include <QString>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace kvbench {

inline long long& changeReports() {
    static long long count = 0;
    return count;
}

inline void countChange(int, int, const QString&, int) {
    ++changeReports();
}

inline void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

// Drops every debug line while it lives (they are still formatted).
struct QuietDebug {
    QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    ~QuietDebug() { qInstallMessageHandler(previous); }
};

// Switches debug lines off by logging rules while it lives (not even formatted).
struct DebugOff {
    DebugOff() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }
    ~DebugOff() { QLoggingCategory::setFilterRules(QString()); }
};

struct Runtime {
    std::vector<unsigned char> shm = std::vector<unsigned char>(kvwire::SHM_MIN_SIZE, 0);
    std::vector<unsigned short> recipe = std::vector<unsigned short>(4096, 0);
    QMutex shareMutex;

    void init(const char* parameters = "1#0#0#3#10") {
        int status = -1;
        intf_initProperty(shm.data(), nullptr, recipe.data(), &status, parameters, &shareMutex);
        intf_setAddrValueChangeCallBack(countChange);
    }
};

// Reply envelope: 06 01 00 FF L <command bytes> check 04, the check byte over
// positions 3 .. size - 3.
inline QByteArray envelope(const std::vector<unsigned char>& afterAck) {
    QByteArray r;
    r.reserve(int(afterAck.size()) + 3);
    r.append(char(kvwire::ACK));
    for (unsigned char c : afterAck) r.append(char(c));
    const auto* b = reinterpret_cast<const uint8_t*>(r.constData());
    r.append(char(static_cast<uint8_t>(kvwire::checkSum(b + 3, r.size() - 3))));
    r.append(char(kvwire::EOT));
    return r;
}

// The answer to a word read of `count` words whose values are seed + i.
inline QByteArray wordReadReply(int count, unsigned seed) {
    std::vector<unsigned char> out = {0x01, 0x00, 0xFF, 0x00, kvwire::CMD_WORD, 0x00, 0x00, 0x00};
    for (int i = 0; i < count; ++i) {
        const unsigned v = (seed + unsigned(i)) & 0xFFFFu;
        out.push_back(static_cast<unsigned char>(v >> 8));
        out.push_back(static_cast<unsigned char>(v));
    }
    out[3] = static_cast<unsigned char>(out.size() - 3);
    return envelope(out);
}

// Runs the five handshake frames with their expected answers.
inline bool completeHandshake() {
    for (int i = 0; i < 5; ++i) {
        FRAME_PRO f;
        if (!intf_getSendFrame(&f)) return false;
        QByteArray reply;
        if (f.replyLength == kvwire::HANDSHAKE_1_REPLY_LEN)
            reply = envelope({0x01, 0x00, 0xFF, 0x02, 0x07, 0x01});
        else if (f.replyLength == kvwire::HANDSHAKE_2_REPLY_LEN)
            reply = envelope({0x01, 0x00, 0xFF, 0x03, 0x20, 0x00, 0x01});
        QString message;
        if (intf_dealRcvFrame(&reply, &message) != 1) return false;
    }
    return true;
}

inline KEY_ADDRESS key(int station, const char* reg, int address, int length) {
    KEY_ADDRESS k;
    k.station = station;
    k.reg = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    k.dataType = 1;
    return k;
}

// Random monitored keys with valid addresses, mixed registers and stations,
// kept to the first few thousand addresses so that neighbours meet.
inline QList<KEY_ADDRESS> randomKeys(int count) {
    struct Reg {
        const char* name;
        int top;        // highest address used
        int maxLength;  // runtime units: bits for bit registers, words otherwise
    };
    const Reg regs[] = {{"DM", 65535, 4},     {"DM_bit", 1048575, 20}, {"EM", 65535, 2},  {"TM", 9999, 4},
                        {"MR_bit", 15999, 8}, {"R", 15999, 8},         {"B", 16383, 8},   {"W", 1023, 2},
                        {"TC", 9999, 4},      {"CS", 9999, 2},         {"ZF", 131071, 2}, {"Z", 15, 2}};
    std::mt19937 rng(2024);
    QList<KEY_ADDRESS> keys;
    keys.reserve(count);
    for (int i = 0; i < count; ++i) {
        const Reg& r = regs[rng() % (sizeof regs / sizeof regs[0])];
        const int span = std::min(r.top + 1, 20000);
        const int length = 1 + int(rng() % r.maxLength);
        const int station = int(rng() % 4);
        keys.append(key(station, r.name, int(rng() % uint32_t(std::max(1, span - length))), length));
    }
    return keys;
}

}  // namespace kvbench

#endif
