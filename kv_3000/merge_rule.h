// The rule that decides whether two address keys may share one read block,
// and the weight by which keys are sorted before merging.
#ifndef KV3000_MERGE_RULE_H
#define KV3000_MERGE_RULE_H

#include "kv3000_records.h"

#include <QString>

#include <cstdint>

// 1 when next must start a new block, 0 when it may join current.
int judgeAddrMerge(const KEY_ADDRESS& current, const KEY_ADDRESS& next, int mode);
// station * (28 * 65535) + register index * 65535 + address, wrapping at 32 bits.
int getRegAddressWeight(int station, QString reg, int address, int length);

// The same weight for a register already looked up: regIndex is its position
// in driver.regList (-1 when absent).
uint32_t regAddressWeight(int station, int regIndex, int address);
// The gap rule of judgeAddrMerge for same-station, same-register keys: 1 when
// a key starting `gap` units after the current block's end starts a new block.
int gapSplits(int64_t gap, int mode);

#endif
