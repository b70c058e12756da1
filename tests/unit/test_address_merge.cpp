// Merging address keys into read blocks (mode 1) and recipe blocks (mode 2),
// the merge rule and the sort weight.
#include "kv_3000/merge_rule.h"
#include "protocol.h"
#include "runtime_fixture.h"
#include "serviceForProtocol/address_merge.h"

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

struct Block {
    int station;
    QString reg;
    int address;
    int length;
    bool operator==(const Block& o) const {
        return station == o.station && reg == o.reg && address == o.address && length == o.length;
    }
};
void PrintTo(const Block& b, std::ostream* os) {
    *os << "(" << b.station << ", " << b.reg.toStdString() << ", " << b.address << ", " << b.length << ")";
}

std::vector<Block> blocksOf(const QList<KEY_ADDRESS>& keys) {
    std::vector<Block> out;
    for (const KEY_ADDRESS& k : keys) out.push_back({k.station, k.reg, k.address, k.length});
    return out;
}

class AddressMerge : public RuntimeFixture {
protected:
    std::vector<Block> merge(QList<KEY_ADDRESS> keys, int maxGap = 0) {
        driver.maxGap = maxGap;
        addrMerge(keys, 1);
        return blocksOf(keys);
    }
    QList<KEY_ADDRESS> recipe(QList<KEY_ADDRESS> keys) {
        driver.rcpFirstIndex.clear();
        addrMerge(keys, 2);
        return keys;
    }
    std::vector<int> firstIndex() const {
        return std::vector<int>(driver.rcpFirstIndex.begin(), driver.rcpFirstIndex.end());
    }
};

// ---- rule and weight ----

TEST_F(AddressMerge, JudgeSplitsOnStationRegisterAndGap) {
    driver.maxGap = 2;
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(1, "DM", 12, 1), 0), 1);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "TM", 12, 1), 0), 1);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "DM", 12, 1), 0), 0);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "DM", 11, 1), 0), 0);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "DM", 13, 1), 0), 1);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "DM", 14, 1), 1), 0);
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", 10, 2), key(0, "DM", 15, 1), 1), 1);
    // The block's end is formed in 64 bits: it lies far beyond the next key.
    EXPECT_EQ(judgeAddrMerge(key(0, "DM", INT_MAX - 1, 10), key(0, "DM", 5, 1), 0), 0);
}

TEST_F(AddressMerge, WeightUsesFactor65535AndWrapsAt32Bits) {
    EXPECT_EQ(getRegAddressWeight(0, "MR_bit", 0, 1), 0);
    EXPECT_EQ(getRegAddressWeight(0, "DM", 65535, 1), getRegAddressWeight(0, "TM", 0, 1));
    EXPECT_EQ(getRegAddressWeight(0, "TM", 0, 99), 13 * 65535);
    EXPECT_EQ(getRegAddressWeight(1, "MR_bit", 0, 1), 1834980);
    EXPECT_EQ(getRegAddressWeight(2341, "MR_bit", 0, 1), 720884);
    EXPECT_EQ(getRegAddressWeight(0, "XX", 0, 1), -65535);
}

// ---- mode 1 ----

TEST_F(AddressMerge, GapsAreBridgedUpToMaxGap) {
    const QList<KEY_ADDRESS> keys = {key(0, "DM", 100, 1), key(0, "DM", 101, 1), key(0, "DM", 105, 2)};
    EXPECT_EQ(merge(keys, 0), (std::vector<Block>{{0, "DM", 100, 2}, {0, "DM", 105, 2}}));
    EXPECT_EQ(merge(keys, 2), (std::vector<Block>{{0, "DM", 100, 2}, {0, "DM", 105, 2}}));
    EXPECT_EQ(merge(keys, 3), (std::vector<Block>{{0, "DM", 100, 7}}));
}

TEST_F(AddressMerge, DifferentRegistersAndStationsNeverJoin) {
    EXPECT_EQ(merge({key(0, "DM", 65535, 1), key(0, "TM", 0, 1)}, 100),
              (std::vector<Block>{{0, "DM", 65535, 1}, {0, "TM", 0, 1}}));
    EXPECT_EQ(merge({key(0, "DM", 5, 1), key(0, "TM", 6, 1)}, 100),
              (std::vector<Block>{{0, "DM", 5, 1}, {0, "TM", 6, 1}}));
    EXPECT_EQ(merge({key(1, "DM", 5, 1), key(0, "DM", 6, 1)}, 100),
              (std::vector<Block>{{0, "DM", 6, 1}, {1, "DM", 5, 1}}));
}

TEST_F(AddressMerge, LengthsBecomeTransferUnits) {
    EXPECT_EQ(merge({key(0, "DM_bit", 1615, 4)}), (std::vector<Block>{{0, "DM", 100, 2}}));
    EXPECT_EQ(merge({key(0, "DM_bit", 1600, 16)}), (std::vector<Block>{{0, "DM", 100, 1}}));
    EXPECT_EQ(merge({key(0, "TM_bit", 15999, 1)}), (std::vector<Block>{{0, "TM", 999, 1}}));
    EXPECT_EQ(merge({key(0, "TC", 10, 4)}), (std::vector<Block>{{0, "TC", 10, 2}}));
    EXPECT_EQ(merge({key(0, "TC", 10, 3)}), (std::vector<Block>{{0, "TC", 10, 1}}));
    EXPECT_EQ(merge({key(0, "R", 17, 40)}), (std::vector<Block>{{0, "R", 17, 40}}));
    EXPECT_EQ(merge({key(0, "B", 3, 300)}),
              (std::vector<Block>{{0, "B", 3, 128}, {0, "B", 131, 128}, {0, "B", 259, 44}}));
    // Bit keys and word keys of the same device meet as words.
    EXPECT_EQ(merge({key(0, "DM_bit", 1615, 4), key(0, "DM", 102, 1)}),
              (std::vector<Block>{{0, "DM", 100, 3}}));
}

TEST_F(AddressMerge, LongKeysAreCutInto128UnitBlocks) {
    EXPECT_EQ(merge({key(0, "DM", 0, 300)}),
              (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 128, 128}, {0, "DM", 256, 44}}));
    EXPECT_EQ(merge({key(0, "DM", 0, 100), key(0, "DM", 100, 100)}),
              (std::vector<Block>{{0, "DM", 0, 100}, {0, "DM", 100, 100}}));
    EXPECT_EQ(merge({key(0, "DM", 0, 128)}), (std::vector<Block>{{0, "DM", 0, 128}}));
    EXPECT_EQ(merge({key(0, "TC", 0, 512)}), (std::vector<Block>{{0, "TC", 0, 128}, {0, "TC", 128, 128}}));
}

TEST_F(AddressMerge, KeysAreSortedByStationRegisterAndAddress) {
    EXPECT_EQ(merge({key(0, "DM", 200, 1), key(0, "DM", 5, 1)}),
              (std::vector<Block>{{0, "DM", 5, 1}, {0, "DM", 200, 1}}));
    EXPECT_EQ(merge({key(1, "MR_bit", 0, 1), key(0, "TRM", 7, 2), key(0, "DM", 3, 1)}),
              (std::vector<Block>{{0, "DM", 3, 1}, {0, "TRM", 7, 1}, {1, "MR", 0, 1}}));
}

TEST_F(AddressMerge, EqualWeightsKeepTheirInputOrder) {
    EXPECT_EQ(merge({key(0, "TM", 0, 1), key(0, "DM", 65535, 1), key(0, "DM", 5, 1)}),
              (std::vector<Block>{{0, "DM", 5, 1}, {0, "TM", 0, 1}, {0, "DM", 65535, 1}}));
    EXPECT_EQ(merge({key(0, "DM", 65535, 1), key(0, "TM", 0, 1), key(0, "DM", 5, 1)}),
              (std::vector<Block>{{0, "DM", 5, 1}, {0, "DM", 65535, 1}, {0, "TM", 0, 1}}));
}

TEST_F(AddressMerge, OverlappingKeysJoin) {
    EXPECT_EQ(merge({key(0, "DM", 10, 5), key(0, "DM", 12, 2)}), (std::vector<Block>{{0, "DM", 10, 5}}));
    EXPECT_EQ(merge({key(0, "DM", 10, 5), key(0, "DM", 12, 10)}), (std::vector<Block>{{0, "DM", 10, 12}}));
}

TEST_F(AddressMerge, KeyStartingInsideTheCutPartOfALongKeyKeepsItsEnd) {
    // The rest of the long key is (128, 44); the next key starts before it.
    EXPECT_EQ(merge({key(0, "DM", 0, 172), key(0, "DM", 100, 10)}),
              (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 100, 72}}));
    EXPECT_EQ(merge({key(0, "DM", 0, 172), key(0, "DM", 100, 100)}),
              (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 100, 100}}));
    EXPECT_EQ(merge({key(0, "DM", 0, 172), key(0, "DM", 20, 120)}, 5),
              (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 128, 44}, {0, "DM", 20, 120}}));
}

TEST_F(AddressMerge, UnknownRegistersStayAsTheyCame) {
    EXPECT_EQ(merge({key(0, "XX", 5, 1), key(0, "XX", 6, 1)}, 10),
              (std::vector<Block>{{0, "XX", 5, 1}, {0, "XX", 6, 1}}));
    EXPECT_EQ(merge({key(0, "XX_bit", 1615, 4000)}), (std::vector<Block>{{0, "XX_bit", 1615, 4000}}));
    // Unknown names weigh with index -1: they sort after station 0's keys.
    EXPECT_EQ(merge({key(0, "XX", 0, 1), key(0, "DM", 1, 1), key(0, "DM", 0, 1)}, 10),
              (std::vector<Block>{{0, "DM", 0, 2}, {0, "XX", 0, 1}}));
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
    QList<KEY_ADDRESS> keys = {b, a};
    driver.maxGap = 0;
    addrMerge(keys, 1);
    ASSERT_EQ(keys.size(), 1);
    EXPECT_EQ(keys[0].userText1, "first");
    EXPECT_EQ(keys[0].userText2, "second");
    EXPECT_EQ(keys[0].userValue, 11);
    EXPECT_EQ(keys[0].dataType, 3);
    EXPECT_EQ(keys[0].values[0], 0xAB);
    EXPECT_EQ(keys[0].values[1023], 0xCD);
    EXPECT_EQ(keys[0].length, 2);
}

TEST_F(AddressMerge, WritesOneStep0LinePerKeyAfterConversion) {
    DebugCapture capture;
    merge({key(0, "DM_bit", 1615, 4), key(2, "TC", 7, 4), key(0, "XX_bit", 3, 2)});
    EXPECT_EQ(capture.lines(),
              (QStringList{"\"step0:id=0,reg=DM,address=100,len=2\"", "\"step0:id=1,reg=TC,address=7,len=2\"",
                           "\"step0:id=2,reg=XX_bit,address=3,len=2\""}));
}

TEST_F(AddressMerge, ARegisterNameWithPlaceholdersIsPrintedAsItIs) {
    DebugCapture capture;
    merge({key(0, "%3%1", 9, 1)});
    EXPECT_EQ(capture.lines(), (QStringList{"\"step0:id=0,reg=%3%1,address=9,len=1\""}));
}

TEST_F(AddressMerge, HostileLengthsAndAddressesStayBounded) {
    // A length validation would refuse is read only up to the register's end.
    const std::vector<Block> all = merge({key(0, "DM", 0, INT_MAX)});
    ASSERT_EQ(all.size(), 512u);
    EXPECT_EQ(all.back(), (Block{0, "DM", 65408, 128}));
    EXPECT_EQ(merge({key(0, "DM", INT_MAX, INT_MAX)}), (std::vector<Block>{{0, "DM", INT_MAX, 128}}));
    EXPECT_EQ(merge({key(0, "DM", INT_MAX - 5, 10), key(0, "DM", INT_MAX - 2, 10)}),
              (std::vector<Block>{{0, "DM", INT_MAX - 5, 13}}));
    EXPECT_EQ(merge({key(0, "DM_bit", INT_MAX, 16)}), (std::vector<Block>{{0, "DM", INT_MAX / 16, 2}}));
    EXPECT_EQ(merge({key(0, "DM", 10, -5), key(0, "DM", 10, 0)}),
              (std::vector<Block>{{0, "DM", 10, -5}, {0, "DM", 10, 0}}));
    EXPECT_LE(merge({key(0, "DM", INT_MIN, INT_MAX), key(0, "R", -5, INT_MAX)}).size(), 512u + 125u);
    EXPECT_EQ(merge({key(0, "TC", 0, INT_MIN)}), (std::vector<Block>{{0, "TC", 0, INT_MIN / 2}}));
}

TEST_F(AddressMerge, RandomKeysAreCoveredByBlocksOfAtMost128Units) {
    std::mt19937 rng(7);
    const char* regs[] = {"DM", "TM", "W", "TC", "R", "B", "MR_bit", "DM_bit"};
    for (int round = 0; round < 10; ++round) {
        QList<KEY_ADDRESS> keys;
        for (int i = 0; i < 100; ++i) {
            keys.append(key(int(rng() % 2), regs[rng() % 8], int(rng() % 2000), 1 + int(rng() % 200)));
        }
        const std::vector<Block> blocks = merge(keys, int(rng() % 4));
        for (const Block& b : blocks) EXPECT_LE(b.length, 128);
        // Every converted unit of every key lies in a block of its station and register.
        driver.maxGap = 0;
        for (const KEY_ADDRESS& k : keys) {
            QList<KEY_ADDRESS> one = {k};
            addrMerge(one, 1);
            for (const KEY_ADDRESS& u : one) {
                for (int a = u.address; a < u.address + u.length; ++a) {
                    bool covered = false;
                    for (const Block& b : blocks)
                        covered |= b.station == u.station && b.reg == u.reg && a >= b.address &&
                                   a < b.address + b.length;
                    ASSERT_TRUE(covered) << u.reg.toStdString() << " " << a;
                }
            }
        }
    }
}

// ---- mode 2 ----

TEST_F(AddressMerge, RecipeKeysJoinOnlyWhenTheyTouch) {
    QList<KEY_ADDRESS> out = recipe({key(0, "DM", 100, 2, 0), key(0, "DM", 102, 3, 2)});
    EXPECT_EQ(blocksOf(out), (std::vector<Block>{{0, "DM", 100, 5}}));
    EXPECT_EQ(out[0].recipeOffset, 0);
    EXPECT_EQ(firstIndex(), (std::vector<int>{0}));

    out = recipe({key(0, "DM", 100, 2, 0), key(0, "DM", 110, 1, 2)});
    EXPECT_EQ(blocksOf(out), (std::vector<Block>{{0, "DM", 100, 2}, {0, "DM", 110, 1}}));
    EXPECT_EQ(out[1].recipeOffset, 2);
    EXPECT_EQ(firstIndex(), (std::vector<int>{0, 1}));
}

TEST_F(AddressMerge, RecipeKeysKeepBitUnitsAndAreNotSorted) {
    DebugCapture capture;
    const QList<KEY_ADDRESS> out =
        recipe({key(0, "TC", 10, 4), key(0, "DM_bit", 1615, 4), key(0, "DM", 200, 1), key(0, "DM", 5, 1)});
    EXPECT_EQ(
        blocksOf(out),
        (std::vector<Block>{{0, "TC", 10, 2}, {0, "DM_bit", 1615, 4}, {0, "DM", 200, 1}, {0, "DM", 5, 1}}));
    EXPECT_EQ(firstIndex(), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(AddressMerge, LongRecipeKeyPiecesShareTheKeysIndexAndAdvanceTheOffset) {
    QList<KEY_ADDRESS> out = recipe({key(0, "DM", 0, 300, 7)});
    EXPECT_EQ(blocksOf(out),
              (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 128, 128}, {0, "DM", 256, 44}}));
    EXPECT_EQ(firstIndex(), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(out[0].recipeOffset, 7);
    EXPECT_EQ(out[1].recipeOffset, 135);
    EXPECT_EQ(out[2].recipeOffset, 263);

    out = recipe({key(0, "DM", 0, 1, 0), key(0, "TC", 0, 600, 1)});  // 300 double words
    EXPECT_EQ(
        blocksOf(out),
        (std::vector<Block>{{0, "DM", 0, 1}, {0, "TC", 0, 128}, {0, "TC", 128, 128}, {0, "TC", 256, 44}}));
    EXPECT_EQ(firstIndex(), (std::vector<int>{0, 1, 1, 1}));
    EXPECT_EQ(out[2].recipeOffset, 257);
    EXPECT_EQ(out[3].recipeOffset, 513);

    out = recipe({key(0, "DM_bit", 16, 300, 4)});
    EXPECT_EQ(blocksOf(out),
              (std::vector<Block>{{0, "DM_bit", 16, 128}, {0, "DM_bit", 144, 128}, {0, "DM_bit", 272, 44}}));
    EXPECT_EQ(out[1].recipeOffset, 132);  // one buffer word per bit
    EXPECT_EQ(out[2].recipeOffset, 260);
}

TEST_F(AddressMerge, RecipeKeyStartingInsideALongKeysRestIsPlacedByItsAddress) {
    const QList<KEY_ADDRESS> out = recipe({key(0, "DM", 0, 172, 0), key(0, "DM", 100, 10, 172)});
    EXPECT_EQ(blocksOf(out), (std::vector<Block>{{0, "DM", 0, 128}, {0, "DM", 100, 72}}));
    EXPECT_EQ(firstIndex(), (std::vector<int>{0, 0}));
    EXPECT_EQ(out[1].recipeOffset, 100);
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
        const std::vector<int> first = firstIndex();
        ASSERT_EQ(first.size(), size_t(blocks.size()));
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
