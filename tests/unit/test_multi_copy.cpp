// Address runs for copied screen objects.
#include "kv3000_intf.h"
#include "serviceForProtocol/multi_copy.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

struct Copies {
    int result;
    QVector<QString> texts;
    QVector<int> addresses;
};

Copies copies(const char* reg, int start, int count, int step) {
    Copies r;
    r.result = intf_multiCopy(QString::fromLatin1(reg), start, count, step, r.texts, r.addresses);
    return r;
}

TEST(MultiCopy, ClipsAtTheHighestAddress) {
    const Copies r = copies("DM", 65533, 4, 1);
    EXPECT_EQ(r.result, 2);
    EXPECT_EQ(r.texts, (QVector<QString>{"65533", "65534", "65535", "65535"}));
    EXPECT_EQ(r.addresses, (QVector<int>{65533, 65534, 65535, 65535}));

    const Copies zf = copies("ZF", 131070, 3, 1);
    EXPECT_EQ(zf.result, 2);
    EXPECT_EQ(zf.texts, (QVector<QString>{"131070", "131071", "131071"}));

    const Copies bits = copies("MR_bit", 15998, 3, 1);
    EXPECT_EQ(bits.result, 2);
    EXPECT_EQ(bits.texts, (QVector<QString>{"999.14", "999.15", "999.15"}));
    EXPECT_EQ(bits.addresses, (QVector<int>{15998, 15999, 15999}));

    const Copies hex = copies("B", 0x3FFE, 3, 1);
    EXPECT_EQ(hex.texts,
              (QVector<QString>{"3ffe", "3fff", "3FFF"}));  // the maximum as the catalogue writes it
}

TEST(MultiCopy, UpToTheMaximumIsComplete) {
    const Copies r = copies("DM", 65533, 3, 1);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.addresses, (QVector<int>{65533, 65534, 65535}));
}

TEST(MultiCopy, HexTextsAreLowerCaseWithoutLeadingZeros) {
    const Copies w = copies("W", 10, 3, 1);
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(w.texts, (QVector<QString>{"a", "b", "c"}));
    EXPECT_EQ(copies("B", 1018, 1, 1).texts, (QVector<QString>{"3fa"}));
    EXPECT_EQ(copies("B", 0, 1, 1).texts, (QVector<QString>{"0"}));
    EXPECT_EQ(copies("DM", 7, 2, 10).texts, (QVector<QString>{"7", "17"}));
}

TEST(MultiCopy, WordBitTexts) {
    const Copies r = copies("MR_bit", 16, 3, 1);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.texts, (QVector<QString>{"1.0", "1.1", "1.2"}));
    EXPECT_EQ(r.addresses, (QVector<int>{16, 17, 18}));
}

TEST(MultiCopy, WordAndDoubleWordStepsFollowTheTransferUnit) {
    const Copies r = copies("R", 0, 3, -1);
    EXPECT_EQ(r.addresses, (QVector<int>{0, 16, 32}));
    EXPECT_EQ(r.texts, (QVector<QString>{"0.0", "1.0", "2.0"}));
    EXPECT_EQ(copies("R", 0, 2, -2).addresses, (QVector<int>{0, 32}));
    EXPECT_EQ(copies("B", 0, 2, -1).texts, (QVector<QString>{"0", "10"}));
    EXPECT_EQ(copies("DM", 0, 3, -1).addresses, (QVector<int>{0, 1, 2}));
    EXPECT_EQ(copies("DM", 0, 3, -2).addresses, (QVector<int>{0, 2, 4}));
    EXPECT_EQ(copies("TC", 0, 3, -1).addresses, (QVector<int>{0, 1, 2}));
    EXPECT_EQ(copies("TC", 0, 3, -2).addresses, (QVector<int>{0, 1, 2}));
    // "_bit" registers transfer words, so a word step is one address.
    EXPECT_EQ(copies("DM_bit", 0, 2, -1).addresses, (QVector<int>{0, 1}));
}

TEST(MultiCopy, StepsBelowOneBecomeOne) {
    for (int step : {0, -3, INT_MIN}) EXPECT_EQ(copies("DM", 5, 3, step).addresses, (QVector<int>{5, 6, 7}));
}

TEST(MultiCopy, UnknownRegisterAppendsNothing) {
    Copies r;
    r.texts = {"keep"};
    r.addresses = {42};
    EXPECT_EQ(intf_multiCopy("XX", 0, 3, 1, r.texts, r.addresses), 0);
    EXPECT_EQ(r.texts, (QVector<QString>{"keep"}));
    EXPECT_EQ(r.addresses, (QVector<int>{42}));
    EXPECT_EQ(intf_multiCopy("dm", 0, 3, 1, r.texts, r.addresses), 0);
}

TEST(MultiCopy, NoCopiesIsComplete) {
    for (int count : {0, -1, INT_MIN}) {
        const Copies r = copies("DM", 0, count, 1);
        EXPECT_EQ(r.result, 1);
        EXPECT_TRUE(r.texts.isEmpty());
        EXPECT_TRUE(r.addresses.isEmpty());
    }
}

TEST(MultiCopy, OutputsAreAppendedTo) {
    QVector<QString> texts{"x"};
    QVector<int> addresses{-7};
    EXPECT_EQ(intf_multiCopy("DM", 3, 2, 1, texts, addresses), 1);
    EXPECT_EQ(texts, (QVector<QString>{"x", "3", "4"}));
    EXPECT_EQ(addresses, (QVector<int>{-7, 3, 4}));
}

TEST(MultiCopy, AddressesBeyondTheIntRangeAreClipped) {
    const Copies r = copies("DM", INT_MAX - 1, 3, INT_MAX);
    EXPECT_EQ(r.result, 2);
    EXPECT_EQ(r.addresses, (QVector<int>{65535, 65535, 65535}));
    const Copies big = copies("DM", 60000, 4, 1 << 30);
    EXPECT_EQ(big.addresses, (QVector<int>{60000, 65535, 65535, 65535}));
}

TEST(MultiCopy, TheStartIsNotComparedWithTheMinimum) {
    const Copies r = copies("DM", -2, 3, 1);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.addresses, (QVector<int>{-2, -1, 0}));
    EXPECT_EQ(r.texts, (QVector<QString>{"4294967294", "4294967295", "0"}));
}

TEST(MultiCopy, AWordBitTextThatCannotBeWrittenStopsTheRun) {
    QVector<QString> texts;
    QVector<int> addresses;
    // A word.bit format for a name without the word.bit form has no text.
    EXPECT_EQ(multiCp("DM", "DDD.DD", 0, 3, 1, texts, addresses, 100, "100"), 2);
    EXPECT_TRUE(texts.isEmpty());
    EXPECT_TRUE(addresses.isEmpty());
    // Clipped copies come before the stop only when they are above the maximum.
    EXPECT_EQ(multiCp("DM", "DDD.DD", 200, 2, 1, texts, addresses, 100, "100"), 2);
    EXPECT_EQ(texts, (QVector<QString>{"100", "100"}));
}

}  // namespace
