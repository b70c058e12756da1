// The controller of in-process tests: the simulator's register memory and
// protocol core answering the driver's frames, and the runtime's loop.
#ifndef KV3000_TEST_SIM_PLC_H
#define KV3000_TEST_SIM_PLC_H

#include "protocol.h"
#include "sim_memory.h"
#include "sim_protocol.h"

#include <QByteArray>

#include <functional>
#include <vector>

struct SimPlc {
    kvsim::Memory mem;
    int requests = 0;

    // The reply to one request frame (empty for the lone acknowledge byte).
    QByteArray answer(const FRAME_PRO& f);
    // A unit by register name and integer address ("R" 37 is R2.05); 0 outside the register.
    uint32_t get(const char* reg, uint32_t address) const { return mem.get(reg, address).value_or(0); }
    void set(const char* reg, uint32_t address, uint32_t value) { mem.set(reg, address, value); }
};

// A reply in the device's envelope around the given command bytes.
QByteArray replyOf(const std::vector<uint8_t>& body);

// Runs the runtime's loop: frame out, answer, reply in. Stops after `steps`
// frames or when the driver has nothing to send.
struct LoopStep {
    FRAME_PRO frame;
    int result;
};
std::vector<LoopStep> runLoop(
    SimPlc& plc, int steps, const std::function<QByteArray(const FRAME_PRO&, QByteArray)>& tamper = nullptr);

#endif
