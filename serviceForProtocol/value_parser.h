#ifndef KV3000_VALUE_PARSER_H
#define KV3000_VALUE_PARSER_H

#include "kv3000_records.h"

#include <QByteArray>

#include <QString>

int analyzeFrameOfVal(QByteArray reply, int count, int offset, VARIABLE var);

// The register fields of the frame whose reply is parsed. data is read only
// before the first change report (the bit-write patch), so it may point into
// the frame itself.
struct ParsedBlock {
    int32_t station;
    const QString& reg;
    int32_t address;
    int32_t length;
    const unsigned char* data;
};
// analyzeFrameOfVal without the copies of the block's 1024 data bytes.
int parseReadReply(const QByteArray& reply, int count, int offset, const ParsedBlock& var);

// Cyclic read blocks keep the data-area positions of their units; forgotten
// when the data area is emptied or the read list rebuilt.
void forgetReadBlockUnits();

#endif
