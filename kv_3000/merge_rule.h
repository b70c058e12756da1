// The rule that decides whether two address keys may share one read block,
// and the weight by which keys are sorted before merging.
#ifndef KV3000_MERGE_RULE_H
#define KV3000_MERGE_RULE_H

#include "kv3000_records.h"

#include <QString>

// 1 when next must start a new block, 0 when it may join current.
int judgeAddrMerge(const KEY_ADDRESS& current, const KEY_ADDRESS& next, int mode);
// station * (28 * 65535) + register index * 65535 + address, wrapping at 32 bits.
int getRegAddressWeight(int station, QString reg, int address, int length);

#endif
