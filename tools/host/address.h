// Address texts of the command line ("DM100", "DM100:10", "MR_bit10.05",
// "R5.03", "B3FF", "TC5"), checked with the driver's own validation before
// anything is sent.
#ifndef KV3000_HOST_ADDRESS_H
#define KV3000_HOST_ADDRESS_H

#include "driver_loader.h"
#include "kv3000_traits.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace kvhost {

struct RegisterInfo {
    QString name;
    QString format;  // "DDDDD", "HHHH", "DDD.DD"
    QString min;
    QString max;
    int minAddress = 0;  // integer forms of min and max
    int maxAddress = 0;
    kvreg::Traits traits;  // what the register is, from the one table

    // Bit, bit of a word, 16-bit word or 32-bit value.
    kvreg::Unit unit() const { return traits.unit(); }
    bool isBit() const { return traits.countsBits(); }
    bool writable() const { return traits.writable(); }
    bool wordBitNotation() const { return traits.notation == kvreg::Notation::WordBit; }
    bool hexNotation() const { return traits.notation == kvreg::Notation::Hex; }
    // The runtime's data type code: -1 bit, 0 16-bit, 3 32-bit.
    int dataType() const { return isBit() ? -1 : unit() == kvreg::Unit::DWord ? 3 : 0; }
    // Bytes per unit in the runtime's value buffers.
    int unitBytes() const { return traits.unitBytes(); }
    // Runtime length units (bits or 16-bit words) per unit.
    int unitLength() const { return traits.unitLength(); }
    // The largest count whose values fit one 1024-byte buffer.
    int maxCount() const { return 1024 / unitBytes(); }
};

// The driver's register catalogue, asked through intf_getRegListByType and
// intf_getRegDiscription; what each register is comes from the traits table.
class Catalogue {
public:
    explicit Catalogue(const DriverApi& api);
    const std::vector<RegisterInfo>& registers() const { return regs_; }
    const RegisterInfo* find(const QString& name) const;  // exact name
    // The longest catalogue name that prefixes text, compared without case
    // ("DM_bit" before "DM", "TC" before "T").
    const RegisterInfo* longestPrefix(const QString& text) const;

private:
    std::vector<RegisterInfo> regs_;
};

struct Address {
    QString text;  // as written, "DM100:3"
    const RegisterInfo* reg = nullptr;
    int address = 0;  // the driver's integer form
    int count = 1;    // units: bits, words or 32-bit values

    int runtimeLength() const { return count * reg->unitLength(); }
    int bufferBytes() const { return count * reg->unitBytes(); }
    // The name of unit i in the register's notation: "DM101", "R5.04", "B3FF".
    QString unitName(int i) const;
};

enum class Access { Read, Write };

// Parses and validates "REGaddr[:N]". false with a one-line message naming
// the text and what is wrong (unknown register, malformed address or count,
// out of range, read-only).
bool parseAddress(const Catalogue& catalogue, const DriverApi& api, const QString& text, Access access,
                  Address& out, QString* error);

// The name of a unit at an integer address in the register's notation.
QString formatUnit(const RegisterInfo& reg, int address);

// A value for one unit: decimal (negative allowed) or 0x hexadecimal, within
// the unit's width. The result is the unit's bit pattern.
bool parseValue(const RegisterInfo& reg, const QString& text, uint32_t& out, QString* error);

// Unit values little-endian into a runtime buffer, and back.
void storeValue(const RegisterInfo& reg, uint32_t value, unsigned char* unit);
uint32_t loadValue(const RegisterInfo& reg, const unsigned char* unit);

// "1234 (0x04D2)" for words, "100000 (0x000186A0)" for 32-bit, "1" for bits.
QString formatValue(const RegisterInfo& reg, uint32_t value);

}  // namespace kvhost

#endif
