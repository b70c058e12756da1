#ifndef KV3000_VALUE_PARSER_H
#define KV3000_VALUE_PARSER_H

#include "kv3000_records.h"

#include <QByteArray>

int analyzeFrameOfVal(QByteArray reply, int count, int offset, VARIABLE var);

#endif
