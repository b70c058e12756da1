// The host's checks before it sends anything: driver, addresses, values, link settings (not e2e_usage's).
#include "address.h"
#include "commands.h"
#include "driver_loader.h"
#include "link_factory.h"
#include "link_serial.h"
#include "link_tcp.h"
#include "operations.h"

#include <gtest/gtest.h>

using namespace kvhost;

namespace {

class HostArgs : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        ASSERT_TRUE(loadDriver(KV3000_DRIVER_PATH, api, &error)) << error;
        catalogue = new Catalogue(api);
    }
    static void TearDownTestSuite() { delete catalogue; }
    static inline DriverApi api;
    static inline Catalogue* catalogue = nullptr;
};

TEST(DriverLoader, RefusesALibraryWithoutEveryExportAndNamesTheMissingOnes) {
    DriverApi api;
    std::string error;
    EXPECT_FALSE(loadDriver(KV3000_FAKE_DRIVER_PATH, api, &error));
    for (const char* part : {"lacks the export(s)", "intf_getSendFrame", "intf_addConditionRead"})
        EXPECT_NE(error.find(part), std::string::npos) << error;
    EXPECT_EQ(error.find("intf_getVersion"), std::string::npos);
    EXPECT_EQ(api.getVersion, nullptr);
    const std::vector<std::string> c = defaultDriverCandidates("/opt/kv/bin");  // beside the program first
    EXPECT_EQ(c.front(), "/opt/kv/bin/../libkv_3000.so");
    EXPECT_EQ(c.back(), "libkv_3000.so.2");
    EXPECT_EQ(defaultDriverPath("/nonexistent"), "libkv_3000.so.2");
}

TEST_F(HostArgs, AddressesInEachRegistersOwnNotation) {
    const struct {
        const char *text, *reg;
        int address, runtimeLength, unit;
        const char* unitName;
    } cases[] = {
        {"DM100:10", "DM", 100, 10, 9, "DM109"}, {"MR_bit10.05", "MR_bit", 165, 1, 11, "MR_bit11.00"},
        {"R5.03", "R", 83, 1, 0, "R5.03"},       {"B3FF", "B", 0x3FF, 1, 1, "B400"},
        {"TC5:2", "TC", 5, 4, 1, "TC6"},         {"DM_bit100.15", "DM_bit", 1615, 1, 0, "DM_bit100.15"},
        {"trm7", "TRM", 7, 2, 0, "TRM7"},
    };
    for (const auto& c : cases) {
        Address a;
        QString why;
        ASSERT_TRUE(parseAddress(*catalogue, api, QLatin1String(c.text), Access::Write, a, &why)) << c.text;
        EXPECT_EQ(a.reg->name, QLatin1String(c.reg)) << c.text;
        EXPECT_EQ(a.address, c.address) << c.text;
        EXPECT_EQ(a.runtimeLength(), c.runtimeLength) << c.text;
        EXPECT_EQ(a.unitName(c.unit), QLatin1String(c.unitName)) << c.text;
        EXPECT_EQ(a.text, QLatin1String(c.text));
    }
}

TEST_F(HostArgs, BadAddressesAndValuesSayWhatIsWrong) {
    const char* cases[][2] = {
        {"100", "100: malformed address (expected a register and an address, e.g. DM100)"},
        {"DM65535:2", "DM65535:2: out of range: DM addresses run from 0 to 65535 (2 units from 65535)"},
        {"TC9999:2", "TC9999:2: out of range: TC addresses run from 0 to 9999 (2 units from 9999)"},
        {"B4000", "B4000: out of range: B addresses run from 0 to 3FFF"},
        {"DM1x", "DM1x: malformed address \"1x\" for DM (decimal, e.g. DM10)"},
        {"MR_bit12", "MR_bit12: malformed address \"12\" for MR_bit (word.bit, e.g. MR_bit10.05)"},
        {"R1.16", "R1.16: malformed address \"1.16\": the bit number must be 0 to 15"},
        {"DM", "DM: no address after DM (decimal, e.g. DM10)"},
        {"DM1:0", "DM1:0: malformed count \"0\" (a number of units from 1 up)"},
        {"DM1:513", "DM1:513: count 513 is too large (at most 512 for DM)"},
        {"DM+5", "DM+5: malformed address \"+5\" for DM (decimal, e.g. DM10)"},
        {"T-0", "T-0: malformed address \"-0\" for T (decimal, e.g. T10)"},
        {"TRM1x", "TRM1x: malformed address \"1x\" for TRM (decimal, e.g. TRM7)"},
        {"DM99999999999", "DM99999999999: out of range: DM addresses run from 0 to 65535"},
        {"DM1:9999999", "DM1:9999999: count 9999999 is too large (at most 512 for DM)"},
        {"DM100:3=1,2", "DM100:3=1,2: 2 values for 3 units (give one for all, or one per unit)"},
        {"R5.03=2", "R5.03=2: value 2 is out of range for R (a bit: 0 or 1)"},
        {"DM5=99999999999999999999",
         "DM5=99999999999999999999: value 99999999999999999999 is too large for DM (at most 65535)"},
        {"Z1=-2147483649", "Z1=-2147483649: value -2147483649 is too small for Z (at least -2147483648)"},
        {"DM5=abc", "DM5=abc: value \"abc\" is not a number (decimal or 0x hexadecimal)"},
    };
    for (const auto& [text, message] : cases) {
        Address a;
        WriteRequest w;
        QString why;
        const QString t = QLatin1String(text);
        EXPECT_FALSE(t.contains('=') ? parseWriteArgument(*catalogue, api, t, w, &why)
                                     : parseAddress(*catalogue, api, t, Access::Read, a, &why));
        EXPECT_EQ(why, QLatin1String(message));
    }
}

TEST_F(HostArgs, WriteArgumentsTakeOneValueForAllOrOnePerUnit) {
    const std::pair<const char*, std::vector<uint32_t>> cases[] = {
        {"DM100:3=7", {7, 7, 7}}, {"DM100=1,2,0x10", {1, 2, 16}}, {"Z1=-1", {0xFFFFFFFF}}};
    for (const auto& [text, values] : cases) {
        WriteRequest w;
        QString why;
        ASSERT_TRUE(parseWriteArgument(*catalogue, api, QLatin1String(text), w, &why)) << why.toStdString();
        EXPECT_EQ(w.values, values);
        EXPECT_EQ(w.address.count, static_cast<int>(values.size()));
    }
}

TEST(DriverMessages, TakeTheFrameNameApart) {
    FrameName f;
    ASSERT_TRUE(parseDriverMessage(QStringLiteral("1#DM100(5)"), f));
    EXPECT_EQ(std::make_tuple(f.station, f.reg, f.address, f.length),
              std::make_tuple(1, QString("DM"), 100, 5));
    ASSERT_TRUE(parseDriverMessage(QStringLiteral("2#DM_bit100.5(1)"), f));
    EXPECT_EQ(std::make_tuple(f.reg, f.address), std::make_tuple(QString("DM_bit"), 1605));
    for (const char* bad : {"connection failed", "1#DM(x)"})
        EXPECT_FALSE(parseDriverMessage(QLatin1String(bad), f));
}

TEST(LinkSettings, SerialParametersTheirTimingAndTcpEndpoints) {
    SerialParams p;
    std::string why;
    ASSERT_TRUE(parseSerialParams("19200,7,odd,2", p, &why));
    EXPECT_EQ(p.bitsPerCharacter(), 11);
    EXPECT_EQ(p.text(), "19200,7,ODD,2");
    EXPECT_FALSE(parseSerialParams("9600,8,MARK,1", p, &why));
    EXPECT_NE(why.find("parity must be NONE, EVEN or ODD"), std::string::npos);
    for (const char* bad : {"1234,8,EVEN,1", "9600,8,EVEN"}) EXPECT_FALSE(parseSerialParams(bad, p, &why));

    // 9600 baud, 8E1 = 11 bits a character: 17 bytes take 19.479 ms, plus the margin.
    HostOptions o;
    o.link = HostOptions::LinkKind::Serial, o.serialDevice = "/dev/null", o.timeoutMs = 100;
    const std::unique_ptr<Link> serial = makeLink(o, 0);
    EXPECT_EQ(serial->replyTimeout(17), 19479 + 100000);
    EXPECT_FALSE(serial->silenceMeansLost());  // a quiet line is not a lost device
    o.link = HostOptions::LinkKind::Embedded;
    EXPECT_TRUE(makeLink(o, 4321)->silenceMeansLost());

    std::string host;
    uint16_t port = 0;
    ASSERT_TRUE(parseHostPort("[::1]:502", host, port, &why));
    EXPECT_EQ(std::make_tuple(host, port), std::make_tuple(std::string("::1"), uint16_t(502)));
    for (const char* bad : {"plc", "plc:0", "plc:70000"}) EXPECT_FALSE(parseHostPort(bad, host, port, &why));
}

}  // namespace
