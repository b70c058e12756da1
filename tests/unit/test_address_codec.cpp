// Address texts and integers, and the two address checks the runtime runs.
#include "kv3000_intf.h"
#include "kv_3000/address_codec.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

const int kUntouched = 777;

TEST(AddressCodec, WordBitTextBecomesWordTimesSixteenPlusBit) {
    EXPECT_EQ(addr_str2int("999.15", "MR_bit"), 15999);
    EXPECT_EQ(addr_str2int("0.0", "LR_bit"), 0);
    EXPECT_EQ(addr_str2int("65535.15", "DM_bit"), 1048575);
    EXPECT_EQ(addr_str2int("1.0", "R"), 16);
    // The bit part is not limited to 0..15.
    EXPECT_EQ(addr_str2int("1.20", "MR_bit"), 36);
    EXPECT_EQ(addr_str2int("2.4", "MR_bit"), 36);
}

TEST(AddressCodec, WordBitIntegerBecomesText) {
    EXPECT_EQ(addr_int2str(15999, "MR_bit"), "999.15");
    EXPECT_EQ(addr_int2str(16, "MR_bit"), "1.0");
    EXPECT_EQ(addr_int2str(0, "R"), "0.0");
    EXPECT_EQ(addr_int2str(1048575, "DM_bit"), "65535.15");
}

TEST(AddressCodec, OnlyBitNamesAndRUseTheWordBitForm) {
    EXPECT_TRUE(isWordBitRegister("R"));
    EXPECT_TRUE(isWordBitRegister("DM_bit"));
    EXPECT_FALSE(isWordBitRegister("DM"));
    EXPECT_FALSE(isWordBitRegister("r"));
    EXPECT_FALSE(isWordBitRegister("RR"));
    EXPECT_EQ(addr_int2str(5, "DM"), "");
    EXPECT_EQ(addr_str2int("999.15", "DM"), 0);
}

TEST(AddressCodec, MalformedWordBitTextGivesMinusOne) {
    for (const char* text : {"12", "12.3.4", "", ".", ".5", "5.", "a.1", "1.b", "1..2", "１.2"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(addr_str2int(QString::fromUtf8(text), "MR_bit"), -1);
    }
}

TEST(AddressCodec, HugeWordNumbersSaturateInsteadOfWrapping) {
    // 268435456 * 16 + 5 would wrap to 5 in 32 bits.
    EXPECT_EQ(addr_str2int("268435456.5", "DM_bit"), INT_MAX);
    EXPECT_EQ(addr_str2int("-268435456.5", "DM_bit"), INT_MIN);
    EXPECT_EQ(addr_str2int("99999999999.0", "DM_bit"), -1);
}

TEST(AddressCodec, A2iPicksTheFormByFormatAndTheBaseByItsLastLetter) {
    int v = kUntouched;
    EXPECT_EQ(a2i("3FFF", v, "HHHH", "B"), 1);
    EXPECT_EQ(v, 16383);
    EXPECT_EQ(a2i("9999", v, "DDDD", "T"), 1);
    EXPECT_EQ(v, 9999);
    EXPECT_EQ(a2i("17", v, "OOO", "X"), 1);
    EXPECT_EQ(v, 15);
    EXPECT_EQ(a2i("42", v, "", "X"), 1);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(a2i("999.15", v, "DDD.DD", "MR_bit"), 1);
    EXPECT_EQ(v, 15999);
    // The name, not the format, decides inside the word.bit conversion.
    EXPECT_EQ(a2i("999.15", v, "DDD.DD", "DM"), 1);
    EXPECT_EQ(v, 0);
}

TEST(AddressCodec, A2iFailureStoresZeroOnlyForSingleNumbers) {
    int v = kUntouched;
    EXPECT_EQ(a2i("3FFG", v, "HHHH", "B"), -1);
    EXPECT_EQ(v, 0);
    v = kUntouched;
    EXPECT_EQ(a2i("12", v, "DDD.DD", "MR_bit"), -1);
    EXPECT_EQ(v, kUntouched);
}

TEST(AddressCodec, AddrOffsetKeepsTheAddress) {
    EXPECT_EQ(addrOffset("DM", 123), 123);
    EXPECT_EQ(addrOffset("MR_bit", 15999), 15999);
}

// ---- intf_checkAddrValidity ----

int validity(const char* reg, const char* text, int length, int wordAccess, int* address = nullptr) {
    int a = kUntouched;
    const int r =
        intf_checkAddrValidity(QString::fromUtf8(reg), QString::fromUtf8(text), a, length, wordAccess);
    if (address) *address = a;
    return r;
}

TEST(CheckAddrValidity, RangeEndsAtTheLastAddress) {
    int a = 0;
    EXPECT_EQ(validity("DM", "65535", 1, 1, &a), 0);
    EXPECT_EQ(a, 65535);
    EXPECT_EQ(validity("DM", "65535", 2, 1, &a), 2);
    EXPECT_EQ(a, 65535);
    EXPECT_EQ(validity("TC", "9999", 2, 1), 0);
    EXPECT_EQ(validity("TC", "9999", 3, 1), 2);
    EXPECT_EQ(validity("ZF", "131071", 1, 1), 0);
    EXPECT_EQ(validity("ZF", "131072", 1, 1), 2);
    EXPECT_EQ(validity("TRM", "7", 2, 1), 0);
    EXPECT_EQ(validity("TRM", "8", 1, 1), 2);
}

TEST(CheckAddrValidity, BitRegisters) {
    int a = 0;
    EXPECT_EQ(validity("DM_bit", "65535.15", 1, 0, &a), 0);
    EXPECT_EQ(a, 1048575);
    EXPECT_EQ(validity("DM_bit", "65535.15", 2, 0), 2);
    EXPECT_EQ(validity("DM_bit", "65535.15", 1, 1, &a), 1);
    EXPECT_EQ(a, kUntouched);
    EXPECT_EQ(validity("B", "3FFF", 1, 0, &a), 0);
    EXPECT_EQ(a, 16383);
    EXPECT_EQ(validity("B", "4000", 1, 0, &a), 2);
    EXPECT_EQ(a, 16384);
    EXPECT_EQ(validity("B", "3FFG", 1, 0, &a), 4);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(validity("TM_bit", "9999.15", 1, 0), 0);
    EXPECT_EQ(validity("TM_bit", "10000.0", 1, 0), 2);
    EXPECT_EQ(validity("MR_bit", "1.20", 1, 0, &a), 0);
    EXPECT_EQ(a, 36);
}

TEST(CheckAddrValidity, WordRegisterAskedForAsBitIsTheWrongKind) {
    int a = 0;
    EXPECT_EQ(validity("DM", "100", 1, 0, &a), 1);
    EXPECT_EQ(a, kUntouched);
}

TEST(CheckAddrValidity, MalformedWordBitTextLeavesTheAddress) {
    int a = 0;
    EXPECT_EQ(validity("MR_bit", "12", 1, 0, &a), 4);
    EXPECT_EQ(a, kUntouched);
    EXPECT_EQ(validity("MR_bit", "12.3.4", 1, 0, &a), 4);
    EXPECT_EQ(a, kUntouched);
}

TEST(CheckAddrValidity, UnknownRegisterWhateverTheRest) {
    int a = 0;
    EXPECT_EQ(validity("XX", "12", 1, 1, &a), 3);
    EXPECT_EQ(a, kUntouched);
    EXPECT_EQ(validity("dm", "garbage", -5, 0, &a), 3);
    EXPECT_EQ(validity("", "", 0, 0), 3);
    EXPECT_EQ(validity("DM ", "1", 1, 1), 3);
}

TEST(CheckAddrValidity, HostileTextsGiveACode) {
    int a = 0;
    EXPECT_EQ(validity("DM", "", 1, 1, &a), 4);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(validity("DM", "99999999999", 1, 1), 4);
    EXPECT_EQ(validity("DM", "4294967312", 1, 1), 4);  // 2^32 + 16
    EXPECT_EQ(validity("DM", "1.5", 1, 1), 4);
    EXPECT_EQ(validity("DM", "1 2", 1, 1), 4);
    EXPECT_EQ(validity("DM", "１２", 1, 1), 4);
    EXPECT_EQ(validity("DM", "-1", 1, 1, &a), 2);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(validity("DM", "+12", 1, 1, &a), 0);
    EXPECT_EQ(a, 12);
    EXPECT_EQ(validity("DM_bit", "1.2.", 1, 0), 4);
    EXPECT_EQ(validity("DM_bit", "268435456.5", 1, 0, &a), 2);
    EXPECT_EQ(a, INT_MAX);
    EXPECT_EQ(validity("DM_bit", "-268435456.5", 1, 0), 2);
    EXPECT_EQ(validity("DM_bit", "-1.0", 1, 0), 2);
}

TEST(CheckAddrValidity, ExtremeLengthsGiveACode) {
    EXPECT_EQ(validity("DM", "0", INT_MAX, 1), 2);
    EXPECT_EQ(validity("DM_bit", "0.0", INT_MAX, 0), 2);
    EXPECT_EQ(validity("TC", "0", INT_MAX, 1), 2);
    // Nothing below the address is checked: short lengths pass.
    EXPECT_EQ(validity("DM", "65535", 0, 1), 0);
    EXPECT_EQ(validity("DM", "65535", -5, 1), 0);
    EXPECT_EQ(validity("DM", "65535", INT_MIN, 1), 0);
}

// ---- intf_checkAddr ----

int check(const char* reg, const char* text, int dataType, int length, int accessMode,
          int* address = nullptr) {
    int a = kUntouched;
    const int r =
        intf_checkAddr(QString::fromUtf8(reg), QString::fromUtf8(text), a, dataType, length, accessMode);
    if (address) *address = a;
    return r;
}

TEST(CheckAddr, ReadOnlyRegisterRefusesWrites) {
    int a = 0;
    EXPECT_EQ(check("T", "10", -1, 1, 1, &a), 6);
    EXPECT_EQ(a, kUntouched);
    EXPECT_EQ(check("C", "10", -1, 1, 2), 6);
    EXPECT_EQ(check("T", "10", -1, 1, 0, &a), 0);
    EXPECT_EQ(a, 10);
    EXPECT_EQ(check("T", "10", -1, 1, 3), 0);
    EXPECT_EQ(check("DM", "10", 0, 1, 1), 0);
}

TEST(CheckAddr, ThirtyTwoBitRegistersAcceptOnlySomeDataTypes) {
    for (int type : {1, 3, 5, 6, 9}) EXPECT_EQ(check("TC", "9999", type, 2, 1), 0) << type;
    for (int type : {0, 2, 4, 7, 8, 10}) {
        int a = 0;
        EXPECT_EQ(check("TC", "9999", type, 2, 1, &a), 5) << type;
        EXPECT_EQ(a, kUntouched);
    }
    EXPECT_EQ(check("TC", "9999", 3, 3, 0), 2);
    EXPECT_EQ(check("TRM", "7", 2, 2, 0), 5);
    EXPECT_EQ(check("DM", "7", 2, 2, 0), 0);
}

TEST(CheckAddr, KindFollowsTheDataType) {
    int a = 0;
    EXPECT_EQ(check("DM", "100", -1, 1, 0, &a), 1);
    EXPECT_EQ(a, kUntouched);
    EXPECT_EQ(check("MR_bit", "1.0", 0, 1, 0), 1);
    EXPECT_EQ(check("DM_bit", "65535.15", -1, 1, 0, &a), 0);
    EXPECT_EQ(a, 1048575);
    EXPECT_EQ(check("DM_bit", "65535.15", -1, 2, 0), 2);
}

TEST(CheckAddr, TestsRunInTheirOrder) {
    EXPECT_EQ(check("XX", "zz", 2, 1, 1), 3);
    EXPECT_EQ(check("T", "zz", 0, 1, 1), 1);   // kind before read-only
    EXPECT_EQ(check("T", "zz", -1, 1, 1), 6);  // read-only before the text
    EXPECT_EQ(check("TC", "zz", 2, 1, 1), 5);  // data type before the text
    int a = 0;
    EXPECT_EQ(check("TC", "zz", 3, 1, 1, &a), 4);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(check("TC", "10000", 3, 1, 1, &a), 2);
    EXPECT_EQ(a, 10000);
}

TEST(CheckAddr, HostileInputGivesACode) {
    EXPECT_EQ(check("DM", "", 0, 1, 0), 4);
    EXPECT_EQ(check("DM_bit", "1.2.3", -1, 1, 0), 4);
    EXPECT_EQ(check("DM", "0", 0, INT_MAX, 0), 2);
    EXPECT_EQ(check("TC", "0", 1, INT_MAX, 0), 2);
    EXPECT_EQ(check("DM", "0", 0, -1, 0), 0);
}

TEST(CheckAddrValidity, ShortLengthDoesNotCarryAnAddressPastTheEndIntoRange) {
    int a = 0;
    EXPECT_EQ(validity("DM", "65553", -16776960, 1, &a), 2);
    EXPECT_EQ(a, 65553);
    EXPECT_EQ(validity("DM", "65536", 0, 1), 2);
    EXPECT_EQ(validity("TC", "10000", 0, 1), 2);
    EXPECT_EQ(validity("R", "1000.0", -1, 0), 2);
    EXPECT_EQ(check("B", "4000", -1, -3, 0), 2);
    EXPECT_EQ(check("TRM", "8", 1, 0, 0), 2);
}

}  // namespace
