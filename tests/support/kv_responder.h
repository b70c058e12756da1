// A small controller stand-in for in-process tests: keeps register memory by
// area code and answers request frames in the device's reply layout.
#ifndef KV3000_TEST_KV_RESPONDER_H
#define KV3000_TEST_KV_RESPONDER_H

#include "protocol.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

class KvResponder {
public:
    // The reply to one request frame (empty for the lone acknowledge byte).
    QByteArray answer(const unsigned char* frame, int size);
    QByteArray answer(const FRAME_PRO& f) { return answer(f.frame, f.sendLength); }

    // Memory, by area code as the frames name it.
    uint16_t word(int area, int address) const;
    void setWord(int area, int address, uint16_t v) { words_[{area, address}] = v; }
    bool bit(int area, int address) const;  // R (0) and B (27) bits
    void setBit(int area, int address, bool v) { bits_[{area, address}] = v; }
    uint32_t dword(int area, int address) const;  // Z (48), TRM (38)
    void setDword(int area, int address, uint32_t v) { dwords_[{area, address}] = v; }
    struct Timer {
        bool contact = false;
        uint32_t current = 0;
        uint32_t set = 0;
    };
    Timer& timer(int area, int number) { return timers_[{area, number}]; }  // T/TC/TS: 2, C/CC/CS: 3

    int requests = 0;

private:
    std::map<std::pair<int, int>, uint16_t> words_;
    std::map<std::pair<int, int>, bool> bits_;
    std::map<std::pair<int, int>, uint32_t> dwords_;
    std::map<std::pair<int, int>, Timer> timers_;
};

// Envelope of a reply: 06 then the given bytes (from position 1), check byte, 04.
QByteArray envelope(const std::vector<unsigned char>& afterAck);

// Runs the runtime's loop: frame out, answer, reply in. Stops after `steps`
// transactions' frames or when the driver has nothing to send.
struct LoopStep {
    FRAME_PRO frame;
    int result;
};
std::vector<LoopStep> runLoop(
    KvResponder& plc, int steps,
    const std::function<QByteArray(const FRAME_PRO&, QByteArray)>& tamper = nullptr);

#endif
