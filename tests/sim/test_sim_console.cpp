// Register memory by name and address, the address notation, and the line
// console.
#include "kv3000_sim.h"

#include <gtest/gtest.h>

namespace {

TEST(Memory, EveryAreaIsSizedToItsRange) {
    kvsim::Memory mem;
    const struct {
        const char* reg;
        uint32_t last;
    } cases[] = {
        {"MR_bit", 15999},  {"LR_bit", 15999},   {"CR_bit", 15999},   {"R", 15999},
        {"B", 0x3FFF},      {"T", 9999},         {"C", 9999},         {"DM_bit", 1048575},
        {"TM_bit", 159999}, {"CM_bit", 1048575}, {"EM_bit", 1048575}, {"FM_bit", 1048575},
        {"DM", 65535},      {"TM", 9999},        {"CM", 65535},       {"EM", 65535},
        {"FM", 65535},      {"MR", 999},         {"LR", 999},         {"CR", 999},
        {"W", 0x3FF},       {"ZF", 131071},      {"TC", 9999},        {"TS", 9999},
        {"CC", 9999},       {"CS", 9999},        {"Z", 15},           {"TRM", 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reg);
        EXPECT_TRUE(mem.set(c.reg, c.last, 1));
        EXPECT_EQ(mem.get(c.reg, c.last), 1u);
        EXPECT_FALSE(mem.set(c.reg, c.last + 1, 1));
        EXPECT_FALSE(mem.get(c.reg, c.last + 1).has_value());
    }
    EXPECT_FALSE(mem.get("dm", 0).has_value());  // names are exact
    EXPECT_FALSE(mem.set("XX", 0, 1));
}

TEST(Memory, ViewsShareTheirStore) {
    kvsim::Memory mem;
    mem.set("DM_bit", 100 * 16 + 15, 1);
    EXPECT_EQ(mem.get("DM", 100), 0x8000u);
    mem.set("MR", 10, 0x0020);
    EXPECT_EQ(mem.get("MR_bit", 165), 1u);
    mem.set("T", 5, 1);
    mem.set("TC", 5, 100000);
    mem.set("TS", 5, 200000);
    EXPECT_EQ(mem.get("T", 5), 1u);
    EXPECT_EQ(mem.get("TC", 5), 100000u);
    EXPECT_EQ(mem.get("TS", 5), 200000u);
    EXPECT_EQ(mem.get("CC", 5), 0u);
    mem.set("W", 0, 0x12345);
    EXPECT_EQ(mem.get("W", 0), 0x2345u);  // a word keeps 16 bits
    mem.clear();
    EXPECT_EQ(mem.get("DM", 100), 0u);
    EXPECT_EQ(mem.get("T", 5), 0u);
}

// Text, the address, and the text written back.
TEST(Address, NotationOfEachKind) {
    const struct {
        const char* text;
        uint32_t address;
        const char* written;
    } good[] = {
        {"DM100", 100, "DM100"},
        {"dm100", 100, "DM100"},
        {"R5.03", 83, "R5.03"},
        {"R5.3", 83, "R5.03"},
        {"B3FF", 0x3FF, "B3FF"},
        {"b3ff", 0x3FF, "B3FF"},
        {"MR_bit10.05", 165, "MR_bit10.05"},
        {"DM_bit100.15", 1615, "DM_bit100.15"},
        {"TC5", 5, "TC5"},
        {"TS5", 5, "TS5"},
        {"T5", 5, "T5"},
        {"TRM7", 7, "TRM7"},
        {"TM9999", 9999, "TM9999"},
        {"CR999", 999, "CR999"},
        {"C12", 12, "C12"},
        {"W3FF", 0x3FF, "W3FF"},
        {"ZF131071", 131071, "ZF131071"},
        {"Z15", 15, "Z15"},
    };
    for (const auto& g : good) {
        const auto u = kvsim::parseUnit(g.text);
        ASSERT_TRUE(u.has_value()) << g.text;
        EXPECT_EQ(u->address, g.address) << g.text;
        EXPECT_EQ(kvsim::formatAddress(*u->reg, u->address), g.written);
    }
    for (const char* bad : {"", "DM", "XY1", "DM-1", "DM1x", "R5", "R5.16", "R5.123", "R1000.00", "B4000",
                            "DM65536", "TRM8", "DM 1", "W400", "DM99999999999", "T10000"}) {
        std::string why;
        EXPECT_FALSE(kvsim::parseUnit(bad, &why).has_value()) << bad;
        EXPECT_FALSE(why.empty()) << bad;
    }
    EXPECT_EQ(kvsim::formatAddress(*kvsim::findRegister("W"), 0x1F), "W1F");
}

class ConsoleTest : public ::testing::Test {
protected:
    std::string run(const std::string& line) { return console.execute(line, &quit); }
    kvsim::Memory mem;
    kvsim::Stats stats;
    kvsim::Console console{mem, [this] { return stats; }};
    bool quit = false;
};

TEST_F(ConsoleTest, GetPrintsOneLinePerUnit) {
    mem.set("DM", 100, 1234);
    mem.set("R", 83, 1);
    mem.set("TC", 5, 100000);
    mem.set("B", 0x3FF, 1);
    EXPECT_EQ(run("get DM100"), "DM100 1234\n");
    EXPECT_EQ(run("get DM100:3"), "DM100 1234\nDM101 0\nDM102 0\n");
    EXPECT_EQ(run("get R5.03"), "R5.03 1\n");
    EXPECT_EQ(run("get R5.15:2"), "R5.15 0\nR6.00 0\n");
    EXPECT_EQ(run("get TC5"), "TC5 100000\n");
    EXPECT_EQ(run("get B3FE:2"), "B3FE 0\nB3FF 1\n");
    EXPECT_EQ(run("  get   T5  "), "T5 0\n");
}

TEST_F(ConsoleTest, SetWritesConsecutiveUnits) {
    EXPECT_EQ(run("set DM100 1 2 65535"), "ok\n");
    EXPECT_EQ(mem.get("DM", 102), 65535u);
    EXPECT_EQ(run("set DM200 -1 0x10"), "ok\n");
    EXPECT_EQ(mem.get("DM", 200), 65535u);
    EXPECT_EQ(mem.get("DM", 201), 16u);
    EXPECT_EQ(run("set MR_bit10.05 1"), "ok\n");
    EXPECT_EQ(mem.get("MR", 10), 32u);
    EXPECT_EQ(run("set TC5 4294967295"), "ok\n");
    EXPECT_EQ(mem.get("TC", 5), 4294967295u);
    EXPECT_EQ(run("set Z0 -2"), "ok\n");
    EXPECT_EQ(mem.get("Z", 0), 0xFFFFFFFEu);
    EXPECT_EQ(run("set T5 1"), "ok\n");
    EXPECT_EQ(run("get T5"), "T5 1\n");
}

TEST_F(ConsoleTest, MistakesGiveOneErrorLineAndChangeNothing) {
    mem.set("DM", 65535, 7);
    for (const char* bad :
         {"get", "get DM", "get XX5", "get DM100:0", "get DM100:-1", "get DM100:x", "get DM65535:2",
          "get DM1 DM2", "set DM100", "set DM65535 1 2", "set DM0 65536", "set DM0 -32769", "set R0.00 2",
          "set DM0 abc", "set DM0 1.5", "set DM0 0x", "frobnicate", "stats now", "quit now"}) {
        SCOPED_TRACE(bad);
        const std::string out = run(bad);
        EXPECT_EQ(out.rfind("error: ", 0), 0u) << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
    }
    EXPECT_EQ(mem.get("DM", 65535), 7u);
    EXPECT_EQ(mem.get("DM", 0), 0u);
    EXPECT_FALSE(quit);
}

TEST_F(ConsoleTest, StatsHelpQuit) {
    stats.reads = 4;
    EXPECT_NE(run("stats").find("reads 4 "), std::string::npos);
    EXPECT_NE(run("help").find("get ADDR[:N]"), std::string::npos);
    EXPECT_EQ(run(""), "");
    EXPECT_EQ(run("quit"), "");
    EXPECT_TRUE(quit);
}

}  // namespace
