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
void reportValueChange(int station, const QString& name, int address);

int _setBitValue(int value, int bit, int on);
int uchar2int16(unsigned char b0, unsigned char b1);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
int asc2hex(QByteArray text, int pos);

#endif
