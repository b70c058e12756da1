#ifndef KV3000_ADDRESS_MERGE_H
#define KV3000_ADDRESS_MERGE_H

#include "kv3000_records.h"

#include <QList>
#include <QString>

#include <cstdint>

// Replaces keys by merged blocks. Mode 1: monitored addresses (all steps);
// mode 2: recipe keys (no "_bit" conversion, no sort, first pass only,
// recipe first-entry indices recorded in driver.rcpFirstIndex).
void addrMerge(QList<KEY_ADDRESS>& keys, int mode);

// One merged block: the position in the keys of the key that started it,
// and its register, address and length in transfer units.
struct MergedBlock {
    int source;
    QString reg;
    int32_t address;
    int32_t length;
    int32_t recipeOffset;
};
// What addrMerge leaves in keys, without copying any key: keys is only read.
QList<MergedBlock> mergedBlocks(const QList<KEY_ADDRESS>& keys, int mode);

#endif
