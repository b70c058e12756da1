// Register catalogue: every row against an independent copy, the lists by
// type and the descriptions handed to the runtime.
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"

#include <QStringList>

#include <gtest/gtest.h>

namespace {

// Name, format, minimum, maximum, element bits, access, transfer bits, area
// code, write area code: typed in again from the device documentation, not
// copied from the header.
const char* const kRows[28] = {
    "MR_bit DDD.DD 0.0 999.15 1 RW 16 17 17",
    "LR_bit DDD.DD 0.0 999.15 1 RW 16 18 18",
    "CR_bit DDD.DD 0.0 999.15 1 RW 16 1 1",
    "R DDD.DD 0.0 999.15 1 RW 1 0 0",
    "B HHHH 0 3FFF 1 RW 1 27 27",
    "T DDDD 0 9999 1 R 1 2 2",
    "C DDDD 0 9999 1 R 1 3 3",
    "DM_bit DDDDD.DD 0.0 65535.15 1 RW 16 6 6",
    "TM_bit DDDDD.DD 0.0 9999.15 1 RW 16 8 8",
    "CM_bit DDDDD.DD 0.0 65535.15 1 RW 16 7 7",
    "EM_bit DDDDD.DD 0.0 65535.15 1 RW 16 23 23",
    "FM_bit DDDDD.DD 0.0 65535.15 1 RW 16 25 25",
    "DM DDDDD 0 65535 16 RW 16 6 6",
    "TM DDDD 0 9999 16 RW 16 8 8",
    "CM DDDDD 0 65535 16 RW 16 7 7",
    "EM DDDDD 0 65535 16 RW 16 23 23",
    "FM DDDDD 0 65535 16 RW 16 25 25",
    "MR DDD 0 999 16 RW 16 17 17",
    "LR DDD 0 999 16 RW 16 18 18",
    "CR DDD 0 999 16 RW 16 1 1",
    "W HHH 0 3FF 16 RW 16 28 28",
    "ZF DDDDD 0 131071 16 RW 16 44 44",
    "TC DDDD 0 9999 32 RW 32 2 32",
    "TS DDDD 0 9999 32 RW 32 2 33",
    "CC DDDD 0 9999 32 RW 32 3 34",
    "CS DDDD 0 9999 32 RW 32 3 35",
    "Z DD 0 15 32 RW 32 48 48",
    "TRM D 0 7 32 RW 32 38 38",
};

TEST(Catalogue, EveryRowMatchesTheDeviceTable) {
    for (int i = 0; i < 28; ++i) {
        QStringList row = {REG_LIST[i]};
        for (int column = 0; column < 6; ++column) row << ADDRESS_RANGE_PRO[i][column];
        row << QString::number(REG_LIST_AREA[i]) << QString::number(REG_LIST_W_AREA[i]);
        EXPECT_EQ(row.join(' '), kRows[i]);
        EXPECT_EQ(getIndexFromRegName(REG_LIST[i]), i) << REG_LIST[i];
    }
    // Names are exact and case-sensitive.
    for (const char* name : {"dm", "DM ", "", "DM_BIT"}) EXPECT_EQ(getIndexFromRegName(name), -1) << name;
}

TEST(Catalogue, RegisterListsByType) {
    const QList<QString> bits = {"MR_bit", "LR_bit", "CR_bit", "R",      "B",      "T",
                                 "C",      "DM_bit", "TM_bit", "CM_bit", "EM_bit", "FM_bit"};
    const QList<QString> words = {"DM", "TM", "CM", "EM", "FM", "MR", "LR", "CR",
                                  "W",  "ZF", "TC", "TS", "CC", "CS", "Z",  "TRM"};
    // Any type but 0 lists the word registers; only 0 and 1 are known types.
    const struct { int type, result; } cases[] = {{0, 1}, {1, 1}, {2, 0}, {-1, 0}};
    for (const auto& c : cases) {
        QList<QString> list;
        EXPECT_EQ(intf_getRegListByType(c.type, list), c.result) << c.type;
        EXPECT_EQ(list, c.type == 0 ? bits : words) << c.type;
    }
    // The caller's list is appended to, never cleared.
    QList<QString> list = words;
    intf_getRegListByType(0, list);
    EXPECT_EQ(list, words + bits);
}

TEST(Catalogue, Descriptions) {
    const struct {
        const char* name;
        QList<QString> description;
    } cases[] = {
        {"TC", {"DDDD", "0", "9999", "2", "1"}},
        {"T", {"DDDD", "0", "9999", "0", "0"}},
        {"DM_bit", {"DDDDD.DD", "0.0", "65535.15", "0", "1"}},
        {"DM", {"DDDDD", "0", "65535", "1", "1"}},
        {"XX", {}},
    };
    for (const auto& c : cases) {
        QList<QString> d;
        EXPECT_EQ(intf_getRegDiscription(c.name, d), 0);
        EXPECT_EQ(d, c.description) << c.name;
    }
    // Appended, not replaced.
    QList<QString> d;
    intf_getRegDiscription(QStringLiteral("W"), d);
    intf_getRegDiscription(QStringLiteral("W"), d);
    EXPECT_EQ(d, (QList<QString>{"HHH", "0", "3FF", "1", "1", "HHH", "0", "3FF", "1", "1"}));
}

}  // namespace
