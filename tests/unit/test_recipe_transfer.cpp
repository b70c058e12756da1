// Recipe download and upload through the whole loop: every kind of entry,
// long bit entries, contacts, and change reports that replace the recipe or
// re-initialise the driver.
#include "records.h"
#include "runtime_fixture.h"
#include "sim_plc.h"

namespace {

class RecipeTransfer : public RuntimeFixture {
protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        runLoop(plc, 5);
    }
    // Runs the loop until the runtime's request byte is cleared.
    void transfer(bool download) {
        download ? requestRecipeWrite(true) : requestRecipeRead(true);
        for (int i = 0; i < 600 && (download ? recipeWriteByte() : recipeReadByte()); ++i) runLoop(plc, 1);
        ASSERT_EQ(download ? recipeWriteByte() : recipeReadByte(), 0);
    }
    SimPlc plc;
};

// Every kind of entry: long word entries cut into several blocks, 32-bit
// values, relay bits and bits inside words.
class RecipeOfEveryKind : public RecipeTransfer {
protected:
    void SetUp() override {
        RecipeTransfer::SetUp();
        QVector<_RCP_VAR_PRO> entries{
            makeEntry("DM", 1000, 300, 0),      // words 0..299: three blocks
            makeEntry("TC", 7, 6, 300),         // three values: words 300..305
            makeEntry("R", 35, 5, 306),         // one word per bit: 306..310
            makeEntry("DM_bit", 1614, 4, 311),  // DM 100.14 .. 101.01: 311..314
        };
        ASSERT_EQ(intf_setRcpAddress(entries), 4);
    }
};

TEST_F(RecipeOfEveryKind, DownloadWritesEveryEntryAndNothingElse) {
    for (int w = 0; w < 300; ++w) recipe[w] = static_cast<unsigned short>(w * 7 + 1);
    recipe[300] = 0x5678;  // TC7 = 0x12345678, low half first
    recipe[301] = 0x1234;
    recipe[302] = 1;  // TC8 = 1
    recipe[303] = 0;
    recipe[304] = 0xFFFF;  // TC9 = 0xFFFFFFFF
    recipe[305] = 0xFFFF;
    const unsigned short relay[5] = {1, 0, 1, 1, 0};
    for (int j = 0; j < 5; ++j) recipe[306 + j] = relay[j];
    const unsigned short bits[4] = {1, 0, 0, 1};
    for (int j = 0; j < 4; ++j) recipe[311 + j] = bits[j];
    plc.set("R", 36, true);  // R 2.04 is named (0 in the recipe): cleared
    plc.set("R", 40, true);  // R 2.08 is not named: kept
    plc.set("DM", 100, 0x8001);
    plc.set("DM", 101, 0x0F0F);
    plc.set("DM", 1300, 0xBEEF);  // just past the long entry

    transfer(true);

    for (int w = 0; w < 300; ++w) ASSERT_EQ(plc.get("DM", 1000 + w), w * 7 + 1) << w;
    EXPECT_EQ(plc.get("DM", 1300), 0xBEEF);
    EXPECT_EQ(plc.get("TC", 7), 0x12345678u);
    EXPECT_EQ(plc.get("TC", 8), 1u);
    EXPECT_EQ(plc.get("TC", 9), 0xFFFFFFFFu);
    for (int j = 0; j < 5; ++j) EXPECT_EQ(plc.get("R", 35 + j), relay[j] != 0) << j;
    EXPECT_TRUE(plc.get("R", 40));
    EXPECT_EQ(plc.get("DM", 100), 0x4001);  // bit 14 set, 15 cleared, others as they were
    EXPECT_EQ(plc.get("DM", 101), 0x0F0E);  // bit 0 cleared, bit 1 set
}

TEST_F(RecipeOfEveryKind, UploadFillsTheBufferWhereTheRuntimeLooks) {
    for (int w = 0; w < 300; ++w) plc.set("DM", 1000 + w, static_cast<uint16_t>(0x4000 + w));
    plc.set("TC", 7, 0xCAFEF00D);
    plc.set("TC", 9, 77);
    plc.set("R", 37, true);
    plc.set("DM", 100, 0x4000);  // 100.14 set, 100.15 clear
    plc.set("DM", 101, 0x0002);  // 101.00 clear, 101.01 set

    transfer(false);

    for (int w = 0; w < 300; ++w) ASSERT_EQ(recipe[w], 0x4000 + w) << w;
    EXPECT_EQ(recipe[300], 0xF00D);
    EXPECT_EQ(recipe[301], 0xCAFE);
    EXPECT_EQ(recipe[304], 77);
    EXPECT_EQ(recipe[305], 0);
    const unsigned short relay[5] = {0, 0, 1, 0, 0};
    for (int j = 0; j < 5; ++j) EXPECT_EQ(recipe[306 + j], relay[j]) << j;
    const unsigned short bits[4] = {1, 0, 0, 1};
    for (int j = 0; j < 4; ++j) EXPECT_EQ(recipe[311 + j], bits[j]) << j;
    // Every buffer word filled is announced once.
    int announced = 0;
    for (const auto& c : calls()) announced += c.name == "RWI";
    EXPECT_EQ(announced, 315);
}

TEST_F(RecipeTransfer, LongBitEntriesDownloadEveryBitFromItsOwnWord) {
    QVector<_RCP_VAR_PRO> entries{makeEntry("R", 0, 200, 0), makeEntry("DM_bit", 1600, 200, 200)};
    ASSERT_EQ(intf_setRcpAddress(entries), 2);
    for (int j = 0; j < 400; ++j) recipe[j] = (j * 7) % 3 == 0;
    transfer(true);
    for (int j = 0; j < 200; ++j) ASSERT_EQ(plc.get("R", j), recipe[j] != 0) << j;
    for (int j = 0; j < 200; ++j) {
        const int b = 1600 + j;
        ASSERT_EQ((plc.get("DM", b / 16) >> (b % 16)) & 1, recipe[200 + j]) << j;
    }
}

TEST_F(RecipeTransfer, ContactsAreSkippedInADownload) {
    QVector<_RCP_VAR_PRO> entries{makeEntry("T", 0, 1, 0), makeEntry("DM", 100, 1, 1),
                                  makeEntry("Z", 1, 2, 4)};
    ASSERT_EQ(intf_setRcpAddress(entries), 3);
    recipe[1] = 0x1234;
    recipe[4] = 9;
    transfer(true);
    EXPECT_EQ(plc.get("DM", 100), 0x1234u);
    EXPECT_EQ(plc.get("Z", 1), 9u);
}

// One word of a 32-bit register names no whole value: registering it says
// so, and a transfer that reaches it fails without touching what no entry
// names (the other half of the value in the controller or in the buffer).
TEST_F(RecipeTransfer, AOneWordTimerEntryEndsTheTransferAsFailed) {
    plc.set("TC", 19, 5);
    recipe[0] = 7;
    recipe[1] = 0xAAAA;
    QVector<_RCP_VAR_PRO> timer{makeEntry("TC", 19, 1, 0)};
    {
        DebugCapture debug;
        ASSERT_EQ(intf_setRcpAddress(timer), 1);
        EXPECT_TRUE(
            debug.lines().join('\n').contains("recipe entry 1#TC19(1) names less than one 32-bit value"));
    }
    transfer(true);
    EXPECT_EQ(plc.get("TC", 19), 5u);
    EXPECT_EQ(plc.requests, 5);  // the handshake only

    plc.set("DM", 0, 0x1234);
    plc.set("TC", 19, 0xBBBBCCCC);
    recipe[0] = recipe[1] = 0xEEEE;
    QVector<_RCP_VAR_PRO> both{makeEntry("DM", 0, 1, 1), makeEntry("TC", 19, 1, 0)};
    ASSERT_EQ(intf_setRcpAddress(both), 2);
    transfer(false);
    EXPECT_EQ(recipe[1], 0x1234);
    EXPECT_EQ(recipe[0], 0xEEEE);
}

TEST_F(RecipeTransfer, RecipeReplacedFromTheCallbackDuringAnUpload) {
    QVector<_RCP_VAR_PRO> entries{makeEntry("DM", 100, 3, 0)};
    ASSERT_EQ(intf_setRcpAddress(entries), 1);
    intf_setAddrValueChangeCallBack([](int, int, const QString& name, int) {
        if (name == "RWI") {
            QVector<_RCP_VAR_PRO> none;
            intf_setRcpAddress(none);  // empties the recipe entries under the parser
        }
    });
    transfer(false);
    EXPECT_EQ(recipeReadByte(), 0);
}

TEST_F(RecipeTransfer, ReinitialisedFromTheCallbackDuringAWrite) {
    intf_setAddrValueChangeCallBack([](int, int, const QString&, int) {
        static unsigned char shm2[60117];
        static unsigned short recipe2[16];
        static QMutex m2;
        int status;
        intf_initProperty(shm2, nullptr, recipe2, &status, "1#0#0#3#10", &m2);
    });
    std::vector<unsigned char> bits(16, 1);
    QString r = QStringLiteral("R");
    intf_setData(1, &r, 0, 16, bits.data(), 1);  // the first bit's report re-initialises
    EXPECT_TRUE(driver.dataArea.size() <= 1);
    intf_setAddrValueChangeCallBack(nullptr);
}

}  // namespace
