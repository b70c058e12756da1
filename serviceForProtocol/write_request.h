#ifndef KV3000_WRITE_REQUEST_H
#define KV3000_WRITE_REQUEST_H

#include "kv3000_records.h"

#include <QList>

void groupingKey(KEY_ADDRESS& key, int maxLength, QList<KEY_ADDRESS>& out, int copyValues);

#endif
