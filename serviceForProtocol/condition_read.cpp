// Condition reads: one-off reads queued ahead of the cyclic reads, whose end
// is announced to the runtime through the change callback.
#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "protocol.h"
#include "serviceForProtocol/record_copy.h"
#include "serviceForProtocol/scheduler.h"

#include <QDebug>

#include <climits>
#include <cstring>

namespace {

enum { MAX_QUEUED = 513 };

void queueConditionRead(const VARIABLE& v) {
    QList<VARIABLE>& list = driver.conditionReadList;
    // The head may be the read being served: it is never compared or overwritten.
    for (int i = list.size() - 1; i >= 1; --i) {
        const VARIABLE& p = list.at(i);
        // The numbers first: the name is compared only for a likely match.
        if (p.station == v.station && p.address == v.address && p.length == v.length && p.reg == v.reg) {
            assignRecord(list[i], v);
            return;
        }
    }
    if (list.size() < MAX_QUEUED)
        list.append(v);
    else
        assignRecord(list[MAX_QUEUED - 1], v);
}

void refuse(const KEY_ADDRESS& key, const char* why) {
    qWarning().noquote() << QStringLiteral("kv_3000: condition read %1#%2 %3 (%4) refused: %5")
                                .arg(QString::number(key.station), key.reg, QString::number(key.address),
                                     QString::number(key.length), QString::fromLatin1(why));
    // This request is now the last one: it has ended, and failed.
    driver.lastConditionVar = VARIABLE();
    reportConditionReadEnd(true);
}

}  // namespace

int intf_addConditionRead(const KEY_ADDRESS& key, int id) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    const kvreg::Traits& t = kvreg::traits(getIndexFromRegName(key.reg));
    if (t.kind == kvreg::Kind::None) {
        refuse(key, "unknown register");
        return 1;
    }
    const int transfer = t.transferBits;
    const bool bitName = t.kind == kvreg::Kind::BitInWord;
    int limit = key.dataType == -1 ? driver.maxBitBlockLength : driver.maxBlockLength;
    if (key.length > 0 && limit <= 0) {
        refuse(key, "block length parameter is 0");
        return 1;
    }
    if (transfer == 32) limit = std::max(2, limit & ~1);  // whole double words per piece
    if (key.address < 0 || static_cast<long long>(key.address) + key.length > INT_MAX) {
        refuse(key, "address outside the register");
        return 1;
    }
    if (transfer == 1 && !bitName && (key.length > INT_MAX / 16 || key.length < INT_MIN / 16)) {
        refuse(key, "length outside the register");
        return 1;
    }
    const long long pieces =
        key.length <= limit ? 1 : (static_cast<long long>(key.length) + limit - 1) / limit;
    if (pieces > MAX_QUEUED) {
        refuse(key, "more pieces than the queue holds");
        return 1;
    }

    int reduced = 0;
    for (long long i = 0; i < pieces; ++i) {
        int pieceAddress = key.address;
        int pieceLength = key.length;
        if (pieces > 1) {
            pieceAddress = static_cast<int>(key.address + i * limit);
            pieceLength = i == pieces - 1 ? static_cast<int>(key.length - (pieces - 1) * limit) : limit;
        }
        VARIABLE v;
        v.id = id;
        v.station = key.station;
        if (bitName) {
            v.reg = QLatin1String(REG_LIST[t.keyRow]);
            v.address = pieceAddress / transfer;
            const int covered = pieceAddress % transfer + pieceLength;
            v.length = covered / transfer + (covered % transfer ? 1 : 0);
        } else {
            v.reg = key.reg;
            v.length = static_cast<int>(pieceLength * 16.0 / transfer);
            v.address = transfer == 32 ? pieceAddress - reduced : pieceAddress;
            if (transfer == 32) reduced += pieceLength - v.length;
        }
        queueConditionRead(v);
        driver.lastConditionVar = v;
    }
    return 1;
}
