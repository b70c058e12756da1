// Read-out of shown values into the runtime's buffers.
#include "data_area_fixture.h"

#include <climits>

namespace {

using ValueReadout = DataAreaFixture;

TEST_F(ValueReadout, FreshUnitsReadZeroWrittenOnesAtOnce) {
    EXPECT_EQ(get(1, "DM", 5, 2, 4), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(driver.dataArea.size(), 2);
    EXPECT_EQ(get(1, "R", 5, 2, 2), (Bytes{0, 0}));
    EXPECT_EQ(get(1, "DM_bit", 5 * 16, 3, 3), (Bytes{0, 0, 0}));
    EXPECT_EQ(driver.dataArea.size(), 4);  // DM 5 was there already
    // A written value shows before the device answers.
    save(1, "DM", 5, 1, {0x34, 0x12});
    EXPECT_EQ(get(1, "DM", 5, 1, 2), (Bytes{0x34, 0x12}));
    EXPECT_EQ(get(1, "DM_bit", 5 * 16 + 4, 1, 1), (Bytes{1}));
    EXPECT_EQ(get(1, "DM_bit", 5 * 16 + 9, 4, 4), (Bytes{1, 0, 0, 1}));
}

TEST_F(ValueReadout, BlocksMixWrittenAndReadUnits) {
    for (int a = 0; a < 4; ++a) entry(1, "DM", a).readValue[0] = static_cast<unsigned char>(0x10 + a);
    save(1, "DM", 1, 2, {0xA1, 0xB1, 0xA2, 0xB2});
    EXPECT_EQ(get(1, "DM", 0, 4, 8), (Bytes{0x10, 0, 0xA1, 0xB1, 0xA2, 0xB2, 0x13, 0}));

    // While a bit write of a word is pending, every bit of it comes from the written word.
    entry(1, "DM", 8).readValue[0] = 0x01;
    entry(1, "DM", 9).readValue[0] = 0x01;
    save(1, "DM_bit", 9 * 16 + 1, 1, {1});
    entry(1, "DM", 9).readValue[0] = 0x00;
    EXPECT_EQ(get(1, "DM_bit", 8 * 16 + 14, 5, 5), (Bytes{0, 0, 1, 1, 0}));
}

TEST_F(ValueReadout, DwordAndBitUnits) {
    save(1, "TC", 3, 4, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(get(1, "TC", 3, 4, 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(get(1, "TC", 3, 3, 6), (Bytes{1, 2, 3, 4, 0xEE, 0xEE}));
    EXPECT_EQ(get(1, "TC", 4, 1, 2), (Bytes{0xEE, 0xEE}));
    entry(1, "TC", 3).writeValid = 0;
    entry(1, "TC", 3).readValue[3] = 0x80;
    EXPECT_EQ(get(1, "TC", 3, 2, 4), (Bytes{0, 0, 0, 0x80}));
    // Bit units: one byte per bit, each from its own unit.
    entry(1, "R", 81).readValue[0] = 1;
    save(1, "R", 82, 1, {1});
    EXPECT_EQ(get(1, "R", 80, 3, 3), (Bytes{0, 1, 1}));
    EXPECT_EQ(get(2, "R", 80, 3, 3), (Bytes{0, 0, 0}));
}

TEST_F(ValueReadout, BadInputLeavesTheBufferAndTheAreaAlone) {
    const struct {
        const char* reg;
        int address;
        int len;
    } cases[] = {
        {"XX", 0, 1},       {"dm", 0, 1},       {"DM", 0, 0},      {"DM", 0, -1},          {"DM", 0, 513},
        {"TC", 0, 514},     {"TC", 0, 1},       {"R", 0, 1025},    {"DM_bit", 0, 1025},    {"DM_bit", -16, 1},
        {"DM", INT_MAX, 2}, {"TC", INT_MAX, 4}, {"T", INT_MAX, 2}, {"DM_bit", INT_MAX, 2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(get(1, c.reg, c.address, c.len, 4096), Bytes(4096, 0xEE)) << c.reg << " " << c.len;
        EXPECT_TRUE(driver.dataArea.isEmpty()) << c.reg << " " << c.address << " " << c.len;
    }
    EXPECT_EQ(intf_getData(1, "DM", 0, 1, nullptr), 1);
    EXPECT_TRUE(driver.dataArea.isEmpty());
    EXPECT_EQ(get(1, "DM", 0, 512, 1024).size(), 1024u);
    EXPECT_EQ(get(1, "DM_bit", 0, 1024, 1024).size(), 1024u);
}

// The change report may read the new value back at once.
std::vector<unsigned char> seenInCallback;
void readBack(int, int station, const QString& name, int address) {
    unsigned char b[2] = {0xEE, 0xEE};
    intf_getData(station, name, address, 1, b);
    seenInCallback.assign(b, b + 2);
}

TEST_F(ValueReadout, CallbackMayReadBack) {
    intf_setAddrValueChangeCallBack(&readBack);
    entry(1, "DM", 4).monitorFlags = 1;
    seenInCallback.clear();
    save(1, "DM", 4, 1, {0x55, 0x66});
    // The report comes before the store: the callback still sees the old value.
    EXPECT_EQ(seenInCallback, (Bytes{0, 0}));
    EXPECT_EQ(get(1, "DM", 4, 1, 2), (Bytes{0x55, 0x66}));
}

}  // namespace
