// Text and integer forms of KV-3000 addresses. Registers written word.bit
// ("R" and the "_bit" views) are held as word * 16 + bit; all others are one
// number in the base of their format.
#ifndef KV3000_ADDRESS_CODEC_H
#define KV3000_ADDRESS_CODEC_H

#include <QString>

// A catalogue register written word.bit.
bool isWordBitRegister(const QString& reg);
int addr_str2int(QString text, QString reg);
QString addr_int2str(int address, QString reg);
int a2i(QString text, int& value, QString format, QString reg);
int addrOffset(QString reg, int address);

#endif
