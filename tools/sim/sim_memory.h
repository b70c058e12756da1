// Register memory of the simulated KV-3000 controller and the text form of
// its addresses ("DM100", "R5.03", "B3FF", "MR_bit10.05", "TC5").
#ifndef KV3000_SIM_MEMORY_H
#define KV3000_SIM_MEMORY_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvsim {

// One store per device area; the catalogue rows are views onto them
// ("DM_bit" and "DM" share DM, "TC" and "TS" share the T records).
enum class Store { R, B, CR, MR, LR, T, C, DM, TM, CM, EM, FM, W, ZF, Z, TRM, Count };

enum class UnitKind {
    Bit,      // R, B: the address is the bit number (word x 16 + bit for R)
    WordBit,  // MR_bit, DM_bit, ...: bit of a word store, address word x 16 + bit
    Contact,  // T, C
    Word,     // DM, TM, CM, EM, FM, MR, LR, CR, W, ZF
    Dword,    // Z, TRM
    Current,  // TC, CC
    Set,      // TS, CS
};

struct RegInfo {
    std::string name;  // as in the catalogue, case-sensitive
    int index;         // catalogue row
    Store store;
    UnitKind kind;
    bool wordBit;  // written word.bit
    bool hex;      // written in hexadecimal
    uint32_t min;
    uint32_t max;
    bool writable;  // by the device protocol (T and C are read-only there)
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

struct TimerRecord {
    bool contact = false;
    uint32_t current = 0;
    uint32_t set = 0;
};

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

    // Raw stores for the frame answerer and the live values: hold lock()
    // while touching them.
    std::unique_lock<std::mutex> lock() const { return std::unique_lock<std::mutex>(mutex_); }
    std::vector<uint16_t>& words(Store s) { return words_[static_cast<int>(s)]; }
    std::vector<uint32_t>& dwords(Store s) { return dwords_[static_cast<int>(s)]; }
    std::vector<TimerRecord>& timers(Store s) { return timers_[static_cast<int>(s)]; }

private:
    std::optional<uint32_t> getLocked(const RegInfo& reg, uint32_t address) const;

    mutable std::mutex mutex_;
    std::vector<uint16_t> words_[static_cast<int>(Store::Count)];
    std::vector<uint32_t> dwords_[static_cast<int>(Store::Count)];
    std::vector<TimerRecord> timers_[static_cast<int>(Store::Count)];
};

}  // namespace kvsim

#endif
