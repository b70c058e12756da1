// Settling answered writes in the data area, and the monitor flags.
#include "serviceForProtocol/write_result.h"

#include "protocol.h"
#include "serviceForProtocol/data_area.h"

namespace {

void settleWords(int station, const UnitRegister& r, int address, int len, bool ok) {
    if (len > DATA_MAX_WORDS || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        const int idx = dataAreaEntry(station, r, address + i);
        _DATA_* e = dataAreaAt(idx);
        e->writeValid = 0;
        if (ok) {
            e->readValue[0] = e->writeValue[0];
            e->readValue[1] = e->writeValue[1];
            continue;
        }
        // The screen falls back from the written to the read value.
        int written = uchar2int16(e->writeValue[0], e->writeValue[1]);
        int read = uchar2int16(e->readValue[0], e->readValue[1]);
        _wordDataChange(&written, &read, idx, 0);
    }
}

void settleDwords(int station, const UnitRegister& r, int address, int len, bool ok) {
    if (len > DATA_MAX_WORDS / 2 || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        const int idx = dataAreaEntry(station, r, address + i);
        _DATA_* e = dataAreaAt(idx);
        e->writeValid = 0;
        if (ok) {
            for (int b = 0; b < 4; ++b) e->readValue[b] = e->writeValue[b];
        } else {
            _dwordDataChange(nullptr, nullptr, idx, 0);
        }
    }
}

void settleBits(int station, const UnitRegister& r, int address, int len, bool ok) {
    if (len > DATA_MAX_BITS || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        _DATA_* e = dataAreaAt(dataAreaEntry(station, r, address + i));
        e->writeValid = 0;
        if (ok)
            e->readValue[0] = e->writeValue[0];
        else
            reportValueChange(station, r.name, address + i);
    }
}

void settleBitsInWords(int station, const UnitRegister& r, int address, int len, bool ok) {
    if (len > DATA_MAX_BITS || address < 0 || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        const int b = address + i;
        const int p = b % 16;
        const int k = p / 8;
        const int j = b % 8;
        const int idx = dataAreaEntry(station, r, b / 16);
        _DATA_* e = dataAreaAt(idx);
        // Two flags per bit count up to two overlapping writes of it.
        const int q = 2 * p;
        const int release = ((e->bitWriteFlags >> q) & 1u) ? q : q + 1;
        e->bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e->bitWriteFlags), release, 0));
        if (e->bitWriteFlags == 0) e->writeValid = 0;
        if (ok) {
            const int bit = (e->writeValue[k] >> j) & 1;
            e->readValue[k] = static_cast<unsigned char>(_setBitValue(e->readValue[k], j, bit));
        }
        if (e->writeValid == 0) _wordDataChange(nullptr, nullptr, idx, 0);
    }
}

void setMonitorFlag(int index) {
    _DATA_* e = dataAreaAt(index);
    e->monitorFlags = static_cast<uint32_t>(_setBitValue(int(e->monitorFlags), 0, 1));
}

}  // namespace

void _write_FailOrSuc(int station, QString reg, int address, int len, int result) {
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0) return;
    const bool ok = result == 1;
    switch (r.kind) {
        case UNIT_WORD:
            settleWords(station, r, address, len, ok);
            break;
        case UNIT_DWORD:
            settleDwords(station, r, address, len, ok);
            break;
        case UNIT_BIT:
            settleBits(station, r, address, len, ok);
            break;
        case UNIT_BIT_IN_WORD:
            settleBitsInWords(station, r, address, len, ok);
            break;
        case UNIT_NONE:
            break;
    }
}

// A monitored key has no buffer behind it: it may span a whole register
// (1048576 bits of "DM_bit" is the largest), but no more.
enum { MONITOR_MAX_UNITS = 1 << 21 };

int _setDataAreaMonitorFlag(int station, QString reg, int address, int len) {
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0) return 0;
    switch (r.kind) {
        case UNIT_WORD:
            if (len > MONITOR_MAX_UNITS || !unitRangeFits(address, len)) break;
            for (int i = 0; i < len; ++i) setMonitorFlag(dataAreaEntry(station, r, address + i));
            break;
        case UNIT_DWORD: {
            const int units = len / 2;
            if (len > MONITOR_MAX_UNITS || units == 0 || !unitRangeFits(address, units)) break;
            for (int i = 0; i < units; ++i) setMonitorFlag(dataAreaEntry(station, r, address + i));
            break;
        }
        case UNIT_BIT:
            if (len > MONITOR_MAX_UNITS || !unitRangeFits(address, len)) break;
            for (int i = 0; i < len; ++i) setMonitorFlag(dataAreaEntry(station, r, address + i));
            break;
        case UNIT_BIT_IN_WORD:
            if (len > MONITOR_MAX_UNITS || address < 0 || !unitRangeFits(address, len)) break;
            for (int i = 0; i < len; ++i) {
                const int b = address + i;
                _DATA_* e = dataAreaAt(dataAreaEntry(station, r, b / 16));
                e->monitorBits = static_cast<uint32_t>(_setBitValue(int(e->monitorBits), b % 16, 1));
            }
            break;
        case UNIT_NONE:
            break;
    }
    return 0;
}
