// Address texts and integers, and the two address checks the runtime runs.
#include "kv3000_intf.h"
#include "kv_3000/address_codec.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

const int U = 777;  // the caller's integer before the call: "untouched"

TEST(AddressCodec, WordBitTextsAndIntegers) {
    const struct {
        const char *text, *reg;
        int value;
    } toInt[] = {
        {"999.15", "MR_bit", 15999},
        {"0.0", "LR_bit", 0},
        {"65535.15", "DM_bit", 1048575},
        {"1.0", "R", 16},
        {"1.20", "MR_bit", 36},
        {"2.4", "MR_bit", 36},  // the bit part is not limited to 0..15
        {"999.15", "DM", 0},    // single-number names: 0 without a look
        // 268435456 * 16 + 5 would wrap to 5 in 32 bits: saturated instead.
        {"268435456.5", "DM_bit", INT_MAX},
        {"-268435456.5", "DM_bit", INT_MIN},
        {"99999999999.0", "DM_bit", -1},
    };
    for (const auto& c : toInt) EXPECT_EQ(addr_str2int(c.text, c.reg), c.value) << c.text << " " << c.reg;
    for (const char* text : {"12", "12.3.4", "", ".", ".5", "5.", "a.1", "1.b", "1..2", "１.2"})
        EXPECT_EQ(addr_str2int(QString::fromUtf8(text), "MR_bit"), -1) << text;

    EXPECT_EQ(addr_int2str(15999, "MR_bit"), "999.15");
    EXPECT_EQ(addr_int2str(16, "MR_bit"), "1.0");
    EXPECT_EQ(addr_int2str(0, "R"), "0.0");
    EXPECT_EQ(addr_int2str(1048575, "DM_bit"), "65535.15");
    EXPECT_EQ(addr_int2str(5, "DM"), "");

    for (const char* n : {"R", "DM_bit"}) EXPECT_TRUE(isWordBitRegister(n)) << n;
    for (const char* n : {"DM", "r", "RR"}) EXPECT_FALSE(isWordBitRegister(n)) << n;
    EXPECT_EQ(addrOffset("DM", 123), 123);
    EXPECT_EQ(addrOffset("MR_bit", 15999), 15999);
}

TEST(AddressCodec, A2iPicksTheFormByFormatAndTheBaseByItsLastLetter) {
    const struct {
        const char *text, *format, *reg;
        int result, value;
    } cases[] = {
        {"3FFF", "HHHH", "B", 1, 16383},
        {"9999", "DDDD", "T", 1, 9999},
        {"17", "OOO", "X", 1, 15},
        {"42", "", "X", 1, 42},
        {"999.15", "DDD.DD", "MR_bit", 1, 15999},
        {"999.15", "DDD.DD", "DM", 1, 0},  // the name, not the format, decides inside word.bit
        // A failed single number is stored as 0; a failed word.bit text leaves the value.
        {"3FFG", "HHHH", "B", -1, 0},
        {"12", "DDD.DD", "MR_bit", -1, U},
    };
    for (const auto& c : cases) {
        int v = U;
        EXPECT_EQ(a2i(c.text, v, c.format, c.reg), c.result) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
}

TEST(CheckAddrValidity, EveryResultCodeWithTheCallersInteger) {
    // Result code and the caller's integer afterwards, for hostile texts and extreme lengths too;
    // nothing below the address is checked, so short lengths pass.
    const struct {
        const char *reg, *text;
        int length, wordAccess, result, address;
    } cases[] = {
        {"DM", "65535", 1, 1, 0, 65535},
        {"DM", "65535", 2, 1, 2, 65535},
        {"TC", "9999", 2, 1, 0, 9999},
        {"TC", "9999", 3, 1, 2, 9999},
        {"ZF", "131071", 1, 1, 0, 131071},
        {"ZF", "131072", 1, 1, 2, 131072},
        {"TRM", "7", 2, 1, 0, 7},
        {"TRM", "8", 1, 1, 2, 8},
        {"DM_bit", "65535.15", 1, 0, 0, 1048575},
        {"DM_bit", "65535.15", 2, 0, 2, 1048575},
        {"DM_bit", "65535.15", 1, 1, 1, U},
        {"DM", "100", 1, 0, 1, U},
        {"B", "3FFF", 1, 0, 0, 16383},
        {"B", "4000", 1, 0, 2, 16384},
        {"B", "3FFG", 1, 0, 4, 0},
        {"TM_bit", "9999.15", 1, 0, 0, 159999},
        {"TM_bit", "10000.0", 1, 0, 2, 160000},
        {"MR_bit", "1.20", 1, 0, 0, 36},
        {"MR_bit", "12", 1, 0, 4, U},
        {"MR_bit", "12.3.4", 1, 0, 4, U},
        {"XX", "12", 1, 1, 3, U},
        {"dm", "garbage", -5, 0, 3, U},
        {"", "", 0, 0, 3, U},
        {"DM ", "1", 1, 1, 3, U},
        {"DM", "", 1, 1, 4, 0},
        {"DM", "99999999999", 1, 1, 4, 0},
        {"DM", "4294967312", 1, 1, 4, 0},
        {"DM", "1.5", 1, 1, 4, 0},
        {"DM", "1 2", 1, 1, 4, 0},
        {"DM", "１２", 1, 1, 4, 0},
        {"DM", "-1", 1, 1, 2, -1},
        {"DM", "+12", 1, 1, 0, 12},
        {"DM_bit", "1.2.", 1, 0, 4, U},
        {"DM_bit", "268435456.5", 1, 0, 2, INT_MAX},
        {"DM_bit", "-268435456.5", 1, 0, 2, INT_MIN},
        {"DM_bit", "-1.0", 1, 0, 2, -16},
        {"DM", "0", INT_MAX, 1, 2, 0},
        {"DM_bit", "0.0", INT_MAX, 0, 2, 0},
        {"TC", "0", INT_MAX, 1, 2, 0},
        {"DM", "65535", 0, 1, 0, 65535},
        {"DM", "65535", -5, 1, 0, 65535},
        {"DM", "65535", INT_MIN, 1, 0, 65535},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " " + c.text + " " + std::to_string(c.length));
        int a = U;
        EXPECT_EQ(intf_checkAddrValidity(c.reg, QString::fromUtf8(c.text), a, c.length, c.wordAccess),
                  c.result);
        EXPECT_EQ(a, c.address);
    }
}

TEST(CheckAddr, EveryResultCodeWithTheCallersInteger) {
    const struct {
        const char *reg, *text;
        int dataType, length, accessMode, result, address;
    } cases[] = {
        {"T", "10", -1, 1, 1, 6, U},
        {"C", "10", -1, 1, 2, 6, U},
        {"T", "10", -1, 1, 0, 0, 10},
        {"T", "10", -1, 1, 3, 0, 10},
        {"DM", "10", 0, 1, 1, 0, 10},
        {"TC", "9999", 3, 3, 0, 2, 9999},
        {"TRM", "7", 2, 2, 0, 5, U},
        {"DM", "7", 2, 2, 0, 0, 7},
        {"DM", "100", -1, 1, 0, 1, U},
        {"MR_bit", "1.0", 0, 1, 0, 1, U},
        {"DM_bit", "65535.15", -1, 1, 0, 0, 1048575},
        {"DM_bit", "65535.15", -1, 2, 0, 2, 1048575},
        // The tests run in their order: name, kind, read-only, data type, text, range.
        {"XX", "zz", 2, 1, 1, 3, U},
        {"T", "zz", 0, 1, 1, 1, U},
        {"T", "zz", -1, 1, 1, 6, U},
        {"TC", "zz", 2, 1, 1, 5, U},
        {"TC", "zz", 3, 1, 1, 4, 0},
        {"TC", "10000", 3, 1, 1, 2, 10000},
        // Hostile input.
        {"DM", "", 0, 1, 0, 4, 0},
        {"DM_bit", "1.2.3", -1, 1, 0, 4, U},
        {"DM", "0", 0, INT_MAX, 0, 2, 0},
        {"TC", "0", 1, INT_MAX, 0, 2, 0},
        {"DM", "0", 0, -1, 0, 0, 0},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(std::string(k.reg) + " " + k.text + " type " + std::to_string(k.dataType));
        int a = U;
        EXPECT_EQ(intf_checkAddr(k.reg, k.text, a, k.dataType, k.length, k.accessMode), k.result);
        EXPECT_EQ(a, k.address);
    }
    // 32-bit registers accept only some data types.
    for (int type = 0; type <= 10; ++type) {
        int a = U;
        const bool allowed = type == 1 || type == 3 || type == 5 || type == 6 || type == 9;
        EXPECT_EQ(intf_checkAddr("TC", "9999", a, type, 2, 1), allowed ? 0 : 5) << type;
        EXPECT_EQ(a, allowed ? 9999 : U) << type;
    }
}

TEST(CheckAddrValidity, ShortLengthDoesNotCarryAnAddressPastTheEndIntoRange) {
    // Found by fuzzing: a length of 0 or below once let an address past the end pass.
    int a = 0;
    EXPECT_EQ(intf_checkAddrValidity("DM", "65553", a, -16776960, 1), 2);
    EXPECT_EQ(a, 65553);
    EXPECT_EQ(intf_checkAddrValidity("DM", "65536", a, 0, 1), 2);
    EXPECT_EQ(intf_checkAddrValidity("TC", "10000", a, 0, 1), 2);
    EXPECT_EQ(intf_checkAddrValidity("R", "1000.0", a, -1, 0), 2);
    EXPECT_EQ(intf_checkAddr("B", "4000", a, -1, -3, 0), 2);
    EXPECT_EQ(intf_checkAddr("TRM", "8", a, 1, 0, 0), 2);
}

}  // namespace
