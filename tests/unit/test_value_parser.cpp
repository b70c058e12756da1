// Parsing of read replies into the data area, recipe copies, and the
// completion of bit writes into words.
#include "kv_3000/frame_builder.h"
#include "records.h"
#include "runtime_fixture.h"
#include "serviceForProtocol/value_parser.h"
#include "sim_plc.h"

#include <QByteArray>

#include <cstring>

namespace {

class Parser : public RuntimeFixture {
protected:
    // A read reply (11 + n bytes) carrying the given value bytes.
    static QByteArray readReply(const std::vector<unsigned char>& values) {
        std::vector<unsigned char> body = {0x1E, 0x00, 0x00, 0x00, 0x00};
        body.insert(body.end(), values.begin(), values.end());
        return replyOf(body);
    }
    static VARIABLE var(const char* reg, int address, int length) { return makeItem(reg, address, length); }
    static std::vector<unsigned char> get(const char* reg, int address, int len, int bytes) {
        std::vector<unsigned char> out(bytes, 0xEE);
        intf_getData(1, QString::fromLatin1(reg), address, len, out.data());
        return out;
    }
    void monitor(const char* reg, int address, int length) {
        monitored << makeKey(reg, address, length);
        intf_addrMerge(monitored);
        calls().clear();
    }
    // Buffer words announced by the recipe reports, in order.
    static std::vector<int> announced() {
        std::vector<int> words;
        for (const auto& c : calls())
            if (c.name == "RWI") words.push_back(c.address);
        return words;
    }
    QList<KEY_ADDRESS> monitored;
};

TEST_F(Parser, RelayBitsTravelInWordsLowByteFirst) {
    // Two words: 0x8001 (elements 0 and 15), 0x000A (elements 17 and 19).
    const QByteArray reply = readReply({0x80, 0x01, 0x00, 0x0A});
    analyzeFrameOfVal(reply, 20, 9, var("R", 0, 20));
    const auto bits = get("R", 0, 20, 20);
    std::vector<unsigned char> expected(20, 0);
    expected[0] = expected[15] = expected[17] = expected[19] = 1;
    EXPECT_EQ(bits, expected);
    // Bit units report a change through their own monitor flag.
    monitor("R", 17, 1);
    analyzeFrameOfVal(readReply({0x80, 0x01, 0x00, 0x08}), 20, 9, var("R", 0, 20));
    EXPECT_EQ(calls(), (std::vector<CallbackRecord>{{1, 1, "R", 17}}));
}

TEST_F(Parser, TimerRecordsGiveContactCurrentAndSetValue) {
    std::vector<unsigned char> records = {
        0x7F, 0,    0,    0,    1,    0, 0, 0,    2,     // T0: contact off (other bits ignored)
        0x80, 0x00, 0x01, 0x86, 0xA0, 0, 0, 0x03, 0xE8,  // T1: on, current 100000, set 1000
        0x80, 0,    0,    0,    0,    0, 0, 0,    0};
    const QByteArray reply = readReply(records);
    analyzeFrameOfVal(reply, 3, 9, var("T", 0, 3));
    EXPECT_EQ(get("T", 0, 3, 3), (std::vector<unsigned char>{0, 1, 1}));
    analyzeFrameOfVal(reply, 3, 9, var("TC", 0, 3));
    analyzeFrameOfVal(reply, 3, 9, var("TS", 0, 3));
    EXPECT_EQ(get("TC", 1, 2, 4), (std::vector<unsigned char>{0xA0, 0x86, 0x01, 0x00}));
    EXPECT_EQ(get("TS", 1, 2, 4), (std::vector<unsigned char>{0xE8, 0x03, 0x00, 0x00}));
}

TEST_F(Parser, DoubleWordsHighByteFirst) {
    analyzeFrameOfVal(readReply({0x12, 0x34, 0x56, 0x78, 0, 0, 0, 9}), 2, 9, var("Z", 3, 2));
    EXPECT_EQ(get("Z", 3, 4, 8), (std::vector<unsigned char>{0x78, 0x56, 0x34, 0x12, 9, 0, 0, 0}));
}

TEST_F(Parser, UnchangedWordKeepsTheWrittenView) {
    driver.localWriteOnly = 1;
    unsigned char w[2] = {0x22, 0x11};
    QString dm = QStringLiteral("DM");
    intf_setData(1, &dm, 5, 1, w, 0);
    analyzeFrameOfVal(readReply({0x00, 0x00}), 1, 9, var("DM", 5, 1));  // same as readValue (0)
    EXPECT_EQ(get("DM", 5, 1, 2), (std::vector<unsigned char>{0x22, 0x11}));
    analyzeFrameOfVal(readReply({0x00, 0x07}), 1, 9, var("DM", 5, 1));  // a new value drops the view
    EXPECT_EQ(get("DM", 5, 1, 2), (std::vector<unsigned char>{0x07, 0x00}));
}

TEST_F(Parser, PendingBitWriteKeepsTheWrittenWord) {
    monitor("DM", 7, 1);
    unsigned char one = 1;
    QString bit = QStringLiteral("DM_bit");
    intf_setData(1, &bit, 7 * 16 + 2, 1, &one, 0);  // queued: writeList not empty
    intf_setData(1, &bit, 7 * 16 + 2, 1, &one, 0);  // second, identical: both flags of bit 2
    calls().clear();
    analyzeFrameOfVal(readReply({0x01, 0x00}), 1, 9, var("DM", 7, 1));
    EXPECT_EQ(get("DM", 7, 1, 2), (std::vector<unsigned char>{0x04, 0x00}));  // still the written word
    EXPECT_EQ(calls(),
              (std::vector<CallbackRecord>{{1, 1, "DM", 7}}));  // the new read value is reported all the same
}

TEST_F(Parser, ShortReplyCountsMissingBytesAsZero) {
    analyzeFrameOfVal(QByteArray::fromHex("0601"), 128, 9, var("DM", 0, 128));
    analyzeFrameOfVal(QByteArray(), 3, 9, var("TC", 0, 3));
    analyzeFrameOfVal(QByteArray("\x06"), 64, 9, var("R", 0, 64));
    EXPECT_EQ(get("DM", 127, 1, 2), (std::vector<unsigned char>{0, 0}));
    analyzeFrameOfVal(readReply({1, 2}), 5, 9, var("XX", 0, 5));  // unknown register: nothing stored
    analyzeFrameOfVal(readReply({1, 2}), 1, -100, var("DM", 0, 1));
}

TEST_F(Parser, TwoRecipeEntriesInOneFrame) {
    QVector<_RCP_VAR_PRO> entries{makeEntry("DM", 50, 3, 0), makeEntry("DM", 53, 2, 10)};
    ASSERT_EQ(intf_setRcpAddress(entries), 2);
    ASSERT_EQ(driver.rcpBlockList.size(), 1);
    driver.state = 6;
    driver.rcpFrameIndex = 0;
    analyzeFrameOfVal(readReply({0, 1, 0, 2, 0, 3, 0xAB, 0xCD, 0, 5}), 5, 9, var("DM", 50, 5));
    EXPECT_EQ(recipe[0], 1);
    EXPECT_EQ(recipe[2], 3);
    EXPECT_EQ(recipe[10], 0xABCD);
    EXPECT_EQ(recipe[11], 5);
    EXPECT_EQ(announced(), (std::vector<int>{0, 1, 2, 10, 11}));
}

TEST_F(Parser, RecipeDoubleWordEntriesCopyEveryValue) {
    QVector<_RCP_VAR_PRO> entries{makeEntry("Z", 2, 4, 20)};  // two values
    intf_setRcpAddress(entries);
    driver.state = 6;
    analyzeFrameOfVal(readReply({0x00, 0x01, 0x00, 0x02, 0xAA, 0xBB, 0xCC, 0xDD}), 2, 9, var("Z", 2, 2));
    EXPECT_EQ(recipe[20], 0x0002);
    EXPECT_EQ(recipe[21], 0x0001);
    EXPECT_EQ(recipe[22], 0xCCDD);
    EXPECT_EQ(recipe[23], 0xAABB);
    EXPECT_EQ(announced(), (std::vector<int>{20, 21, 22, 23}));
}

TEST_F(Parser, BitWritePatchChangesOnlyTheNamedBits) {
    VARIABLE w = var("DM_bit", 100 * 16 + 14, 4);
    w.data[0] = 1;  // bit 100.14 set
    w.data[1] = 0;  // 100.15 cleared
    w.data[2] = 0;  // 101.00 cleared
    w.data[3] = 1;  // 101.01 set
    driver.frameList.clear();
    getWriteFrame(w);
    ASSERT_EQ(driver.frameList.size(), 2);
    driver.state = 2;
    // Words read: 100 = 0x8001, 101 = 0x0F0F.
    const FRAME_PRO read = driver.frameList.first();
    analyzeFrameOfVal(readReply({0x80, 0x01, 0x0F, 0x0F}), read.elementCount, read.dataOffset, w);
    const FRAME_PRO& write = driver.frameList[1];
    // 100: 0x8001 -> bit 14 set, bit 15 cleared = 0x4001; 101: 0x0F0F -> bit 0 cleared, bit 1 set = 0x0F0E.
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(write.frame + 17), 4).toHex(), "40010f0e");
    const unsigned char check = static_cast<unsigned char>(computate_check(
        const_cast<unsigned char*>(write.frame) + 3, static_cast<unsigned short>(write.sendLength - 5)));
    EXPECT_EQ(write.frame[write.sendLength - 2], check);
    EXPECT_EQ(write.frame[write.sendLength - 1], 0x04);
    driver.frameList.clear();
}

}  // namespace
