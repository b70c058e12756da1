// The data area: the driver's cache of unit values, with change reporting.
#ifndef KV3000_DATA_AREA_H
#define KV3000_DATA_AREA_H

#include "kv3000_records.h"
#include "kv3000_traits.h"
#include "protocol.h"

#include <QByteArray>
#include <QString>
#include <QVector>

using kvreg::Unit;

// Index of the entry (station, regKey, address), created when missing.
int getIndexOfDataArea(int station, QString regKey, int address, QVector<_DATA_>& list);
// Empties driver.dataArea together with its index.
void clearDataArea();

void write_saveDataToArea(int station, QString reg, int address, int len, unsigned char* data);
void _wordDataChange(int* oldValue, int* newValue, int index, int skipBits);
void _dwordDataChange(int* oldValue, int* newValue, int index, int skipBits);
void _bitDataChange(int index);
// Calls the runtime's change callback, if one is registered, with driver.protocolId.
// name must outlive the call and must not be an entry's own regKey.
inline void reportValueChange(int station, const QString& name, int address) {
    const ValueChangeCallBack callback = driver.valueChangeCallBack;
    if (callback) callback(driver.protocolId, station, name, address);
}
// _wordDataChange for an entry whose key is catalogue row keyIndex (-1: unknown).
void wordDataChangeOf(const int* oldValue, const int* newValue, int index, int skipBits, int keyIndex);
// The whole-unit report of _dwordDataChange and _bitDataChange.
void reportUnitChange(int index);
// The catalogue's names as shared strings, and name + "_bit" (0 <= keyIndex < 28).
const QString& catalogueKeyName(int keyIndex);
const QString& catalogueBitName(int keyIndex);

int _setBitValue(int value, int bit, int on);
int uchar2int16(unsigned char b0, unsigned char b1);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
int asc2hex(QByteArray text, int pos);

// Largest len the runtime's 1024-byte value buffers allow.
enum { DATA_MAX_WORDS = 512, DATA_MAX_BITS = 1024 };

// A register resolved once per operation, so unit loops need no name lookups.
struct UnitRegister {
    Unit kind = Unit::None;
    QString name;       // the name as given ("DM_bit")
    QString key;        // the entries' regKey ("DM")
    int keyIndex = -1;  // catalogue row of key
};
// False (and kind Unit::None) for a name outside the catalogue.
bool resolveUnitRegister(const QString& reg, UnitRegister& out);
// Index in driver.dataArea of (station, r.key, address), created when missing.
int dataAreaEntry(int station, const UnitRegister& r, int address);
// The value a unit shows: the written one while a write is pending.
inline const unsigned char* shownValue(const _DATA_& e) {
    return e.writeValid == 1 ? e.writeValue : e.readValue;
}
// Entry at index of driver.dataArea, or null once the list no longer holds it
// (a change callback may re-initialise the driver).
_DATA_* dataAreaAt(int index);
// The entry is the unit (station, key, address). Keys of one register mostly
// share one string, so this is usually a few integer compares.
inline bool entryHasKey(const _DATA_& e, int station, const QString& key, int address) {
    return e.station == station && e.address == address && e.regKey.size() == key.size() &&
           (e.regKey.constData() == key.constData() || e.regKey == key);
}
// True when address .. address+count-1 stays inside int32 (count >= 1).
bool unitRangeFits(int address, long long count);

// The units a runtime length names inside one 1024-byte value buffer: one
// per word or bit, one per two words of a 32-bit register. 0 when the
// length is beyond the buffer.
long long bufferUnits(Unit kind, int len);

// One unit of a walk over a range: its entry, its position in the caller's
// buffer, and for a bit in a word the byte (0, 1) and bit (0..7) of the
// entry's value that hold it.
struct UnitStep {
    int entry;
    int i;
    int byte;
    int bit;
};

// Visits the units address .. address + count - 1 of (station, r) in
// ascending order; count is in units: bits for bit registers and bit views,
// otherwise words or 32-bit values. Each entry is looked up, created when
// missing, once (the bits of one word share it). A range that leaves the
// int range, or a bit view at a negative address, visits nothing. visit
// returns false to stop the walk.
template <typename Visit>
void walkUnits(int station, const UnitRegister& r, int address, long long count, Visit&& visit) {
    if (!unitRangeFits(address, count)) return;
    if (r.kind != Unit::BitInWord) {
        for (int i = 0; i < count; ++i)
            if (!visit(UnitStep{dataAreaEntry(station, r, address + i), i, 0, 0})) return;
        return;
    }
    if (address < 0) return;
    for (int i = 0, word = -1, entry = -1; i < count; ++i) {
        const int b = address + i;
        if (b / 16 != word) {
            word = b / 16;
            entry = dataAreaEntry(station, r, word);
        }
        if (!visit(UnitStep{entry, i, (b % 16) / 8, b % 8})) return;
    }
}

#endif
