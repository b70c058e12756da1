// The data area: the driver's cache of unit values, with change reporting.
#ifndef KV3000_DATA_AREA_H
#define KV3000_DATA_AREA_H

#include "kv3000_records.h"

#include <QByteArray>
#include <QList>
#include <QString>

enum UnitKind { UNIT_NONE = 0, UNIT_WORD, UNIT_DWORD, UNIT_BIT, UNIT_BIT_IN_WORD };

// Unit kind of a catalogue register (UNIT_NONE for a name outside the catalogue).
UnitKind unitKindOf(const QString& reg);
// Register name up to its first "_" ("DM_bit" -> "DM").
QString regKeyOf(const QString& reg);

// Index of the entry (station, regKey, address), created when missing.
int getIndexOfDataArea(int station, QString regKey, int address, QList<_DATA_>& list);
// Empties driver.dataArea together with its index.
void clearDataArea();

void write_saveDataToArea(int station, QString reg, int address, int len, unsigned char* data);
void _wordDataChange(int* oldValue, int* newValue, int index, int skipBits);
void _dwordDataChange(int* oldValue, int* newValue, int index, int skipBits);
void _bitDataChange(int index);
// Calls the runtime's change callback, if one is registered, with driver.protocolId.
// name must outlive the call and must not be an entry's own regKey.
void reportValueChange(int station, const QString& name, int address);
// _wordDataChange for an entry whose key is catalogue row keyIndex (-1: unknown).
void wordDataChangeOf(const int* oldValue, const int* newValue, int index, int skipBits, int keyIndex);
// The whole-unit report of _dwordDataChange and _bitDataChange.
void reportUnitChange(int index);
// The catalogue's names as shared strings, and name + "_bit" (0 <= keyIndex < 28).
const QString& catalogueKeyName(int keyIndex);
const QString& catalogueBitName(int keyIndex);
// Row of the key of catalogue row `row` ("DM" for "DM_bit"), -1 outside the table.
int catalogueKeyIndex(int row);
// Whether the name of catalogue row `row` contains "_bit".
bool catalogueBitView(int row);

int _setBitValue(int value, int bit, int on);
int uchar2int16(unsigned char b0, unsigned char b1);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
int asc2hex(QByteArray text, int pos);

// Largest len the runtime's 1024-byte value buffers allow.
enum { DATA_MAX_WORDS = 512, DATA_MAX_BITS = 1024 };

// A register resolved once per operation, so unit loops need no name lookups.
struct UnitRegister {
    UnitKind kind = UNIT_NONE;
    QString name;       // the name as given ("DM_bit")
    QString key;        // the entries' regKey ("DM")
    int keyIndex = -1;  // catalogue row of key
};
// False (and kind UNIT_NONE) for a name outside the catalogue.
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

#endif
