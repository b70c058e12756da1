// Write requests from the screens: cut into the items that one write frame
// carries, queued for the scheduler, and shown in the data area at once.
#include "serviceForProtocol/write_request.h"

#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"
#include "serviceForProtocol/record_copy.h"
#include "serviceForProtocol/write_result.h"

#include <QDebug>
#include <QLoggingCategory>

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

enum { MAX_QUEUED = 513 };

// Queues one item under `mutex`. Returns true when the 513-item cap made it
// overwrite a pending write, which is then copied to `lost`.
bool queueWrite(const VARIABLE& item, VARIABLE& lost) {
    std::lock_guard<std::mutex> lock(driver.mutex);
    QList<VARIABLE>& list = driver.writeList;
    if (list.isEmpty()) {
        list.append(item);
        return false;
    }
    // The head is on the wire: never compared or overwritten.
    for (int i = list.size() - 1; i >= 1; --i) {
        const VARIABLE& p = list.at(i);
        // The numbers first: the name is compared only for a likely match.
        if (p.station == item.station && p.address == item.address && p.length == item.length &&
            p.reg == item.reg) {
            assignRecord(list[i], item);
            return false;
        }
    }
    if (list.size() < MAX_QUEUED) {
        list.append(item);
        return false;
    }
    assignRecord(lost, list.at(MAX_QUEUED - 1));
    assignRecord(list[MAX_QUEUED - 1], item);
    return true;
}

void queueAndReport(const VARIABLE& item) {
    VARIABLE lost;
    if (queueWrite(item, lost))
        failWrite(lost.station, lost.reg, lost.address, lost.length,
                  QStringLiteral("dropped from the full write queue (%1 items)").arg(MAX_QUEUED));
}

void refuse(int station, const QString& reg, int address, int length, const char* why) {
    qWarning().noquote() << QStringLiteral("kv_3000: write %1#%2 %3 (%4) refused: %5")
                                .arg(QString::number(station), reg, QString::number(address),
                                     QString::number(length), QString::fromLatin1(why));
}

}  // namespace

void groupingKey(KEY_ADDRESS& key, int maxLength, QList<KEY_ADDRESS>& out, int copyValues) {
    const int n = key.length;
    if (maxLength <= 0 || n <= maxLength) {
        out.append(key);
        return;
    }
    const int bytesPerElement = kvreg::traits(getIndexFromRegName(key.reg)).countsBits() ? 1 : 2;
    const int whole = n / maxLength;
    const int rest = n % maxLength;
    const int pieces = whole + (rest ? 1 : 0);
    for (int k = 0; k < pieces; ++k) {
        KEY_ADDRESS piece = key;
        piece.address = key.address + k * maxLength;
        piece.length = (k == pieces - 1 && rest) ? rest : maxLength;
        if (copyValues == 1) {
            std::memset(piece.values, 0, sizeof piece.values);
            const long long from = static_cast<long long>(k) * maxLength * bytesPerElement;
            const long long count = static_cast<long long>(piece.length) * bytesPerElement;
            if (from < KV_BUFFER_SIZE)
                std::memcpy(piece.values, key.values + from,
                            static_cast<size_t>(std::min<long long>(count, KV_BUFFER_SIZE - from)));
        }
        out.append(piece);
    }
}

int intf_setData(int station, QString* regPtr, int address, int length, unsigned char* data, int id) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    if (!regPtr) {
        refuse(station, QString(), address, length, "no register name");
        return 1;
    }
    const QString reg = *regPtr;
    const kvreg::Traits& t = kvreg::traits(getIndexFromRegName(reg));
    if (t.kind == kvreg::Kind::None) {
        refuse(station, reg, address, length, "unknown register");
        return 1;
    }
    const bool bits = t.countsBits();
    const int transfer = t.transferBits;
    const int bytesPerElement = bits ? 1 : 2;
    if (!data) {
        refuse(station, reg, address, length, "no data");
        return 1;
    }
    if (length < 1 || static_cast<long long>(length) * bytesPerElement > KV_BUFFER_SIZE) {
        refuse(station, reg, address, length, "length outside 1 to 1024 bits or 512 words");
        return 1;
    }
    if (address < 0 || static_cast<long long>(address) + length > INT_MAX) {
        refuse(station, reg, address, length, "address outside the register");
        return 1;
    }

    const bool readOnly = t.readOnly;
    const uint32_t epoch = driver.initEpoch;
    if (!driver.localWriteOnly && !readOnly) {
        // Qt would drop disabled debug lines anyway; this saves formatting them.
        const QLoggingCategory* category = QLoggingCategory::defaultCategory();
        const bool debug = category == nullptr || category->isDebugEnabled();
        int limit = bits ? driver.maxBitBlockLength : driver.maxBlockLength;
        if (limit <= 0) {
            refuse(station, reg, address, length, "block length parameter is 0");
            return 1;
        }
        // One piece never exceeds one write frame; 32-bit pieces hold whole double words.
        if (t.kind == kvreg::Kind::Word) limit = std::min(limit, int(kvwire::MAX_WRITE_WORDS));
        if (transfer == 32) limit = std::max(2, std::min(limit, 2 * kvwire::MAX_WRITE_DWORDS) & ~1);

        KEY_ADDRESS key;
        key.station = station;
        key.reg = reg;
        key.address = address;
        key.length = length;
        key.dataType = bits ? -1 : 0;
        std::memcpy(key.values, data, static_cast<size_t>(length) * bytesPerElement);

        if (t.kind == kvreg::Kind::RelayBit) {
            // R and B are written one bit per frame.
            for (int i = 0; i < length; ++i) {
                VARIABLE item;
                item.id = id;
                item.station = station;
                item.reg = reg;
                item.address = address + i;
                item.length = 1;
                item.data[0] = data[i];
                if (debug)
                    qDebug() << "addVarToList" << item.station << item.reg << item.address << item.length
                             << transfer / 8;
                queueAndReport(item);
                if (driver.initEpoch != epoch) return 1;  // re-initialised from the callback
            }
        } else {
            QList<KEY_ADDRESS> pieces;
            groupingKey(key, limit, pieces, 1);
            int reduced = 0;
            for (const KEY_ADDRESS& piece : qAsConst(pieces)) {
                VARIABLE item;
                item.id = id;
                item.station = station;
                item.reg = reg;
                item.address = piece.address - reduced;
                item.length = bits ? piece.length : static_cast<int>(piece.length * (16.0 / transfer));
                reduced += piece.length - item.length;
                std::memcpy(item.data, piece.values, sizeof item.data);
                if (debug)
                    qDebug() << "addVarToList" << item.station << item.reg << item.address << item.length;
                queueAndReport(item);
                if (driver.initEpoch != epoch) return 1;  // re-initialised from the callback
            }
        }
    }

    write_saveDataToArea(station, reg, address, length, data);
    if (driver.initEpoch != epoch) return 1;
    if (readOnly && !driver.localWriteOnly) {
        // The controller's contacts cannot be written: the value just shown
        // is withdrawn at once, and the screen is told.
        failWrite(station, reg, address, length, QStringLiteral("the register is read-only"));
    }
    return 1;
}
