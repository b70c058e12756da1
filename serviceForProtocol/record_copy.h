// Whole-record assignment of the records with 1024-byte buffers. The same as
// the implicit member-wise assignment, but the buffers go by memcpy: the
// compiler copies them byte by byte otherwise, as the two may be one object.
#ifndef KV3000_RECORD_COPY_H
#define KV3000_RECORD_COPY_H

#include "kv3000_records.h"

#include <QString>

#include <cstring>

// to = from, skipped when to already holds from's very characters: a frame
// or block handed on again and again keeps its name.
// The copy is made inline (copy and swap) rather than by QString's
// out-of-line assignment, so every reference count change stays visible to a
// thread checker.
inline void assignName(QString& to, const QString& from) {
    if (to.constData() == from.constData() && to.size() == from.size()) return;
    QString copy(from);
    to.swap(copy);
}

inline void assignRecord(VARIABLE& to, const VARIABLE& from) {
    if (&to == &from) return;
    to.id = from.id;
    to.station = from.station;
    assignName(to.reg, from.reg);
    to.address = from.address;
    to.length = from.length;
    std::memcpy(to.data, from.data, sizeof to.data);
}

inline void assignRecord(FRAME_PRO& to, const FRAME_PRO& from) {
    if (&to == &from) return;
    std::memcpy(to.frame, from.frame, sizeof to.frame);
    to.sendLength = from.sendLength;
    to.replyLength = from.replyLength;
    to.dataOffset = from.dataOffset;
    to.elementCount = from.elementCount;
    to.reserved = from.reserved;
    to.id = from.id;
    to.station = from.station;
    assignName(to.reg, from.reg);
    to.address = from.address;
    to.length = from.length;
    std::memcpy(to.data, from.data, sizeof to.data);
}

#endif
