// The driver object, its initialisation from the runtime's parameters and
// the information exports.
#include "protocol.h"

#include "kv3000_catalogue.h"
#include "serviceForProtocol/data_area.h"

#include <QStringList>

Protocol driver;

Protocol::Protocol() {
    for (int i = 0; i < REG_COUNT; ++i) regList.append(QString::fromLatin1(REG_LIST[i]));
}

int intf_initProperty(unsigned char* shareMemory, void* initArg2, unsigned short* recipeBuffer, int* status,
                      const char* parameter, QMutex* shareMutex) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    if (status) *status = 0;

    // "protocolId#localWriteOnly#param3#retryTimes#maxGap", more fields ignored.
    const QStringList fields =
        QString::fromLatin1(parameter ? parameter : "").split(QLatin1Char('#'), Qt::KeepEmptyParts);
    if (fields.size() >= 5) {
        driver.protocolId = fields.at(0).toInt(nullptr, 10);
        driver.localWriteOnly = fields.at(1).toInt(nullptr, 10);
        driver.param3 = fields.at(2).toInt(nullptr, 10);
        driver.retryTimes = fields.at(3).toInt(nullptr, 10);
        driver.maxGap = fields.at(4).toInt(nullptr, 10);
    }

    driver.shareMemory = shareMemory;
    driver.initArg2 = initArg2;
    driver.recipeBuffer = recipeBuffer;
    driver.shareMutex = shareMutex;

    ++driver.initEpoch;
    driver.readList.clear();
    ++driver.readListEpoch;
    {
        std::lock_guard<std::mutex> lock(driver.mutex);
        driver.writeList.clear();
    }
    driver.conditionReadList.clear();
    clearDataArea();

    driver.state = 0;
    driver.sendCount = 0;
    driver.retryCount = 0;
    driver.commError = 0;
    driver.maxBlockLength = driver.maxGap;
    // 8 x maxGap in 64 bits, so a huge parameter cannot overflow into a negative limit.
    const long long bits = 8LL * driver.maxGap;
    driver.maxBitBlockLength = bits > INT32_MAX ? INT32_MAX : bits < INT32_MIN ? INT32_MIN : int32_t(bits);
    driver.handShakeFlag = 1;
    driver.frameList.clear();
    driver.frameIndex = 0;
    return 1;
}

void intf_getProtocolType(int* type) {
    if (type) *type = 0;
}

void intf_getDriverParameter(QString& out) {
    out = QStringLiteral("%1,%2,%3,%4,%5,%6,%7")
              .arg(0)
              .arg(QStringLiteral(PROCOTOL_DEFALT_COM_PAR))
              .arg(0)
              .arg(0)
              .arg(QStringLiteral(PROCOTOL_DEFALT_IP_PAR))
              .arg(QStringLiteral(PROCOTOL_NAME))
              .arg(driver.regList.join(QLatin1Char(',')));
}

void intf_getDriverPropertyPage(QString& out) {
    out = QStringLiteral(PROCOTOL_PAR_HMI_SET_MODE);
}

void intf_SetDriverPropertyPage(const QString& page) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    driver.propertyPage = page;
}

void intf_setAddrValueChangeCallBack(ValueChangeCallBack callback) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    driver.valueChangeCallBack = callback;
}

QString intf_getVersion() {
    return QStringLiteral(PROCOTOL_VERSION);
}
