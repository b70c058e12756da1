// Monitored-address registration: marks the monitored units in the data area
// and rebuilds the cyclic read list from the merged keys.
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"
#include "serviceForProtocol/value_parser.h"
#include "serviceForProtocol/write_result.h"

#include <QDebug>
#include <QLoggingCategory>

namespace {

bool debugLinesWanted() {
    // Qt drops disabled debug lines anyway; this only saves formatting them.
    const QLoggingCategory* category = QLoggingCategory::defaultCategory();
    return category == nullptr || category->isDebugEnabled();
}

void appendField(QString& line, const char* name, int value) {
    line.append(QLatin1String(name));
    line.append(QString::number(value));
}

}  // namespace

int intf_addrMerge(QList<KEY_ADDRESS>& keys) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);

    for (int i = 0; i < driver.dataArea.size(); ++i) {
        _DATA_& entry = driver.dataArea[i];
        entry.bitWriteFlags = 0;
        entry.monitorFlags = 0;
        entry.monitorBits = 0;
    }

    // The keys are merged where they lie; the runtime's list is only read.
    const bool debug = debugLinesWanted();
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS& key = keys.at(i);
        _setDataAreaMonitorFlag(key.station, key.reg, key.address, key.length);
        if (!debug) continue;
        // "step:id=%1,reg=%2,address=%3,len=%4", filled in one pass.
        QString line;
        line.reserve(key.reg.size() + 48);
        appendField(line, "step:id=", i);
        line.append(QLatin1String(",reg="));
        line.append(key.reg);
        appendField(line, ",address=", key.address);
        appendField(line, ",len=", key.length);
        qDebug() << line;
    }

    driver.readList.clear();
    ++driver.readListEpoch;
    forgetReadBlockUnits();
    if (keys.isEmpty()) return 0;

    const QList<MergedBlock> blocks = mergedBlocks(keys, 1);
    driver.readList.reserve(blocks.size());
    static const VARIABLE blank;
    for (const MergedBlock& block : blocks) {
        driver.readList.append(blank);
        VARIABLE& v = driver.readList.last();
        v.id = KV_CYCLIC_READ_ID;
        v.station = keys.at(block.source).station;
        v.reg = block.reg;
        v.address = block.address;
        v.length = block.length;
    }
    if (debug) {
        for (int i = 0; i < driver.readList.size(); ++i) {
            const VARIABLE& v = driver.readList.at(i);
            QString line;
            line.reserve(v.reg.size() + 56);
            appendField(line, "step3:id=", i);
            appendField(line, ",std=", v.station);
            line.append(QLatin1String(",reg="));
            line.append(v.reg);
            appendField(line, ",address=", v.address);
            appendField(line, ",len=", v.length);
            qDebug() << line;
        }
    }
    return driver.readList.size();
}
