// The frame scheduler: hands out the frame on the wire again while it is
// unanswered, otherwise chooses the next transaction (handshake, recipe
// transfer, write, condition read, cyclic read) and has it framed.
#include "serviceForProtocol/scheduler.h"
#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "kv_3000/frame_builder.h"
#include "protocol.h"
#include "serviceForProtocol/recipe.h"
#include "serviceForProtocol/record_copy.h"
#include "serviceForProtocol/write_result.h"

#include <QMutexLocker>

#include <algorithm>

namespace {

// The request bytes are read and cleared under the runtime's mutex. The
// accesses themselves are atomic as well, so that a thread checker, which
// cannot see inside the runtime's mutex implementation, sees them ordered.
// Both request bytes, read under one lock of the runtime's mutex.
void readRequestBytes(unsigned char& w, unsigned char& r) {
    w = r = 0;
    if (!driver.shareMemory) return;
    QMutexLocker lock(driver.shareMutex);
    w = __atomic_load_n(driver.shareMemory + kvwire::SHM_RECIPE_WRITE, __ATOMIC_ACQUIRE);
    r = __atomic_load_n(driver.shareMemory + kvwire::SHM_RECIPE_READ, __ATOMIC_ACQUIRE);
}

int buildRead() {
    // The one-item list keeps its item from one read to the next.
    if (driver.currentReadList.size() == 1) {
        assignRecord(driver.currentReadList[0], driver.currentVar);
    } else {
        driver.currentReadList.clear();
        driver.currentReadList.append(driver.currentVar);
    }
    return appendReadFrame(driver.currentReadList.constFirst());
}

bool sameItem(const VARIABLE& a, const VARIABLE& b) {
    return a.station == b.station && a.reg == b.reg && a.address == b.address && a.length == b.length;
}

int copyHead(FRAME_PRO* out) {
    assignRecord(*out, driver.frameList.constFirst());
    return 1;
}

}  // namespace

void endRecipeRequest(int state) {
    driver.rcpFrameIndex = 0;
    const int position = state == STATE_RECIPE_WRITE ? kvwire::SHM_RECIPE_WRITE : kvwire::SHM_RECIPE_READ;
    if (!driver.shareMemory) return;
    QMutexLocker lock(driver.shareMutex);
    __atomic_store_n(driver.shareMemory + position, static_cast<unsigned char>(0), __ATOMIC_RELEASE);
}

void reportConditionReadEnd(bool failed) {
    if (driver.valueChangeCallBack) {
        const QString name = QStringLiteral("-1");
        driver.valueChangeCallBack(-1, -1, name, failed ? -1 : 0);
    }
}

int intf_getSendFrame(FRAME_PRO* out) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    if (!out) return 0;
    if (!driver.frameList.isEmpty()) return copyHead(out);

    // Items that cannot be framed are dropped (and settled) and the choice is
    // made again; unframeable cyclic blocks are rotated past, at most once each.
    int unframeableBlocks = 0;
    for (;;) {
        unsigned char w, r;
        readRequestBytes(w, r);
        const int blocks = driver.rcpBlockList.size();

        if (driver.handShakeFlag) {
            driver.state = STATE_HANDSHAKE;
            handShakeFrame();
            break;
        }
        if (w == 1 || (r == 1 && w != 1)) {
            const int wanted = w == 1 ? STATE_RECIPE_WRITE : STATE_RECIPE_READ;
            if (driver.rcpFrameIndex < 0 || driver.rcpFrameIndex >= blocks) {
                // Nothing (left) to transfer: the request ends here, and the
                // previous transaction is not repeated.
                endRecipeRequest(wanted);
                continue;
            }
            const QString& blockReg = driver.rcpBlockList.at(driver.rcpFrameIndex).reg;
            if (wanted == STATE_RECIPE_WRITE && kvreg::traits(getIndexFromRegName(blockReg)).readOnly) {
                // Contacts cannot be written: a download passes over them.
                if (++driver.rcpFrameIndex >= blocks) endRecipeRequest(wanted);
                continue;
            }
            driver.state = wanted;
            rcpAddrToVar(driver.rcpBlockList.at(driver.rcpFrameIndex), driver.currentVar,
                         wanted == STATE_RECIPE_WRITE ? 1 : 0);
            driver.readFrameCount = 1;
            if (wanted == STATE_RECIPE_WRITE)
                getWriteFrame(driver.currentVar);
            else
                driver.readFrameCount = buildRead();
            if (driver.frameList.isEmpty()) {
                // A block that cannot be framed ends the transfer as a failed one.
                endRecipeRequest(wanted);
                continue;
            }
            break;
        }

        bool haveWrite = false;
        // Every change of writeList is made under `serial` as well, which is
        // held here: an empty list is seen without taking `mutex`.
        if (driver.sendCount <= 9 && !driver.writeList.isEmpty()) {
            std::lock_guard<std::mutex> lock(driver.mutex);
            if (!driver.writeList.isEmpty()) {
                assignRecord(driver.currentVar, driver.writeList.constFirst());
                haveWrite = true;
            }
        }
        if (haveWrite) {
            driver.state = STATE_WRITE;
            driver.readFrameCount = 1;
            getWriteFrame(driver.currentVar);
            if (!driver.frameList.isEmpty()) {
                ++driver.sendCount;
                break;
            }
            // Never sendable (unknown register, read-only "T"/"C"): drop it so it
            // cannot hold up the queue, and let the screen fall back to the read value.
            {
                std::lock_guard<std::mutex> lock(driver.mutex);
                if (!driver.writeList.isEmpty() && sameItem(driver.writeList.first(), driver.currentVar))
                    driver.writeList.removeFirst();
            }
            const VARIABLE& dropped = driver.currentVar;
            failWrite(dropped.station, QString(dropped.reg), dropped.address, dropped.length,
                      QStringLiteral("no frame can carry it"));
            continue;
        }

        if (!driver.conditionReadList.isEmpty() && driver.sendCount <= 2) {
            assignRecord(driver.currentVar, driver.conditionReadList.constFirst());
            driver.state = STATE_CONDITION_READ;
            driver.readFrameCount = buildRead();
            if (!driver.frameList.isEmpty()) {
                ++driver.sendCount;
                break;
            }
            const bool wasLast = sameItem(driver.currentVar, driver.lastConditionVar);
            driver.conditionReadList.removeFirst();
            if (wasLast) reportConditionReadEnd(true);
            continue;
        }

        if (!driver.readList.isEmpty() && unframeableBlocks < driver.readList.size()) {
            assignRecord(driver.currentVar, driver.readList.constFirst());
            driver.state = STATE_CYCLIC_READ;
            driver.sendCount = 0;
            buildRead();
            driver.readFrameCount = 1;
            driver.servedReadListEpoch = driver.readListEpoch;
            if (!driver.frameList.isEmpty()) break;
            ++unframeableBlocks;
            if (driver.readList.size() >= 2) driver.readList.move(0, driver.readList.size() - 1);
            continue;
        }

        driver.sendCount = 0;
        driver.state = STATE_IDLE;
        driver.frameList.clear();
        return 0;
    }
    if (driver.frameList.isEmpty()) return 0;
    return copyHead(out);
}
