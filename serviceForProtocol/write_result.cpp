// Settling answered writes in the data area, and the monitor flags.
#include "serviceForProtocol/write_result.h"

#include "protocol.h"
#include "serviceForProtocol/block_text.h"
#include "serviceForProtocol/data_area.h"

#include <QDebug>

#include <cstring>

namespace {

// Settles one unit: success makes the written value the read one; a failure
// lets the screen fall back from the written to the read value.
void settleUnit(const UnitRegister& r, const UnitStep& u, int address, bool ok) {
    _DATA_& e = driver.dataArea[u.entry];
    switch (r.kind) {
        case Unit::Word:
        case Unit::DWord:
            e.writeValid = 0;
            if (ok) {
                std::memcpy(e.readValue, e.writeValue, r.kind == Unit::Word ? 2 : 4);
            } else if (r.kind == Unit::Word) {
                int written = uchar2int16(e.writeValue[0], e.writeValue[1]);
                int read = uchar2int16(e.readValue[0], e.readValue[1]);
                _wordDataChange(&written, &read, u.entry, 0);
            } else {
                _dwordDataChange(nullptr, nullptr, u.entry, 0);
            }
            break;
        case Unit::Bit:
            e.writeValid = 0;
            if (ok)
                e.readValue[0] = e.writeValue[0];
            else
                reportValueChange(e.station, r.name, address + u.i);
            break;
        case Unit::BitInWord: {
            // Two flags per bit count up to two overlapping writes of it.
            const int q = 2 * (8 * u.byte + u.bit);
            const int release = ((e.bitWriteFlags >> q) & 1u) ? q : q + 1;
            e.bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e.bitWriteFlags), release, 0));
            if (e.bitWriteFlags == 0) e.writeValid = 0;
            if (ok) {
                const int bit = (e.writeValue[u.byte] >> u.bit) & 1;
                e.readValue[u.byte] =
                    static_cast<unsigned char>(_setBitValue(e.readValue[u.byte], u.bit, bit));
            }
            if (e.writeValid == 0) _wordDataChange(nullptr, nullptr, u.entry, 0);
            break;
        }
        case Unit::None:
            break;
    }
}

// The most units one write request settles: its values came in one 1024-byte buffer.
long long requestUnits(Unit kind, int len) {
    const long long limit = kind == Unit::DWord  ? DATA_MAX_WORDS / 2
                            : kind == Unit::Word ? DATA_MAX_WORDS
                                                 : DATA_MAX_BITS;
    return len <= limit ? len : 0;
}

}  // namespace

void _write_FailOrSuc(int station, QString reg, int address, int len, int result) {
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0) return;
    const bool ok = result == 1;
    // A report that re-initialises the driver ends the settling.
    const uint32_t epoch = driver.initEpoch;
    walkUnits(station, r, address, requestUnits(r.kind, len), [&](const UnitStep& u) {
        settleUnit(r, u, address, ok);
        return driver.initEpoch == epoch;
    });
}

void failWrite(int station, const QString& reg, int address, int length, const QString& why) {
    qWarning().noquote()
        << QStringLiteral("kv_3000: write %1 failed: %2").arg(blockText(station, reg, address, length), why);
    _write_FailOrSuc(station, reg, address, length, 0);
}

// A monitored key has no buffer behind it: it may span a whole register
// (1048576 bits of "DM_bit" is the largest), but no more.
enum { MONITOR_MAX_UNITS = 1 << 21 };

int _setDataAreaMonitorFlag(int station, QString reg, int address, int len) {
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0 || len > MONITOR_MAX_UNITS) return 0;
    const long long units = r.kind == Unit::DWord ? len / 2 : len;
    walkUnits(station, r, address, units, [&](const UnitStep& u) {
        _DATA_& e = driver.dataArea[u.entry];
        if (r.kind == Unit::BitInWord)
            e.monitorBits = static_cast<uint32_t>(_setBitValue(int(e.monitorBits), 8 * u.byte + u.bit, 1));
        else
            e.monitorFlags = static_cast<uint32_t>(_setBitValue(int(e.monitorFlags), 0, 1));
        return true;
    });
    return 0;
}
