// Records as the runtime hands them over and as the driver queues them,
// each built in one call, and a short text of a queue's items.
#ifndef KV3000_TEST_RECORDS_H
#define KV3000_TEST_RECORDS_H

#include "kv3000_traits.h"
#include "protocol.h"

#include <QStringList>

#include <cstdint>
#include <initializer_list>
#include <mutex>

inline KEY_ADDRESS makeKey(const char* reg, int address, int length, int station = 1, int dataType = 0) {
    KEY_ADDRESS k;
    k.station = station;
    k.reg = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    k.dataType = dataType;
    return k;
}

inline _RCP_VAR_PRO makeEntry(const char* reg, int address, int length, int bufferOffset,
                              int protocolId = 1) {
    _RCP_VAR_PRO e;
    e.protocolId = protocolId;
    e.station = 1;
    e.reg = QString::fromLatin1(reg);
    e.address = address;
    e.length = length;
    e.bufferOffset = bufferOffset;
    return e;
}

inline VARIABLE makeItem(const char* reg, int address, int length = 1, int station = 1) {
    VARIABLE v;
    v.station = station;
    v.reg = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    return v;
}

// Appends to the driver's write queue as the write path does, under its mutex.
inline void queueWrites(std::initializer_list<VARIABLE> items) {
    std::lock_guard<std::mutex> lock(driver.mutex);
    for (const VARIABLE& v : items) driver.writeList.append(v);
}

// What intf_getData shows for one unit of station 1, low byte first: a word,
// a double word ("TC", "Z", ...) or a bit.
inline uint32_t shownUnit(const char* reg, int address) {
    unsigned char b[4] = {};
    intf_getData(1, QString::fromLatin1(reg), address, kvreg::traits(kvreg::rowOf(reg)).unitLength(), b);
    return uint32_t(b[0] | b[1] << 8 | b[2] << 16 | uint32_t(b[3]) << 24);
}

// "DM(100,4) DM(104,4)": register, address and length of each item.
inline QString shapeOf(const QList<VARIABLE>& list) {
    QStringList s;
    for (const VARIABLE& v : list) s << QStringLiteral("%1(%2,%3)").arg(v.reg).arg(v.address).arg(v.length);
    return s.join(' ');
}

#endif
