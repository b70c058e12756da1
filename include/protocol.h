// The one driver object that every exported function works on.
#ifndef KV3000_PROTOCOL_H
#define KV3000_PROTOCOL_H

#include "kv3000_intf.h"
#include "serviceForProtocol/data_index.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>
#include <mutex>

class QMutex;

// What the scheduler serves (driver.state).
enum DriverState {
    STATE_IDLE = 0,
    STATE_HANDSHAKE = 1,
    STATE_WRITE = 2,
    STATE_CONDITION_READ = 3,
    STATE_CYCLIC_READ = 4,
    STATE_RECIPE_WRITE = 5,
    STATE_RECIPE_READ = 6,
};

class Protocol {
public:
    Protocol();
    Protocol(const Protocol&) = delete;
    Protocol& operator=(const Protocol&) = delete;

    ValueChangeCallBack valueChangeCallBack = nullptr;
    int32_t protocolId = 0;
    int32_t localWriteOnly = 0;
    int32_t param3 = 0;
    int32_t retryTimes = 0;
    int32_t maxGap = 0;
    unsigned char* shareMemory = nullptr;
    void* initArg2 = nullptr;
    unsigned short* recipeBuffer = nullptr;
    QMutex* shareMutex = nullptr;
    QList<VARIABLE> readList;
    QList<VARIABLE> writeList;
    QList<VARIABLE> conditionReadList;
    QVector<_DATA_> dataArea;
    QVector<_RCP_VAR_PRO> rcpVarList;
    QVector<_RCP_VAR_PRO> rcpBlockList;
    QList<int32_t> rcpFirstIndex;
    VARIABLE lastConditionVar;
    QStringList regList;
    VARIABLE currentVar;
    QList<VARIABLE> currentReadList;
    int32_t state = 0;
    int32_t sendCount = 0;
    int32_t handShakeFlag = 0;
    int32_t retryCount = 0;
    int32_t maxBitBlockLength = 0;
    int32_t maxBlockLength = 0;
    int32_t commError = 0;
    int32_t frameIndex = 0;
    QVector<FRAME_PRO> frameList;
    // Guards writeList. Not recursive: never call out while holding it.
    std::mutex mutex;
    int32_t rcpFrameIndex = 0;
    QString propertyPage;
    int32_t readFrameCount = 0;

    // Serialises every export that touches the driver's state, so a runtime
    // may call from several threads. Recursive, so that the change callback
    // may call back into the driver on the same thread. Always taken before
    // `mutex`, never while holding it or the runtime's shareMutex.
    std::recursive_mutex serial;

    // The index beside dataArea: key -> position. Emptied with dataArea.
    DataIndex dataIndex;
    // Bumped whenever entries may have moved (one was added), the data area
    // was emptied, or the read blocks' unit positions were forgotten: a loop
    // over entries that calls the runtime back checks this one number.
    uint64_t dataAreaVersion = 0;

    // Bumped whenever readList is rebuilt: a cyclic read built from an older
    // list does not rotate the new one when it completes.
    uint32_t readListEpoch = 0;
    uint32_t servedReadListEpoch = 0;
    // Bumped by every initialisation, so that a transaction interrupted by a
    // re-initialisation from inside the change callback stops touching lists
    // that were emptied under it.
    uint32_t initEpoch = 0;
};

extern Protocol driver;

#endif
