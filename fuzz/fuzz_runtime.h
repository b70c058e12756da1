// The runtime side shared by the driver harnesses: shared memory, recipe
// buffer, its mutex, a change callback that calls back into the driver, and
// a reset that puts the one global driver object back into a known state so
// that every input starts alike.
#ifndef KV3000_FUZZ_RUNTIME_H
#define KV3000_FUZZ_RUNTIME_H

#include "fuzz_input.h"
#include "kv3000_traits.h"
#include "protocol.h"

#include <QByteArray>
#include <QMutex>
#include <QString>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace kvfuzz {

enum { SHM_SIZE = 60117, RECIPE_WORDS = 4096 };

struct Runtime {
    unsigned char shm[SHM_SIZE] = {};
    unsigned short recipe[RECIPE_WORDS] = {};
    QMutex shmMutex;
    // What the callback does besides counting: 0 nothing, 1 read the unit
    // back, 2 also queue a condition read, 3 also write the unit.
    int callbackMode = 1;
    int depth = 0;
    long reports = 0;
};

inline Runtime& runtime() {
    static Runtime* r = new Runtime;
    return *r;
}

inline void changeCallback(int context, int station, const QString& name, int address) {
    Runtime& rt = runtime();
    ++rt.reports;
    if (rt.depth >= 2 || rt.callbackMode == 0 || context == -1) return;
    ++rt.depth;
    unsigned char shown[8] = {};
    intf_getData(station, name, address, 1, shown);
    if (rt.callbackMode >= 2) {
        KEY_ADDRESS key;
        key.station = station;
        key.reg = name;
        key.address = address;
        key.length = 1;
        key.dataType = kvreg::traits(getIndexFromRegName(name)).countsBits() ? -1 : 0;
        intf_addConditionRead(key, 77);
    }
    if (rt.callbackMode >= 3) {
        QString reg = name;
        unsigned char value[2] = {static_cast<unsigned char>(shown[0] ^ 1), shown[1]};
        intf_setData(station, &reg, address, 1, value, 78);
    }
    --rt.depth;
}

inline void quietMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

inline void resetDriver(const QByteArray& parameters, int callbackMode) {
    Runtime& rt = runtime();
    std::memset(rt.shm, 0, sizeof rt.shm);
    std::memset(rt.recipe, 0, sizeof rt.recipe);
    rt.callbackMode = callbackMode;
    rt.depth = 0;
    intf_setAddrValueChangeCallBack(changeCallback);
    int status = -1;
    intf_initProperty(rt.shm, nullptr, rt.recipe, &status, parameters.constData(), &rt.shmMutex);
    QList<KEY_ADDRESS> noKeys;
    intf_addrMerge(noKeys);
    QVector<_RCP_VAR_PRO> noEntries;
    intf_setRcpAddress(noEntries);
    // What a fresh load would hold; initialisation leaves these alone.
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    driver.rcpFrameIndex = 0;
    driver.currentVar = VARIABLE();
    driver.lastConditionVar = VARIABLE();
    driver.readFrameCount = 0;
}

inline void setShareByte(int position, unsigned char value) {
    Runtime& rt = runtime();
    QMutexLocker lock(&rt.shmMutex);
    __atomic_store_n(rt.shm + position, value, __ATOMIC_RELEASE);
}

// A frame handed out must fit its record and promise a sane reply.
inline void checkFrame(const FRAME_PRO& f) {
    KV_FUZZ_ASSERT(f.sendLength >= 1 && f.sendLength <= KV_BUFFER_SIZE);
    KV_FUZZ_ASSERT(f.replyLength >= 0);
    KV_FUZZ_ASSERT(f.elementCount >= 0);
}

}  // namespace kvfuzz

#endif
