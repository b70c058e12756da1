// Address runs for copied screen objects.
#include "kv3000_intf.h"
#include "serviceForProtocol/multi_copy.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <climits>

namespace {

// "result: text=address text=address ..."
std::string run(const QString& reg, int start, int count, int step, QVector<QString> texts = {},
                QVector<int> addresses = {}) {
    const int result = intf_multiCopy(reg, start, count, step, texts, addresses);
    QStringList out;
    EXPECT_EQ(texts.size(), addresses.size());
    for (int i = 0; i < texts.size() && i < addresses.size(); ++i)
        out << texts[i] + "=" + QString::number(addresses[i]);
    return (QString::number(result) + ":" + (out.isEmpty() ? "" : " ") + out.join(' ')).toStdString();
}

TEST(MultiCopy, Runs) {
    const struct {
        const char* reg;
        int start, count, step;
        const char* expected;
    } cases[] = {
        // Clipped at the highest address, which is written as the catalogue writes it.
        {"DM", 65533, 4, 1, "2: 65533=65533 65534=65534 65535=65535 65535=65535"},
        {"ZF", 131070, 3, 1, "2: 131070=131070 131071=131071 131071=131071"},
        {"MR_bit", 15998, 3, 1, "2: 999.14=15998 999.15=15999 999.15=15999"},
        {"B", 0x3FFE, 3, 1, "2: 3ffe=16382 3fff=16383 3FFF=16383"},
        {"DM", 65533, 3, 1, "1: 65533=65533 65534=65534 65535=65535"},
        {"DM", INT_MAX - 1, 3, INT_MAX, "2: 65535=65535 65535=65535 65535=65535"},
        {"DM", 60000, 4, 1 << 30, "2: 60000=60000 65535=65535 65535=65535 65535=65535"},
        // Hex texts are lower case without leading zeros; word.bit texts.
        {"W", 10, 3, 1, "1: a=10 b=11 c=12"},
        {"B", 1018, 1, 1, "1: 3fa=1018"},
        {"B", 0, 1, 1, "1: 0=0"},
        {"DM", 7, 2, 10, "1: 7=7 17=17"},
        {"MR_bit", 16, 3, 1, "1: 1.0=16 1.1=17 1.2=18"},
        // Steps -1 and -2 are a word and a double word of the register's transfer unit.
        {"R", 0, 3, -1, "1: 0.0=0 1.0=16 2.0=32"},
        {"R", 0, 2, -2, "1: 0.0=0 2.0=32"},
        {"B", 0, 2, -1, "1: 0=0 10=16"},
        {"DM", 0, 3, -1, "1: 0=0 1=1 2=2"},
        {"DM", 0, 3, -2, "1: 0=0 2=2 4=4"},
        {"TC", 0, 3, -1, "1: 0=0 1=1 2=2"},
        {"TC", 0, 3, -2, "1: 0=0 1=1 2=2"},
        {"DM_bit", 0, 2, -1, "1: 0.0=0 0.1=1"},  // "_bit" registers transfer words: one address
        // Other steps below one become one.
        {"DM", 5, 3, 0, "1: 5=5 6=6 7=7"},
        {"DM", 5, 3, -3, "1: 5=5 6=6 7=7"},
        {"DM", 5, 3, INT_MIN, "1: 5=5 6=6 7=7"},
        // No copies is complete; the start is not compared with the minimum.
        {"DM", 0, 0, 1, "1:"},
        {"DM", 0, -1, 1, "1:"},
        {"DM", 0, INT_MIN, 1, "1:"},
        {"DM", -2, 3, 1, "1: 4294967294=-2 4294967295=-1 0=0"},
        // Unknown registers append nothing.
        {"XX", 0, 3, 1, "0:"},
        {"dm", 0, 3, 1, "0:"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(c.reg, c.start, c.count, c.step), c.expected)
            << c.reg << " " << c.start << " " << c.count << " " << c.step;
    }
    // The outputs are appended to, never cleared.
    EXPECT_EQ(run("DM", 3, 2, 1, {"x"}, {-7}), "1: x=-7 3=3 4=4");
    EXPECT_EQ(run("XX", 3, 2, 1, {"keep"}, {42}), "0: keep=42");
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
