// When two address keys may share one read block, and the order in which
// keys are merged.
#include "kv_3000/merge_rule.h"

#include "protocol.h"

int gapSplits(int64_t gap, int mode) {
    if (mode == 0) return gap > 0 ? 1 : 0;
    return gap > driver.maxGap ? 1 : 0;
}

int judgeAddrMerge(const KEY_ADDRESS& current, const KEY_ADDRESS& next, int mode) {
    if (current.station != next.station || current.reg != next.reg) return 1;
    const int64_t gap = int64_t(next.address) - (int64_t(current.address) + current.length);
    return gapSplits(gap, mode);
}

// The factor is 65535, not 65536: the last address of one register weighs
// the same as address 0 of the next. Sorting only has to keep each register's
// keys together and in address order, which this still does.
uint32_t regAddressWeight(int station, int regIndex, int address) {
    const uint32_t registers = uint32_t(driver.regList.size());
    return uint32_t(station) * (registers * 65535u) + uint32_t(regIndex) * 65535u + uint32_t(address);
}

int getRegAddressWeight(int station, QString reg, int address, int length) {
    Q_UNUSED(length);
    return int(regAddressWeight(station, driver.regList.indexOf(reg), address));
}
