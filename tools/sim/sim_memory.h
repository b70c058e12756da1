// Register memory of the simulated KV-3000 controller and the text form of
// its addresses ("DM100", "R5.03", "B3FF", "MR_bit10.05", "TC5").
#ifndef KV3000_SIM_MEMORY_H
#define KV3000_SIM_MEMORY_H

#include "kv3000_traits.h"
#include "kv3000_wire.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvsim {

// One row of the catalogue, with its range as integers. What the row is
// comes from the one traits table; its store is the device area it reads
// ("DM_bit" and "DM" share DM's words, "TC" and "TS" the T records).
struct RegInfo {
    std::string name;  // as in the catalogue, case-sensitive
    int index;         // catalogue row
    kvreg::Traits traits;
    uint32_t min;
    uint32_t max;

    uint8_t area() const { return traits.readArea; }
    bool isBit() const { return traits.countsBits(); }
    bool isWide() const { return traits.elementBits == 32; }
};

// The 28 catalogue rows, in catalogue order.
const std::vector<RegInfo>& registers();
// Exact, case-sensitive name lookup; nullptr when unknown.
const RegInfo* findRegister(std::string_view name);

// Parses an address written in the row's notation ("5.03", "3FF", "100");
// the result is the integer form (word x 16 + bit for word.bit rows).
// Range is not checked here.
std::optional<uint32_t> parseAddressText(const RegInfo& reg, std::string_view text);
std::string formatAddress(const RegInfo& reg, uint32_t address);  // "R5.03", "B3FF", "DM100"

struct UnitRef {
    const RegInfo* reg = nullptr;
    uint32_t address = 0;
};
// "DM100", "mr_bit10.05", "TC5": the longest register name that prefixes the
// text (names compared without case), then the address in its notation,
// checked against the row's range. On failure error gets a one-line reason.
std::optional<UnitRef> parseUnit(std::string_view text, std::string* error = nullptr);

using TimerRecord = kvwire::TimerRecord;

class Memory {
public:
    Memory();
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    // Unit access by register name (catalogue spelling) and integer address.
    // Bits read 0/1 and store value != 0; words keep the low 16 bits.
    std::optional<uint32_t> get(std::string_view reg, uint32_t address) const;
    bool set(std::string_view reg, uint32_t address, uint32_t value);
    std::optional<uint32_t> get(const RegInfo& reg, uint32_t address) const;
    bool set(const RegInfo& reg, uint32_t address, uint32_t value);
    void clear();

    // Raw stores by area code, for the frame answerer and the live values:
    // hold lock() while touching them. Relay bits are kept 16 to a word.
    std::unique_lock<std::mutex> lock() const { return std::unique_lock<std::mutex>(mutex_); }
    std::vector<uint16_t>& words(uint8_t area) { return words_[area]; }
    std::vector<uint32_t>& dwords(uint8_t area) { return dwords_[area]; }
    std::vector<TimerRecord>& timers(uint8_t area) { return timers_[area]; }

private:
    std::optional<uint32_t> getLocked(const RegInfo& reg, uint32_t address) const;

    mutable std::mutex mutex_;
    std::vector<uint16_t> words_[256];
    std::vector<uint32_t> dwords_[256];
    std::vector<TimerRecord> timers_[256];
};

}  // namespace kvsim

#endif
