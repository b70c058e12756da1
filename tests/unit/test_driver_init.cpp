// Driver object, initialisation from the runtime's parameter string and the
// information exports.
#include "protocol.h"

#include <QMutex>

#include <gtest/gtest.h>

namespace {

int init(const char* parameter, int* status = nullptr) {
    static unsigned char shm[60117];
    static unsigned short recipe[1024];
    static QMutex shareMutex;
    int st = -1;
    const int r = intf_initProperty(shm, nullptr, recipe, status ? status : &st, parameter, &shareMutex);
    if (!status) {
        EXPECT_EQ(st, 0);
    }
    return r;
}

TEST(DriverInit, FiveFieldsSetTheParameters) {
    int status = 7;
    EXPECT_EQ(init("1#0#0#3#10", &status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(driver.protocolId, 1);
    EXPECT_EQ(driver.localWriteOnly, 0);
    EXPECT_EQ(driver.param3, 0);
    EXPECT_EQ(driver.retryTimes, 3);
    EXPECT_EQ(driver.maxGap, 10);
    EXPECT_EQ(driver.maxBlockLength, 10);
    EXPECT_EQ(driver.maxBitBlockLength, 80);
    EXPECT_EQ(driver.handShakeFlag, 1);
    EXPECT_EQ(driver.state, 0);
}

TEST(DriverInit, FourFieldsKeepParametersButResetState) {
    init("2#1#5#4#12");
    driver.readList.append(VARIABLE());
    driver.conditionReadList.append(VARIABLE());
    driver.frameList.append(FRAME_PRO());
    driver.state = 4;
    driver.handShakeFlag = 0;
    int status = 9;
    EXPECT_EQ(init("1#0#0#3", &status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(driver.protocolId, 2);
    EXPECT_EQ(driver.localWriteOnly, 1);
    EXPECT_EQ(driver.param3, 5);
    EXPECT_EQ(driver.retryTimes, 4);
    EXPECT_EQ(driver.maxGap, 12);
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(driver.state, 0);
    EXPECT_EQ(driver.handShakeFlag, 1);
}

TEST(DriverInit, SixthFieldIgnoredAndTextGivesZero) {
    init("1#0#0#3#10#99");
    EXPECT_EQ(driver.maxGap, 10);
    init("abc#1#x#3#1y");
    EXPECT_EQ(driver.protocolId, 0);
    EXPECT_EQ(driver.localWriteOnly, 1);
    EXPECT_EQ(driver.param3, 0);
    EXPECT_EQ(driver.retryTimes, 3);
    EXPECT_EQ(driver.maxGap, 0);
    EXPECT_EQ(driver.maxBitBlockLength, 0);
}

TEST(DriverInit, NullParameterAndStatusDoNotCrash) {
    init("1#0#0#3#10");
    static QMutex m;
    EXPECT_EQ(intf_initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, &m), 1);
    EXPECT_EQ(driver.maxGap, 10);  // empty string: fewer than five fields
    EXPECT_EQ(driver.handShakeFlag, 1);
}

TEST(DriverInit, HugeGapDoesNotOverflowTheBitLimit) {
    init("1#0#0#3#2147483647");
    EXPECT_EQ(driver.maxBlockLength, 2147483647);
    EXPECT_GT(driver.maxBitBlockLength, 0);
}

TEST(DriverInfo, IdentityStrings) {
    QString s;
    intf_getDriverParameter(s);
    EXPECT_EQ(s, QStringLiteral(
                     "0,9600,8,EVEN,1,0,0,192.168.1.100,8000,kv_3000,MR_bit,LR_bit,CR_bit,R,B,T,C,"
                     "DM_bit,TM_bit,CM_bit,EM_bit,FM_bit,DM,TM,CM,EM,FM,MR,LR,CR,W,ZF,TC,TS,CC,CS,Z,TRM"));
    EXPECT_EQ(intf_getVersion(), QStringLiteral("2.0.0.0"));
    int type = 5;
    intf_getProtocolType(&type);
    EXPECT_EQ(type, 0);
    intf_SetDriverPropertyPage(QStringLiteral("7_7"));
    EXPECT_EQ(driver.propertyPage, QStringLiteral("7_7"));
    QString page;
    intf_getDriverPropertyPage(page);
    EXPECT_EQ(page, QStringLiteral("0_0"));
}

TEST(Records, CopiesAreDeep) {
    VARIABLE v;
    v.data[1023] = 9;
    VARIABLE c = v;
    c.data[1023] = 1;
    EXPECT_EQ(v.data[1023], 9);
    FRAME_PRO f;
    f.frame[0] = 6;
    f.data[5] = 5;
    FRAME_PRO g = f;
    g.frame[0] = 0;
    g.data[5] = 0;
    EXPECT_EQ(f.frame[0], 6);
    EXPECT_EQ(f.data[5], 5);
    KEY_ADDRESS k;
    k.values[1000] = 3;
    KEY_ADDRESS l = k;
    l.values[1000] = 4;
    EXPECT_EQ(k.values[1000], 3);
    _DATA_ d;
    EXPECT_EQ(d.writeValid, 0);
    EXPECT_EQ(d.bitWriteFlags | d.monitorFlags | d.monitorBits, 0u);
    EXPECT_EQ(d.readValue[0] | d.readValue[3] | d.writeValue[0] | d.writeValue[3], 0);
}

}  // namespace
