// Merging address keys into read blocks (mode 1) and recipe blocks (mode 2),
// the merge rule and the sort weight.
#include "kv_3000/merge_rule.h"
#include "protocol.h"
#include "runtime_fixture.h"
#include "serviceForProtocol/address_merge.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

namespace {

KEY_ADDRESS key(int station, const char* reg, int address, int length, int recipeOffset = 0) {
    KEY_ADDRESS k;
    k.station = station;
    k.reg = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    k.recipeOffset = recipeOffset;
    return k;
}

// Keys and blocks as text: "DM100x2" is register, address and length, with an
// optional "station:" in front and "+recipeOffset" behind.
QList<KEY_ADDRESS> keys(const char* text) {
    static const QRegularExpression one(
        QStringLiteral("^(?:(\\d+):)?(\\D.*?)(-?\\d+)x(-?\\d+)(?:\\+(\\d+))?$"));
    QList<KEY_ADDRESS> out;
    for (const QString& part : QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch m = one.match(part);
        EXPECT_TRUE(m.hasMatch()) << part.toStdString();
        out << key(m.captured(1).toInt(), m.captured(2).toLatin1().constData(), m.captured(3).toInt(),
                   m.captured(4).toInt(), m.captured(5).toInt());
    }
    return out;
}
std::string text(const QList<KEY_ADDRESS>& list, bool withOffsets = false) {
    QStringList parts;
    for (const KEY_ADDRESS& k : list) {
        parts << (k.station ? QString::number(k.station) + ":" : QString()) + k.reg +
                     QString::number(k.address) + "x" + QString::number(k.length) +
                     (withOffsets ? "+" + QString::number(k.recipeOffset) : QString());
    }
    return parts.join(' ').toStdString();
}

class AddressMerge : public RuntimeFixture {
protected:
    QList<KEY_ADDRESS> merge(QList<KEY_ADDRESS> list, int maxGap = 0) {
        driver.maxGap = maxGap;
        addrMerge(list, 1);
        return list;
    }
    QList<KEY_ADDRESS> recipe(QList<KEY_ADDRESS> list) {
        driver.rcpFirstIndex.clear();
        addrMerge(list, 2);
        return list;
    }
};

TEST_F(AddressMerge, JudgeSplitsOnStationRegisterAndGap) {
    driver.maxGap = 2;
    const struct {
        const char *current, *next;
        int mode, result;
    } cases[] = {
        {"DM10x2", "1:DM12x1", 0, 1},
        {"DM10x2", "TM12x1", 0, 1},
        {"DM10x2", "DM12x1", 0, 0},
        {"DM10x2", "DM11x1", 0, 0},
        {"DM10x2", "DM13x1", 0, 1},
        {"DM10x2", "DM14x1", 1, 0},
        {"DM10x2", "DM15x1", 1, 1},
        // The block's end is formed in 64 bits: it lies far beyond the next key.
        {"DM2147483646x10", "DM5x1", 0, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(judgeAddrMerge(keys(c.current)[0], keys(c.next)[0], c.mode), c.result)
            << c.current << " " << c.next << " mode " << c.mode;
    }
}

TEST_F(AddressMerge, WeightUsesFactor65535AndWrapsAt32Bits) {
    EXPECT_EQ(getRegAddressWeight(0, "MR_bit", 0, 1), 0);
    EXPECT_EQ(getRegAddressWeight(0, "DM", 65535, 1), getRegAddressWeight(0, "TM", 0, 1));
    EXPECT_EQ(getRegAddressWeight(0, "TM", 0, 99), 13 * 65535);
    EXPECT_EQ(getRegAddressWeight(1, "MR_bit", 0, 1), 1834980);
    EXPECT_EQ(getRegAddressWeight(2341, "MR_bit", 0, 1), 720884);
    EXPECT_EQ(getRegAddressWeight(0, "XX", 0, 1), -65535);
}

TEST_F(AddressMerge, MonitoredKeysBecomeReadBlocks) {
    const struct {
        const char* keys;
        int maxGap;
        const char* blocks;
    } cases[] = {
        // Gaps are bridged up to maxGap.
        {"DM100x1 DM101x1 DM105x2", 0, "DM100x2 DM105x2"},
        {"DM100x1 DM101x1 DM105x2", 2, "DM100x2 DM105x2"},
        {"DM100x1 DM101x1 DM105x2", 3, "DM100x7"},
        // Different registers and stations never join.
        {"DM65535x1 TM0x1", 100, "DM65535x1 TM0x1"},
        {"DM5x1 TM6x1", 100, "DM5x1 TM6x1"},
        {"1:DM5x1 DM6x1", 100, "DM6x1 1:DM5x1"},
        // Lengths become transfer units; bit keys and word keys of one device meet as words.
        {"DM_bit1615x4", 0, "DM100x2"},
        {"DM_bit1600x16", 0, "DM100x1"},
        {"TM_bit15999x1", 0, "TM999x1"},
        {"TC10x4", 0, "TC10x2"},
        {"TC10x3", 0, "TC10x1"},
        {"R17x40", 0, "R17x40"},
        {"B3x300", 0, "B3x128 B131x128 B259x44"},
        {"DM_bit1615x4 DM102x1", 0, "DM100x3"},
        // Long keys are cut into blocks of 128 units; no join beyond 128.
        {"DM0x300", 0, "DM0x128 DM128x128 DM256x44"},
        {"DM0x100 DM100x100", 0, "DM0x100 DM100x100"},
        {"DM0x128", 0, "DM0x128"},
        {"TC0x512", 0, "TC0x128 TC128x128"},
        // Sorted by station, register and address; equal weights keep their order.
        {"DM200x1 DM5x1", 0, "DM5x1 DM200x1"},
        {"1:MR_bit0x1 TRM7x2 DM3x1", 0, "DM3x1 TRM7x1 1:MR0x1"},
        {"TM0x1 DM65535x1 DM5x1", 0, "DM5x1 TM0x1 DM65535x1"},
        {"DM65535x1 TM0x1 DM5x1", 0, "DM5x1 DM65535x1 TM0x1"},
        // Overlapping keys join.
        {"DM10x5 DM12x2", 0, "DM10x5"},
        {"DM10x5 DM12x10", 0, "DM10x12"},
        // A key starting inside the cut rest (128, 44) of a long key keeps its own end.
        {"DM0x172 DM100x10", 0, "DM0x128 DM100x72"},
        {"DM0x172 DM100x100", 0, "DM0x128 DM100x100"},
        {"DM0x172 DM20x120", 5, "DM0x128 DM128x44 DM20x120"},
        // Unknown registers stay as they came; they weigh with index -1, after station 0's keys.
        {"XX5x1 XX6x1", 10, "XX5x1 XX6x1"},
        {"XX_bit1615x4000", 0, "XX_bit1615x4000"},
        {"XX0x1 DM1x1 DM0x1", 10, "DM0x2 XX0x1"},
        // Hostile lengths and addresses stay bounded.
        {"DM2147483647x2147483647", 0, "DM2147483647x128"},
        {"DM2147483642x10 DM2147483645x10", 0, "DM2147483642x13"},
        {"DM_bit2147483647x16", 0, "DM134217727x2"},
        {"DM10x-5 DM10x0", 0, "DM10x-5 DM10x0"},
        {"TC0x-2147483648", 0, "TC0x-1073741824"},
    };
    for (const auto& c : cases) EXPECT_EQ(text(merge(keys(c.keys), c.maxGap)), c.blocks) << c.keys;

    // A length validation would refuse is read only up to the register's end.
    const QList<KEY_ADDRESS> all = merge({key(0, "DM", 0, INT_MAX)});
    ASSERT_EQ(all.size(), 512);
    EXPECT_EQ(text({all.back()}), "DM65408x128");
    EXPECT_LE(merge({key(0, "DM", INT_MIN, INT_MAX), key(0, "R", -5, INT_MAX)}).size(), 512 + 125);
}

TEST_F(AddressMerge, BlocksCarryTheFieldsOfTheirFirstKey) {
    KEY_ADDRESS a = key(0, "DM", 10, 1);
    a.userText1 = "first";
    a.userText2 = "second";
    a.userValue = 11;
    a.dataType = 3;
    a.values[0] = 0xAB;
    a.values[1023] = 0xCD;
    KEY_ADDRESS b = key(0, "DM", 11, 1);
    b.userText1 = "other";
    const QList<KEY_ADDRESS> out = merge({b, a});
    ASSERT_EQ(out.size(), 1);
    EXPECT_EQ(out[0].userText1 + out[0].userText2, "firstsecond");
    EXPECT_EQ(out[0].userValue, 11);
    EXPECT_EQ(out[0].dataType, 3);
    EXPECT_EQ(out[0].values[0], 0xAB);
    EXPECT_EQ(out[0].values[1023], 0xCD);
    EXPECT_EQ(out[0].length, 2);
}

TEST_F(AddressMerge, WritesOneStep0LinePerKeyAfterConversion) {
    DebugCapture capture;
    merge(keys("DM_bit1615x4 2:TC7x4 XX_bit3x2"));
    merge({key(0, "%3%1", 9, 1)});  // a name with placeholders is printed as it is
    EXPECT_EQ(capture.lines(),
              (QStringList{"\"step0:id=0,reg=DM,address=100,len=2\"", "\"step0:id=1,reg=TC,address=7,len=2\"",
                           "\"step0:id=2,reg=XX_bit,address=3,len=2\"",
                           "\"step0:id=0,reg=%3%1,address=9,len=1\""}));
}

TEST_F(AddressMerge, RandomKeysAreCoveredByBlocksOfAtMost128Units) {
    std::mt19937 rng(7);
    const char* regs[] = {"DM", "TM", "W", "TC", "R", "B", "MR_bit", "DM_bit"};
    for (int round = 0; round < 10; ++round) {
        QList<KEY_ADDRESS> list;
        for (int i = 0; i < 100; ++i) {
            list.append(key(int(rng() % 2), regs[rng() % 8], int(rng() % 2000), 1 + int(rng() % 200)));
        }
        const QList<KEY_ADDRESS> blocks = merge(list, int(rng() % 4));
        for (const KEY_ADDRESS& b : blocks) EXPECT_LE(b.length, 128);
        // Every converted unit of every key lies in a block of its station and register.
        for (const KEY_ADDRESS& k : list) {
            for (const KEY_ADDRESS& u : merge({k})) {
                for (int a = u.address; a < u.address + u.length; ++a) {
                    bool covered = false;
                    for (const KEY_ADDRESS& b : blocks)
                        covered |= b.station == u.station && b.reg == u.reg && a >= b.address &&
                                   a < b.address + b.length;
                    ASSERT_TRUE(covered) << u.reg.toStdString() << " " << a;
                }
            }
        }
    }
}

// Mode 2: keys join only when they touch, keep bit units, are not sorted and
// write no debug lines; every block has its first-entry index, and pieces of
// a long key share the key's index and advance its buffer offset.
TEST_F(AddressMerge, RecipeKeysBecomeRecipeBlocksWithFirstEntryIndices) {
    const struct {
        const char *keys, *blocks, *firstIndex;
    } cases[] = {
        {"DM100x2+0 DM102x3+2", "DM100x5+0", "0"},
        {"DM100x2+0 DM110x1+2", "DM100x2+0 DM110x1+2", "0 1"},
        {"TC10x4 DM_bit1615x4 DM200x1 DM5x1", "TC10x2+0 DM_bit1615x4+0 DM200x1+0 DM5x1+0", "0 1 2 3"},
        {"DM0x300+7", "DM0x128+7 DM128x128+135 DM256x44+263", "0 0 0"},
        {"DM0x1+0 TC0x600+1", "DM0x1+0 TC0x128+1 TC128x128+257 TC256x44+513", "0 1 1 1"},  // 300 dwords
        {"DM_bit16x300+4", "DM_bit16x128+4 DM_bit144x128+132 DM_bit272x44+260", "0 0 0"},  // a word per bit
        // A key starting inside a long key's rest is placed by its address.
        {"DM0x172+0 DM100x10+172", "DM0x128+0 DM100x72+100", "0 0"},
    };
    DebugCapture capture;
    for (const auto& c : cases) {
        EXPECT_EQ(text(recipe(keys(c.keys)), true), c.blocks) << c.keys;
        QStringList first;
        for (int i : qAsConst(driver.rcpFirstIndex)) first << QString::number(i);
        EXPECT_EQ(first.join(' ').toStdString(), c.firstIndex) << c.keys;
    }
    EXPECT_TRUE(capture.lines().isEmpty());
}

// The recipe read of block b takes the entries rcpFirstIndex[b] up to
// rcpFirstIndex[b + 1] (the end for the last block), each placed by its own
// buffer offset; a block that starts inside an entry (a piece of a long one)
// is placed by its own address and recipeOffset. So every unit of a block
// must lie in one of those entries, and the block's recipeOffset must be the
// buffer word of its first unit.
TEST_F(AddressMerge, FirstEntryIndicesAndOffsetsPlaceEveryRecipeUnit) {
    std::mt19937 rng(11);
    for (int round = 0; round < 50; ++round) {
        QList<KEY_ADDRESS> entries;
        int address = 0;
        int offset = 0;
        for (int i = 0; i < 20; ++i) {
            address += int(rng() % 3 == 0 ? rng() % 5 : 0);
            const int length = 1 + int(rng() % (rng() % 4 == 0 ? 400 : 40));
            entries.append(key(0, "DM", address, length, offset));
            address += length;
            offset += length + int(rng() % 3);
        }
        const QList<KEY_ADDRESS> blocks = recipe(entries);
        const QList<int> first = driver.rcpFirstIndex;
        ASSERT_EQ(first.size(), blocks.size());
        for (int b = 0; b < blocks.size(); ++b) {
            const KEY_ADDRESS& block = blocks[b];
            ASSERT_LE(block.length, 128);
            const int from = first[b];
            const int to = b + 1 < blocks.size() ? first[b + 1] : entries.size();
            ASSERT_LE(from, to);
            for (int u = block.address; u < block.address + block.length; ++u) {
                int word = -1;
                // A piece of a long entry has an empty range: its own entry is `from`.
                for (int e = from; e < std::max(from + 1, to); ++e) {
                    if (u >= entries[e].address && u < entries[e].address + entries[e].length)
                        word = entries[e].recipeOffset + u - entries[e].address;
                }
                ASSERT_NE(word, -1) << "block " << b << " unit " << u;
                if (u == block.address) {
                    EXPECT_EQ(word, block.recipeOffset) << "block " << b;
                }
            }
        }
    }
}

}  // namespace
