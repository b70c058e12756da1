// Recipe addresses: the runtime's recipe entries for this driver, sorted and
// merged into the blocks that a recipe transfer sends one by one.
//
// Recipe buffer layout, per entry, from its bufferOffset (in 16-bit words):
//   16-bit registers: one word per register word;
//   32-bit registers: two words per value, low half first (an entry of one
//   word names no whole value, and a transfer that reaches it fails);
//   bit registers (R, B, T, C) and "_bit" registers: one word per bit, 0 or 1
//   (a download sets the bit for any non-zero word).
// Entries of one block lie back to back in the buffer, so a block's values
// start at its first entry's offset.
#include "serviceForProtocol/recipe.h"

#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv_3000/merge_rule.h"
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"
#include "serviceForProtocol/block_text.h"

#include <QDebug>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// An entry no block can carry stops every transfer that reaches it: say so
// when it is registered, naming it.
void warnIfUntransferable(const _RCP_VAR_PRO& e) {
    const kvreg::Traits& t = kvreg::traits(getIndexFromRegName(e.reg));
    const char* why = nullptr;
    if (t.kind == kvreg::Kind::None)
        why = "unknown register";
    else if (e.length <= 0)
        why = "no length";
    else if (!t.countsBits() && e.length * 16LL / t.transferBits == 0)
        why = "less than one 32-bit value (two words)";
    if (!why) return;
    qWarning().noquote() << QStringLiteral(
                                "kv_3000: recipe entry %1 names %2: a transfer that reaches it fails")
                                .arg(blockText(e.station, e.reg, e.address, e.length), QLatin1String(why));
}

}  // namespace

int intf_setRcpAddress(QVector<_RCP_VAR_PRO>& entries) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);

    QVector<_RCP_VAR_PRO> accepted;
    for (const _RCP_VAR_PRO& e : qAsConst(entries)) {
        if (e.protocolId == driver.protocolId) accepted.append(e);
    }
    driver.rcpVarList.clear();
    if (accepted.isEmpty()) return 0;

    // Stable order by the unsigned weight (station, register, address).
    std::vector<uint32_t> weight(accepted.size());
    std::vector<int> order(accepted.size());
    for (int i = 0; i < accepted.size(); ++i) {
        const _RCP_VAR_PRO& e = accepted.at(i);
        weight[i] = static_cast<uint32_t>(getRegAddressWeight(e.station, e.reg, e.address, 1));
        order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return weight[a] < weight[b]; });
    driver.rcpVarList.reserve(accepted.size());
    for (int i : order) {
        driver.rcpVarList.append(accepted.at(i));
        warnIfUntransferable(accepted.at(i));
    }

    QList<KEY_ADDRESS> keys;
    keys.reserve(driver.rcpVarList.size());
    for (const _RCP_VAR_PRO& e : qAsConst(driver.rcpVarList)) {
        KEY_ADDRESS k;
        k.station = e.station;
        k.reg = e.reg;
        k.address = e.address;
        k.length = e.length;
        k.recipeOffset = e.bufferOffset;
        keys.append(k);
    }

    driver.rcpFirstIndex.clear();
    driver.rcpBlockList.clear();
    addrMerge(keys, 2);
    driver.rcpBlockList.reserve(keys.size());
    for (const KEY_ADDRESS& k : qAsConst(keys)) {
        _RCP_VAR_PRO block;
        block.station = k.station;
        block.reg = k.reg;
        block.address = k.address;
        block.length = k.length;
        block.bufferOffset = k.recipeOffset;
        driver.rcpBlockList.append(block);
    }
    return driver.rcpVarList.size();
}

void rcpAddrToVar(const _RCP_VAR_PRO& block, VARIABLE& var, int copyValues) {
    var.station = block.station;
    var.reg = block.reg;
    var.address = block.address;
    var.length = block.length;
    std::memset(var.data, 0, sizeof var.data);
    if (!copyValues || !driver.recipeBuffer || block.bufferOffset < 0 || block.length <= 0) return;

    const kvreg::Traits& t = kvreg::traits(getIndexFromRegName(block.reg));
    if (t.kind == kvreg::Kind::None) return;
    const unsigned short* words = driver.recipeBuffer + block.bufferOffset;
    if (t.countsBits()) {
        // One buffer word per bit; the write path wants one byte per bit.
        const int n = std::min<int>(block.length, KV_BUFFER_SIZE);
        for (int j = 0; j < n; ++j) var.data[j] = words[j] != 0 ? 1 : 0;
        return;
    }
    const long long bytes = static_cast<long long>(block.length) * (t.transferBits / 8);
    const size_t n = static_cast<size_t>(std::min<long long>(bytes, KV_BUFFER_SIZE));
    std::memcpy(var.data, words, n);
}
