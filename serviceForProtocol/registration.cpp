// Monitored-address registration: marks the monitored units in the data area
// and rebuilds the cyclic read list from the merged keys.
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"
#include "serviceForProtocol/value_parser.h"
#include "serviceForProtocol/write_result.h"

#include <QDebug>

int intf_addrMerge(QList<KEY_ADDRESS>& keys) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);

    for (int i = 0; i < driver.dataArea.size(); ++i) {
        _DATA_& entry = driver.dataArea[i];
        entry.bitWriteFlags = 0;
        entry.monitorFlags = 0;
        entry.monitorBits = 0;
    }

    QList<KEY_ADDRESS> copy;
    copy.reserve(keys.size());
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS& key = keys.at(i);
        _setDataAreaMonitorFlag(key.station, key.reg, key.address, key.length);
        copy.append(key);
        // One-pass substitution, so a "%" in a register name cannot capture a later argument.
        qDebug() << QStringLiteral("step:id=%1,reg=%2,address=%3,len=%4")
                        .arg(QString::number(i), key.reg, QString::number(key.address),
                             QString::number(key.length));
    }

    driver.readList.clear();
    ++driver.readListEpoch;
    forgetReadBlockUnits();
    if (keys.isEmpty()) return 0;

    addrMerge(copy, 1);
    driver.readList.reserve(copy.size());
    for (const KEY_ADDRESS& block : qAsConst(copy)) {
        VARIABLE v;
        v.id = 4;
        v.station = block.station;
        v.reg = block.reg;
        v.address = block.address;
        v.length = block.length;
        driver.readList.append(v);
    }
    for (int i = 0; i < driver.readList.size(); ++i) {
        const VARIABLE& v = driver.readList.at(i);
        qDebug() << QStringLiteral("step3:id=%1,std=%2,reg=%3,address=%4,len=%5")
                        .arg(QString::number(i), QString::number(v.station), v.reg,
                             QString::number(v.address), QString::number(v.length));
    }
    return driver.readList.size();
}
