#ifndef KV3000_ADDRESS_MERGE_H
#define KV3000_ADDRESS_MERGE_H

#include "kv3000_records.h"

#include <QList>

// Replaces keys by merged blocks. Mode 1: monitored addresses (all steps);
// mode 2: recipe keys (no "_bit" conversion, no sort, first pass only,
// recipe first-entry indices recorded in driver.rcpFirstIndex).
void addrMerge(QList<KEY_ADDRESS>& keys, int mode);

#endif
