// What the host checks before it sends anything: the driver it loads, the
// addresses and values on its command line, recipe files, link settings.
#include "address.h"
#include "commands.h"
#include "driver_loader.h"
#include "link_factory.h"
#include "link_serial.h"
#include "link_tcp.h"
#include "operations.h"
#include "options.h"
#include "recipe.h"

#include <gtest/gtest.h>

using namespace kvhost;

namespace {

class HostArgs : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        loaded_ = loadDriver(KV3000_DRIVER_PATH, api_, &error);
        ASSERT_TRUE(loaded_) << error;
        catalogue_ = new Catalogue(api_);
    }
    static void TearDownTestSuite() { delete catalogue_; }

    bool parse(const char* text, Access access, Address& a, QString* why = nullptr) {
        QString ignored;
        return parseAddress(*catalogue_, api_, QString::fromLatin1(text), access, a, why ? why : &ignored);
    }
    QString refusal(const char* text, Access access = Access::Read) {
        Address a;
        QString why;
        EXPECT_FALSE(parse(text, access, a, &why)) << text;
        return why;
    }

    static DriverApi api_;
    static bool loaded_;
    static Catalogue* catalogue_;
};
DriverApi HostArgs::api_;
bool HostArgs::loaded_ = false;
Catalogue* HostArgs::catalogue_ = nullptr;

TEST(DriverLoader, RefusesALibraryWithoutEveryExportAndNamesTheMissingOnes) {
    DriverApi api;
    std::string error;
    EXPECT_FALSE(loadDriver(KV3000_FAKE_DRIVER_PATH, api, &error));
    EXPECT_NE(error.find("lacks the export(s)"), std::string::npos) << error;
    EXPECT_NE(error.find("intf_getSendFrame"), std::string::npos);
    EXPECT_NE(error.find("intf_addConditionRead"), std::string::npos);
    EXPECT_EQ(error.find("intf_getVersion"), std::string::npos);
    EXPECT_EQ(api.getVersion, nullptr);

    EXPECT_FALSE(loadDriver("/nonexistent/libkv_3000.so", api, &error));
    EXPECT_NE(error.find("cannot load the driver /nonexistent/libkv_3000.so"), std::string::npos);
}

TEST(DriverLoader, DefaultPathsLookBesideTheExecutableFirst) {
    const std::vector<std::string> c = defaultDriverCandidates("/opt/kv/bin");
    ASSERT_GE(c.size(), 3u);
    EXPECT_EQ(c.front(), "/opt/kv/bin/../libkv_3000.so");
    EXPECT_EQ(c.back(), "libkv_3000.so.2");
    EXPECT_EQ(defaultDriverPath("/nonexistent"), "libkv_3000.so.2");
}

TEST_F(HostArgs, CatalogueComesFromTheDriver) {
    EXPECT_EQ(catalogue_->registers().size(), 28u);
    const RegisterInfo* tc = catalogue_->find(QStringLiteral("TC"));
    ASSERT_NE(tc, nullptr);
    EXPECT_EQ(tc->unit(), kvreg::Unit::DWord);
    EXPECT_EQ(tc->maxAddress, 9999);
    EXPECT_FALSE(catalogue_->find(QStringLiteral("T"))->writable());
    EXPECT_EQ(catalogue_->find(QStringLiteral("B"))->maxAddress, 0x3FFF);
    EXPECT_EQ(catalogue_->find(QStringLiteral("MR_bit"))->maxAddress, 999 * 16 + 15);
}

TEST_F(HostArgs, AddressesInEachRegistersOwnNotation) {
    Address a;
    ASSERT_TRUE(parse("DM100", Access::Read, a));
    EXPECT_EQ(a.reg->name, QStringLiteral("DM"));
    EXPECT_EQ(a.address, 100);
    EXPECT_EQ(a.count, 1);
    ASSERT_TRUE(parse("DM100:10", Access::Write, a));
    EXPECT_EQ(a.count, 10);
    EXPECT_EQ(a.runtimeLength(), 10);
    EXPECT_EQ(a.unitName(9), QStringLiteral("DM109"));
    ASSERT_TRUE(parse("MR_bit10.05", Access::Write, a));
    EXPECT_EQ(a.reg->name, QStringLiteral("MR_bit"));
    EXPECT_EQ(a.address, 165);
    EXPECT_EQ(a.unitName(11), QStringLiteral("MR_bit11.00"));
    ASSERT_TRUE(parse("R5.03", Access::Read, a));
    EXPECT_EQ(a.address, 83);
    ASSERT_TRUE(parse("B3FF", Access::Read, a));
    EXPECT_EQ(a.address, 0x3FF);
    EXPECT_EQ(a.unitName(1), QStringLiteral("B400"));
    ASSERT_TRUE(parse("TC5:2", Access::Write, a));
    EXPECT_EQ(a.reg->name, QStringLiteral("TC"));  // TC before T
    EXPECT_EQ(a.runtimeLength(), 4);               // two 32-bit values = 4 words
    EXPECT_EQ(a.reg->dataType(), 3);
    ASSERT_TRUE(parse("DM_bit100.15", Access::Read, a));
    EXPECT_EQ(a.reg->name, QStringLiteral("DM_bit"));  // DM_bit before DM
    EXPECT_EQ(a.reg->dataType(), -1);
    ASSERT_TRUE(parse("trm7", Access::Read, a));
    EXPECT_EQ(a.reg->name, QStringLiteral("TRM"));
    EXPECT_EQ(a.text, QStringLiteral("trm7"));
}

TEST_F(HostArgs, BadAddressesSayWhatIsWrong) {
    EXPECT_EQ(refusal("XY100"),
              QStringLiteral("XY100: unknown register \"XY\" ('kv3000-host info' lists them)"));
    EXPECT_EQ(refusal("100"),
              QStringLiteral("100: malformed address (expected a register and an address, e.g. DM100)"));
    EXPECT_EQ(refusal("DM70000"), QStringLiteral("DM70000: out of range: DM addresses run from 0 to 65535"));
    EXPECT_EQ(
        refusal("DM65535:2"),
        QStringLiteral("DM65535:2: out of range: DM addresses run from 0 to 65535 (2 units from 65535)"));
    EXPECT_EQ(refusal("TC9999:2"),
              QStringLiteral("TC9999:2: out of range: TC addresses run from 0 to 9999 (2 units from 9999)"));
    EXPECT_EQ(refusal("B4000"), QStringLiteral("B4000: out of range: B addresses run from 0 to 3FFF"));
    EXPECT_EQ(refusal("DM1x"), QStringLiteral("DM1x: malformed address \"1x\" for DM (decimal, e.g. DM10)"));
    EXPECT_EQ(refusal("MR_bit12"),
              QStringLiteral("MR_bit12: malformed address \"12\" for MR_bit (word.bit, e.g. MR_bit10.05)"));
    EXPECT_EQ(refusal("R1.16"),
              QStringLiteral("R1.16: malformed address \"1.16\": the bit number must be 0 to 15"));
    EXPECT_EQ(refusal("DM"), QStringLiteral("DM: no address after DM (decimal, e.g. DM10)"));
    EXPECT_EQ(refusal("DM1:0"), QStringLiteral("DM1:0: malformed count \"0\" (a number of units from 1 up)"));
    EXPECT_EQ(refusal("DM1:513"), QStringLiteral("DM1:513: count 513 is too large (at most 512 for DM)"));
    EXPECT_EQ(refusal("T5", Access::Write), QStringLiteral("T5: T is read-only and cannot be written"));
    EXPECT_EQ(refusal("ZZ9"), QStringLiteral("ZZ9: unknown register \"ZZ\" ('kv3000-host info' lists them)"));
    EXPECT_EQ(refusal("DM+5"), QStringLiteral("DM+5: malformed address \"+5\" for DM (decimal, e.g. DM10)"));
    EXPECT_EQ(refusal("T-0"), QStringLiteral("T-0: malformed address \"-0\" for T (decimal, e.g. T10)"));
    EXPECT_EQ(refusal("TRM1x"),
              QStringLiteral("TRM1x: malformed address \"1x\" for TRM (decimal, e.g. TRM7)"));
    EXPECT_EQ(refusal("DM99999999999"),
              QStringLiteral("DM99999999999: out of range: DM addresses run from 0 to 65535"));
    EXPECT_EQ(refusal("DM1:9999999"),
              QStringLiteral("DM1:9999999: count 9999999 is too large (at most 512 for DM)"));
    Address a;
    EXPECT_TRUE(parse("T5", Access::Read, a));
}

TEST_F(HostArgs, WriteArgumentsTakeOneValueForAllOrOnePerUnit) {
    WriteRequest w;
    QString why;
    ASSERT_TRUE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM100:3=7"), w, &why))
        << why.toStdString();
    EXPECT_EQ(w.values, (std::vector<uint32_t>{7, 7, 7}));
    ASSERT_TRUE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM100=1,2,0x10"), w, &why));
    EXPECT_EQ(w.address.count, 3);
    EXPECT_EQ(w.values, (std::vector<uint32_t>{1, 2, 16}));
    ASSERT_TRUE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM5=-1"), w, &why));
    EXPECT_EQ(w.values, (std::vector<uint32_t>{0xFFFF}));
    ASSERT_TRUE(parseWriteArgument(*catalogue_, api_, QStringLiteral("TC5=100000"), w, &why));
    EXPECT_EQ(w.values, (std::vector<uint32_t>{100000}));

    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM100:3=1,2"), w, &why));
    EXPECT_EQ(why, QStringLiteral("DM100:3=1,2: 2 values for 3 units (give one for all, or one per unit)"));
    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("R5.03=2"), w, &why));
    EXPECT_EQ(why, QStringLiteral("R5.03=2: value 2 is out of range for R (a bit: 0 or 1)"));
    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM5=99999999999999999999"), w, &why));
    EXPECT_EQ(why, QStringLiteral("DM5=99999999999999999999: value 99999999999999999999 is too large for DM "
                                  "(at most 65535)"));
    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("Z1=-2147483649"), w, &why));
    EXPECT_EQ(why,
              QStringLiteral("Z1=-2147483649: value -2147483649 is too small for Z (at least -2147483648)"));
    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM5=abc"), w, &why));
    EXPECT_EQ(why, QStringLiteral("DM5=abc: value \"abc\" is not a number (decimal or 0x hexadecimal)"));
    EXPECT_FALSE(parseWriteArgument(*catalogue_, api_, QStringLiteral("DM5"), w, &why));
    EXPECT_EQ(why, QStringLiteral("DM5: expected ADDR=VALUE"));
}

TEST_F(HostArgs, ValuesGoIntoTheBufferLittleEndian) {
    const RegisterInfo& tc = *catalogue_->find(QStringLiteral("TC"));
    unsigned char b[4] = {};
    storeValue(tc, 0x000186A0, b);
    EXPECT_EQ(b[0], 0xA0);
    EXPECT_EQ(b[1], 0x86);
    EXPECT_EQ(b[2], 0x01);
    EXPECT_EQ(b[3], 0x00);
    EXPECT_EQ(loadValue(tc, b), 100000u);
    EXPECT_EQ(formatValue(tc, 100000), QStringLiteral("100000 (0x000186A0)"));
    EXPECT_EQ(formatValue(*catalogue_->find(QStringLiteral("DM")), 1234), QStringLiteral("1234 (0x04D2)"));
}

TEST_F(HostArgs, RecipeRowsAndTheirBufferLayout) {
    std::vector<RecipeRow> rows;
    QString why;
    const QString csv = QStringLiteral("# a recipe\nDM100,1,2,3\n\nTC5,100000,7\nMR_bit10.05,1\nW1F:2,4,5\n");
    ASSERT_TRUE(parseRecipe(*catalogue_, api_, csv, QStringLiteral("r.csv"), true, rows, &why))
        << why.toStdString();
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[0].address.count, 3);
    EXPECT_EQ(rows[1].values, (std::vector<uint32_t>{100000, 7}));
    std::vector<int> offsets;
    const QVector<_RCP_VAR_PRO> e = recipeEntries(rows, 7, offsets);
    EXPECT_EQ(offsets, (std::vector<int>{0, 3, 7, 8}));
    ASSERT_EQ(e.size(), 5);  // the two TC values are entries of their own
    EXPECT_EQ(e[1].reg, QStringLiteral("TC"));
    EXPECT_EQ(e[1].address, 5);
    EXPECT_EQ(e[1].length, 2);
    EXPECT_EQ(e[2].address, 6);
    EXPECT_EQ(e[2].bufferOffset, 5);
    EXPECT_EQ(e[3].reg, QStringLiteral("MR_bit"));
    EXPECT_EQ(e[3].address, 165);
    EXPECT_EQ(e[3].protocolId, 7);
    EXPECT_EQ(formatRecipe(rows), QStringLiteral("DM100,1,2,3\nTC5,100000,7\nMR_bit10.05,1\nW1F,4,5\n"));

    EXPECT_FALSE(parseRecipe(*catalogue_, api_, QStringLiteral("DM100,1\nXY5,1\n"), QStringLiteral("r.csv"),
                             true, rows, &why));
    EXPECT_EQ(why, QStringLiteral("r.csv:2: XY5: unknown register \"XY\" ('kv3000-host info' lists them)"));
    EXPECT_FALSE(
        parseRecipe(*catalogue_, api_, QStringLiteral("DM100\n"), QStringLiteral("r.csv"), true, rows, &why));
    EXPECT_EQ(why, QStringLiteral("r.csv:1: DM100 has no value"));
    ASSERT_TRUE(parseRecipe(*catalogue_, api_, QStringLiteral("DM100:3\nTC5\n"), QStringLiteral("u.csv"),
                            false, rows, &why));
    EXPECT_EQ(rows[0].address.count, 3);
    EXPECT_TRUE(rows[0].values.empty());
}

TEST(DriverMessages, TakeTheFrameNameApart) {
    FrameName f;
    ASSERT_TRUE(parseDriverMessage(QStringLiteral("1#DM100(5)"), f));
    EXPECT_EQ(f.station, 1);
    EXPECT_EQ(f.reg, QStringLiteral("DM"));
    EXPECT_EQ(f.address, 100);
    EXPECT_EQ(f.length, 5);
    ASSERT_TRUE(parseDriverMessage(QStringLiteral("2#DM_bit100.5(1)"), f));
    EXPECT_EQ(f.reg, QStringLiteral("DM_bit"));
    EXPECT_EQ(f.address, 1605);
    EXPECT_FALSE(parseDriverMessage(QStringLiteral("connection failed"), f));
    EXPECT_FALSE(parseDriverMessage(QStringLiteral("1#DM(x)"), f));
}

TEST(LinkSettings, SerialParametersAndTcpEndpoints) {
    SerialParams p;
    std::string why;
    ASSERT_TRUE(parseSerialParams("19200,7,odd,2", p, &why));
    EXPECT_EQ(p.baud, 19200);
    EXPECT_EQ(p.parity, 'O');
    EXPECT_EQ(p.bitsPerCharacter(), 11);
    EXPECT_EQ(p.text(), "19200,7,ODD,2");
    EXPECT_FALSE(parseSerialParams("9600,8,MARK,1", p, &why));
    EXPECT_NE(why.find("parity must be NONE, EVEN or ODD"), std::string::npos);
    EXPECT_FALSE(parseSerialParams("1234,8,EVEN,1", p, &why));
    EXPECT_FALSE(parseSerialParams("9600,8,EVEN", p, &why));

    // 9600 baud, 8E1 = 11 bits a character: 17 bytes take 19.479 ms, plus the margin.
    HostOptions o;
    o.link = HostOptions::LinkKind::Serial;
    o.serialDevice = "/dev/null";
    o.timeoutMs = 100;
    const std::unique_ptr<Link> serial = makeLink(o, 0);
    EXPECT_EQ(serial->replyTimeout(17), 19479 + 100000);
    EXPECT_FALSE(serial->silenceMeansLost());  // a quiet line is not a lost device
    EXPECT_EQ(serial->describe(), "serial /dev/null 9600,8,EVEN,1");
    o.link = HostOptions::LinkKind::Embedded;
    EXPECT_EQ(makeLink(o, 4321)->describe(), "tcp 127.0.0.1:4321");
    EXPECT_TRUE(makeLink(o, 4321)->silenceMeansLost());

    std::string host;
    uint16_t port = 0;
    ASSERT_TRUE(parseHostPort("127.0.0.1:8000", host, port, &why));
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_EQ(port, 8000);
    ASSERT_TRUE(parseHostPort("[::1]:502", host, port, &why));
    EXPECT_EQ(host, "::1");
    EXPECT_FALSE(parseHostPort("plc", host, port, &why));
    EXPECT_FALSE(parseHostPort("plc:0", host, port, &why));
    EXPECT_FALSE(parseHostPort("plc:70000", host, port, &why));
}

TEST(CommandLineTest, FixedCommandLine) {
    CommandLine c;
    QString why;
    ASSERT_TRUE(parseCommandLine({QStringLiteral("kv3000-host")}, c, &why));
    EXPECT_EQ(c.command, QStringLiteral("demo"));
    EXPECT_TRUE(c.host.liveSimulator);
    ASSERT_TRUE(parseCommandLine({"kv3000-host", "--tcp", "10.0.0.2:8000", "--params", "2#0#0#5#20",
                                  "--timeout", "250", "watch", "DM0", "--for", "1.5"},
                                 c, &why))
        << why.toStdString();
    EXPECT_EQ(c.host.link, HostOptions::LinkKind::Tcp);
    EXPECT_EQ(c.host.tcpPort, 8000);
    EXPECT_EQ(c.host.protocolId, 2);
    EXPECT_EQ(c.host.retries, 5);
    EXPECT_EQ(c.host.timeoutMs, 250);
    EXPECT_DOUBLE_EQ(c.forSeconds, 1.5);
    EXPECT_EQ(c.args, QStringList{QStringLiteral("DM0")});

    EXPECT_FALSE(
        parseCommandLine({"kv3000-host", "--tcp", "a:1", "--serial", "/dev/ttyS0", "info"}, c, &why));
    EXPECT_FALSE(parseCommandLine({"kv3000-host", "read", "DM0", "--for", "3"}, c, &why));
    EXPECT_EQ(why, QStringLiteral("--for goes with watch"));
    EXPECT_FALSE(parseCommandLine({"kv3000-host", "--tcp", "a:1"}, c, &why));  // demo needs the simulator
    EXPECT_FALSE(parseCommandLine({"kv3000-host", "--params", "1#0#0#3#0", "info"}, c, &why));
    EXPECT_FALSE(parseCommandLine({"kv3000-host", "--bogus", "info"}, c, &why));
    EXPECT_FALSE(parseCommandLine({"kv3000-host", "recipe-upload"}, c, &why));
}

}  // namespace
