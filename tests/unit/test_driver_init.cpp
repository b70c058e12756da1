// Driver object, initialisation from the runtime's parameter string and the
// information exports.
#include "protocol.h"

#include <QMutex>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

// "protocolId localWriteOnly param3 retryTimes maxGap / maxBlockLength maxBitBlockLength"
std::string parameters() {
    std::ostringstream s;
    s << driver.protocolId << ' ' << driver.localWriteOnly << ' ' << driver.param3 << ' ' << driver.retryTimes
      << ' ' << driver.maxGap << " / " << driver.maxBlockLength << ' ' << driver.maxBitBlockLength;
    return s.str();
}

TEST(DriverInit, ParameterStringsAndTheStateThatIsReset) {
    const struct {
        const char *parameter, *expected;
    } steps[] = {
        {"1#0#0#3#10", "1 0 0 3 10 / 10 80"},    {"2#1#5#4#12", "2 1 5 4 12 / 12 96"},
        {"1#0#0#3", "2 1 5 4 12 / 12 96"},        // fewer than five fields: the five are kept
        {"1#0#0#3#10#99", "1 0 0 3 10 / 10 80"},  // a sixth field is ignored
        {"abc#1#x#3#1y", "0 1 0 3 0 / 0 0"},      // text that is not a number gives 0
    };
    static unsigned char shm[60117];
    static unsigned short recipe[1024];
    static QMutex shareMutex;
    for (const auto& s : steps) {
        SCOPED_TRACE(s.parameter);
        driver.readList.append(VARIABLE());
        driver.conditionReadList.append(VARIABLE());
        driver.frameList.append(FRAME_PRO());
        driver.state = 4;
        driver.handShakeFlag = 0;
        int status = 7;
        EXPECT_EQ(intf_initProperty(shm, nullptr, recipe, &status, s.parameter, &shareMutex), 1);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(parameters(), s.expected);
        EXPECT_TRUE(driver.readList.isEmpty() && driver.conditionReadList.isEmpty() &&
                    driver.frameList.isEmpty());
        EXPECT_EQ(driver.state, 0);
        EXPECT_EQ(driver.handShakeFlag, 1);
    }
    // A huge gap does not overflow the bit limit.
    intf_initProperty(shm, nullptr, recipe, nullptr, "1#0#0#3#2147483647", &shareMutex);
    EXPECT_EQ(driver.maxBlockLength, 2147483647);
    EXPECT_GT(driver.maxBitBlockLength, 0);

    // No parameter and no status: an empty string, fewer than five fields.
    EXPECT_EQ(intf_initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, &shareMutex), 1);
    EXPECT_EQ(driver.maxGap, 2147483647);
    EXPECT_EQ(driver.handShakeFlag, 1);
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

}  // namespace
