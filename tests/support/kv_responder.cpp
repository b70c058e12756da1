#include "kv_responder.h"

#include "kv3000_wire.h"

namespace {

uint32_t be(const unsigned char* p, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

bool isRelayWordArea(int area) {
    return area == 17 || area == 18 || area == 1;
}
bool isTimerArea(int area) {
    return area == 2 || area == 3;
}
bool isDwordArea(int area) {
    return area == 48 || area == 38;
}
bool isBitArea(int area) {
    return area == 0 || area == 27;
}

}  // namespace

QByteArray envelope(const std::vector<unsigned char>& afterAck) {
    QByteArray r;
    r.append(char(0x06));
    for (unsigned char c : afterAck) r.append(char(c));
    const auto* b = reinterpret_cast<const uint8_t*>(r.constData());
    const uint8_t check = static_cast<uint8_t>(kvwire::checkSum(b + 3, r.size() - 3));
    r.append(char(check));
    r.append(char(0x04));
    return r;
}

uint16_t KvResponder::word(int area, int address) const {
    auto it = words_.find({area, address});
    return it == words_.end() ? 0 : it->second;
}
bool KvResponder::bit(int area, int address) const {
    auto it = bits_.find({area, address});
    return it != bits_.end() && it->second;
}
uint32_t KvResponder::dword(int area, int address) const {
    auto it = dwords_.find({area, address});
    return it == dwords_.end() ? 0 : it->second;
}

QByteArray KvResponder::answer(const unsigned char* f, int size) {
    ++requests;
    if (size == 1 && f[0] == 0x06) return QByteArray();
    if (size == 8 && f[0] == 0x01) return envelope({0x01, 0x00, 0xFF, 0x02, 0x07, 0x01});         // 9 bytes
    if (size == 12 && f[0] == 0x01) return envelope({0x01, 0x00, 0xFF, 0x03, 0x20, 0x00, 0x01});  // 10 bytes
    if (size < 13 || f[0] != 0x06) return QByteArray("\x15", 1);
    const int cmd = f[5];
    if (cmd == 0x1E && f[6] == 0x00) {  // read
        const int area = f[8];
        const int count = int(be(f + 11, 2));
        const int start = int(be(f + 13, 4));
        std::vector<unsigned char> out = {0x01, 0x00, 0xFF, 0x00, 0x1E, 0x00, 0x00, 0x00};
        for (int i = 0; i < count; ++i) {
            if (isTimerArea(area)) {
                Timer& t = timer(area, start + i);
                out.push_back(t.contact ? 0x80 : 0x00);
                for (int s = 24; s >= 0; s -= 8) out.push_back((t.current >> s) & 0xFF);
                for (int s = 24; s >= 0; s -= 8) out.push_back((t.set >> s) & 0xFF);
            } else if (isDwordArea(area)) {
                const uint32_t v = dword(area, start + i);
                for (int s = 24; s >= 0; s -= 8) out.push_back((v >> s) & 0xFF);
            } else if (isBitArea(area)) {
                uint16_t v = 0;
                for (int b = 0; b < 16; ++b)
                    if (bit(area, start + 16 * i + b)) v |= uint16_t(1u << b);
                out.push_back(v >> 8);
                out.push_back(v & 0xFF);
            } else {
                const int address = isRelayWordArea(area) ? start / 16 + i : start + i;
                const uint16_t v = word(area, address);
                out.push_back(v >> 8);
                out.push_back(v & 0xFF);
            }
        }
        out[3] = static_cast<unsigned char>(out.size() - 3);
        return envelope(out);
    }
    if (cmd == 0x1E && f[6] == 0x01) {  // word / double-word write
        const int area = f[8];
        const int count = int(be(f + 11, 2));
        const int start = int(be(f + 13, 4));
        const int dataBytes = f[4] - 12;
        if (isDwordArea(area) || isTimerArea(area)) {
            if (dataBytes != 4 * count) return QByteArray("\x15", 1);
            for (int i = 0; i < count; ++i) setDword(area, start + i, be(f + 17 + 4 * i, 4));
        } else {
            if (dataBytes != 2 * count) return QByteArray("\x15", 1);
            for (int i = 0; i < count; ++i) {
                const int address = isRelayWordArea(area) ? start / 16 + i : start + i;
                setWord(area, address, uint16_t(be(f + 17 + 2 * i, 2)));
            }
        }
        return envelope({0x01, 0x00, 0xFF, 0x02, 0x1E, 0x01, 0x00});
    }
    if (cmd == 0x32 || cmd == 0x33) {  // bit set / reset
        setBit(f[8], int(be(f + 9, 2)), cmd == 0x32);
        return envelope({0x01, 0x00, 0xFF, 0x02, static_cast<unsigned char>(cmd), 0x00});
    }
    if (cmd == 0x18) {  // timer / counter value write
        const int warea = f[8];
        const int number = int(be(f + 9, 2));
        const uint32_t v = be(f + 11, 4);
        Timer& t = timer(warea <= 33 ? 2 : 3, number);
        if (warea == 32 || warea == 34)
            t.current = v;
        else
            t.set = v;
        return envelope({0x01, 0x00, 0xFF, 0x02, 0x18, 0x00});
    }
    return QByteArray("\x15", 1);
}

std::vector<LoopStep> runLoop(KvResponder& plc, int steps,
                              const std::function<QByteArray(const FRAME_PRO&, QByteArray)>& tamper) {
    std::vector<LoopStep> done;
    for (int i = 0; i < steps; ++i) {
        FRAME_PRO f;
        if (!intf_getSendFrame(&f)) break;
        QByteArray reply = plc.answer(f);
        if (tamper) reply = tamper(f, reply);
        QString message;
        const int result = intf_dealRcvFrame(&reply, &message);
        done.push_back({f, result});
    }
    return done;
}
