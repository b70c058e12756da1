// What each register of the catalogue is, worked out once at compile time
// from the catalogue tables: the one place that says "this row is a word,
// a relay bit, a timer value...". The driver, the simulator, the host and
// the tests ask this table instead of comparing register names.
#ifndef KV3000_TRAITS_H
#define KV3000_TRAITS_H

#include "kv3000_catalogue.h"
#include "kv3000_wire.h"

#include <cstdint>

namespace kvreg {

// What one address of a register is on the device.
enum class Kind : uint8_t {
    None,        // not a catalogue row
    Word,        // a 16-bit word (DM, TM, CM, EM, FM, MR, LR, CR, W, ZF)
    DWord,       // a 32-bit value (Z, TRM)
    RelayBit,    // one relay bit (R, B), read as whole words, written one bit per frame
    Contact,     // a read-only timer/counter contact (T, C), read as nine-byte records
    TimerValue,  // a timer/counter value (TC, TS, CC, CS), read as records, written one per frame
    BitInWord,   // one bit of a word of the key row (MR_bit, DM_bit, ...)
};

// How an address is written: "100", "3FF" or "10.05" (word.bit).
enum class Notation : uint8_t { Decimal, Hex, WordBit };

// What one data-area entry of the register holds.
enum class Unit : uint8_t { None, Word, DWord, Bit, BitInWord };

struct Traits {
    Kind kind = Kind::None;
    int8_t keyRow = -1;  // row whose name keys the data area ("DM" for "DM_bit"); the row itself otherwise
    Notation notation = Notation::Decimal;
    bool readOnly = false;
    kvwire::TimerField field = kvwire::TimerField::None;  // the part of a timer record the row shows
    bool relayWord = false;      // the frame addresses the key row's words in bits: word * 16 (MR, LR, CR)
    uint8_t transferBits = 0;    // 1, 16 or 32: the unit of read blocks
    uint8_t elementBits = 0;     // 1 (the runtime counts bits), 16 or 32
    uint8_t readArea = 0;        // area code of reads, bit writes and word writes
    uint8_t valueWriteArea = 0;  // area code of timer/counter value writes

    constexpr Unit unit() const {
        switch (kind) {
            case Kind::Word:
                return Unit::Word;
            case Kind::DWord:
            case Kind::TimerValue:
                return Unit::DWord;
            case Kind::RelayBit:
            case Kind::Contact:
                return Unit::Bit;
            case Kind::BitInWord:
                return Unit::BitInWord;
            case Kind::None:
                break;
        }
        return Unit::None;
    }
    // The runtime counts lengths in bits for these, in 16-bit words otherwise.
    constexpr bool countsBits() const { return elementBits == 1; }
    // Bytes of one unit in the runtime's value buffers: 1 per bit, 2 per word, 4 per 32-bit value.
    constexpr int unitBytes() const { return countsBits() ? 1 : elementBits / 8; }
    // Runtime length units (bits or 16-bit words) per unit.
    constexpr int unitLength() const { return elementBits == 32 ? 2 : 1; }
    // Bytes per element in a read reply: timer records, or the transfer unit.
    constexpr int replyBytes() const {
        return kind == Kind::Contact || kind == Kind::TimerValue ? kvwire::TC_RECORD_LEN : transferBits / 8;
    }
    constexpr bool writable() const { return !readOnly && kind != Kind::None; }
};

namespace detail {

constexpr bool same(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) ++a, ++b;
    return *a == *b;
}

constexpr int decimal(const char* text) {
    int v = 0;
    for (; *text; ++text) v = v * 10 + (*text - '0');
    return v;
}

constexpr int length(const char* text) {
    int n = 0;
    while (text[n] != '\0') ++n;
    return n;
}

// Position of '_' in the name, -1 when it has none.
constexpr int underscore(const char* name) {
    for (int i = 0; name[i] != '\0'; ++i)
        if (name[i] == '_') return i;
    return -1;
}

// Row whose whole name equals the first n characters of text.
constexpr int rowOfPrefix(const char* text, int n) {
    for (int r = 0; r < REG_COUNT; ++r) {
        const char* name = REG_LIST[r];
        if (length(name) != n) continue;
        int k = 0;
        while (k < n && name[k] == text[k]) ++k;
        if (k == n) return r;
    }
    return -1;
}

constexpr Traits derive(int row) {
    const char* name = REG_LIST[row];
    const char* const* columns = ADDRESS_RANGE_PRO[row];
    Traits t;
    t.transferBits = static_cast<uint8_t>(decimal(columns[REG_COL_TRANSFER]));
    t.elementBits = static_cast<uint8_t>(decimal(columns[REG_COL_ELEMENT]));
    t.readOnly = same(columns[REG_COL_ACCESS], "R");
    t.readArea = static_cast<uint8_t>(REG_LIST_AREA[row]);
    t.valueWriteArea = static_cast<uint8_t>(REG_LIST_W_AREA[row]);

    const char* format = columns[REG_COL_FORMAT];
    const int formatLength = length(format);
    t.notation = Notation::Decimal;
    for (int i = 0; i < formatLength; ++i)
        if (format[i] == '.') t.notation = Notation::WordBit;
    if (t.notation != Notation::WordBit && formatLength > 0 && format[formatLength - 1] == 'H')
        t.notation = Notation::Hex;

    const int cut = underscore(name);
    t.keyRow = static_cast<int8_t>(cut < 0 ? row : rowOfPrefix(name, cut));

    if (cut >= 0 && t.elementBits == 1 && t.transferBits == 16) {
        t.kind = Kind::BitInWord;
    } else if (t.elementBits == 1 && t.transferBits == 1) {
        t.kind = t.readOnly ? Kind::Contact : Kind::RelayBit;
    } else if (t.elementBits == 16 && t.transferBits == 16) {
        t.kind = Kind::Word;
    } else if (t.elementBits == 32 && t.transferBits == 32) {
        // Timer and counter values are the 32-bit rows written through an area of their own.
        t.kind = t.valueWriteArea != t.readArea ? Kind::TimerValue : Kind::DWord;
    }

    const char last = name[length(name) - 1];
    if (t.kind == Kind::Contact) t.field = kvwire::TimerField::Contact;
    if (t.kind == Kind::TimerValue)
        t.field = last == 'C'   ? kvwire::TimerField::Current
                  : last == 'S' ? kvwire::TimerField::Set
                                : kvwire::TimerField::None;
    // Relay areas ("..R") count in bits on the device, so their words are addressed as word * 16.
    const char* key = REG_LIST[t.keyRow < 0 ? row : t.keyRow];
    const int keyLength = length(key);
    t.relayWord = (t.kind == Kind::Word || t.kind == Kind::BitInWord) && keyLength == 2 && key[1] == 'R';
    return t;
}

// One row per catalogue row, and a last one of Kind::None for everything else.
struct Table {
    Traits row[REG_COUNT + 1] = {};
};

constexpr Table makeTable() {
    Table t;
    for (int r = 0; r < REG_COUNT; ++r) t.row[r] = derive(r);
    return t;
}

}  // namespace detail

inline constexpr detail::Table REG_TRAITS = detail::makeTable();

// Row of a catalogue name at compile time; -1 when it is not one.
constexpr int rowOf(const char* name) {
    return detail::rowOfPrefix(name, detail::length(name));
}

// The traits of a row; a row outside the catalogue has Kind::None.
constexpr const Traits& traits(int row) {
    return REG_TRAITS.row[row >= 0 && row < REG_COUNT ? row : REG_COUNT];
}

// The catalogue rows of each kind, checked against what the device is.
namespace detail {
constexpr bool kindIs(const char* name, Kind kind) {
    return traits(rowOf(name)).kind == kind;
}
constexpr bool everyRowKnown() {
    for (int r = 0; r < REG_COUNT; ++r) {
        const Traits& t = REG_TRAITS.row[r];
        if (t.kind == Kind::None || t.keyRow < 0) return false;
        // A bit view keys the data area by a word row; every other row by itself.
        if ((t.kind == Kind::BitInWord) != (t.keyRow != r)) return false;
        if (t.kind == Kind::BitInWord && traits(t.keyRow).kind != Kind::Word) return false;
        if (t.kind == Kind::BitInWord && traits(t.keyRow).readArea != t.readArea) return false;
        if ((t.kind == Kind::TimerValue || t.kind == Kind::Contact) != (t.field != kvwire::TimerField::None))
            return false;
        if (t.readOnly != (t.kind == Kind::Contact)) return false;
    }
    return true;
}
}  // namespace detail

static_assert(detail::everyRowKnown(), "every catalogue row has one kind and a word key for bit views");
static_assert(detail::kindIs("R", Kind::RelayBit) && detail::kindIs("B", Kind::RelayBit), "relay bits");
static_assert(detail::kindIs("T", Kind::Contact) && detail::kindIs("C", Kind::Contact), "contacts");
static_assert(detail::kindIs("TC", Kind::TimerValue) && detail::kindIs("TS", Kind::TimerValue) &&
                  detail::kindIs("CC", Kind::TimerValue) && detail::kindIs("CS", Kind::TimerValue),
              "timer and counter values");
static_assert(detail::kindIs("Z", Kind::DWord) && detail::kindIs("TRM", Kind::DWord), "double words");
static_assert(detail::kindIs("DM", Kind::Word) && detail::kindIs("ZF", Kind::Word) &&
                  detail::kindIs("W", Kind::Word) && detail::kindIs("MR", Kind::Word),
              "words");
static_assert(detail::kindIs("DM_bit", Kind::BitInWord) && traits(rowOf("DM_bit")).keyRow == rowOf("DM"),
              "bit views");
static_assert(traits(rowOf("TC")).field == kvwire::TimerField::Current &&
                  traits(rowOf("CC")).field == kvwire::TimerField::Current &&
                  traits(rowOf("TS")).field == kvwire::TimerField::Set &&
                  traits(rowOf("CS")).field == kvwire::TimerField::Set &&
                  traits(rowOf("T")).field == kvwire::TimerField::Contact,
              "timer record fields");
static_assert(traits(rowOf("MR")).relayWord && traits(rowOf("LR")).relayWord &&
                  traits(rowOf("CR")).relayWord && traits(rowOf("MR_bit")).relayWord &&
                  !traits(rowOf("DM")).relayWord && !traits(rowOf("R")).relayWord,
              "relay words");
static_assert(traits(rowOf("R")).notation == Notation::WordBit &&
                  traits(rowOf("B")).notation == Notation::Hex &&
                  traits(rowOf("W")).notation == Notation::Hex &&
                  traits(rowOf("DM")).notation == Notation::Decimal,
              "notations");
static_assert(traits(rowOf("TC")).readArea == kvwire::AREA_T &&
                  traits(rowOf("TC")).valueWriteArea == kvwire::AREA_TC_WRITE,
              "timer areas");
static_assert(traits(-1).kind == Kind::None && rowOf("XX") == -1, "outside the catalogue");

}  // namespace kvreg

#endif
