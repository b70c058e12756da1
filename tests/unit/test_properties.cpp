// The driver's scenarios (unit/*.txt), and what holds for any input: well-formed frames, a defined
// result for any reply, the data area's index, cyclic reads and recipe transfers of random entries.
#include "kv3000_catalogue.h"
#include "kv3000_wire.h"
#include "kv_3000/frame_builder.h"
#include "protocol.h"
#include "scenario.h"
#include "serviceForProtocol/data_area.h"

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <set>

namespace {

TEST(Properties, EveryFrameIsWellFormed) {
    for (int row = 0; row < REG_COUNT; ++row)
        for (int address : {0, 37, 0xFFFF, 0x10000, 0x0FFFFFFF, INT_MAX, -1, INT_MIN})
            for (int length :
                 {1, 2, 60, 61, 121, 122, 128, 512, 513, 1025, 0xFFFF, 0x10000, INT_MAX, 0, -1}) {
                VARIABLE v;
                v.reg = REG_LIST[row], v.address = address, v.length = length, v.data[0] = 1;
                driver.frameList.clear();
                getReadFrame({v});
                getWriteFrame(v);
                for (const FRAME_PRO& f : driver.frameList) {
                    SCOPED_TRACE(std::string(REG_LIST[row]) + " " + std::to_string(address) + " x" +
                                 std::to_string(length));
                    ASSERT_TRUE(f.sendLength >= 13 && f.sendLength <= KV_BUFFER_SIZE) << f.sendLength;
                    unsigned sum = 0;
                    for (int i = 3; i < f.sendLength - 2; ++i) sum += f.frame[i];
                    EXPECT_EQ(f.frame[4] + 7, f.sendLength);
                    EXPECT_EQ(f.frame[f.sendLength - 2], uint8_t(sum > 255 ? 0u - sum : sum));
                    EXPECT_EQ(f.frame[f.sendLength - 1], kvwire::EOT);
                    EXPECT_GT(f.replyLength, 0);
                }
            }
    driver.frameList.clear();
}

TEST(Properties, AnyReplyGivesADefinedResult) {
    resetRuntime();
    perform("readlist DM100x3 R30x20 TC1x2");
    std::mt19937 rng(7);
    for (int i = 0; i < 3000; ++i) {
        if (perform("send") == "-") continue;
        std::string bytes;  // random ones, or the controller's answer
        char byte[4];
        for (int k = i % 7 == 0 ? 0 : i % 50 == 1 ? 65536 : int(rng() % 40); k > 0; --k)
            std::snprintf(byte, sizeof byte, " %02X", unsigned(rng() & 0xFF)), bytes += byte;
        const std::string result = perform(i % 7 == 0      ? "reply sim"
                                           : bytes.empty() ? "reply -"
                                                           : "reply" + bytes);
        ASSERT_TRUE(std::string("0128").find(result[0]) != std::string::npos) << result;
    }
    EXPECT_EQ(intf_getSendFrame(nullptr), 0);
}

// Entries appended, emptied or cleared behind the index's back: the index still finds what a
// scan from the front finds, and a missing unit is appended.
TEST(Properties, DataAreaIndexAgreesWithALinearScan) {
    resetRuntime();
    std::mt19937 rng(5);
    const QString keys[] = {"DM", "TC", "R", "XX", "MR"};
    for (int op = 0; op < 20000; ++op) {
        const int station = int(rng() % 3), address = int(rng() % 300), what = int(rng() % 1000);
        const QString& key = keys[rng() % 5];
        if (what == 0) clearDataArea();
        if (what == 1) driver.dataArea.clear();
        if (what < 6) {
            _DATA_ e;
            e.station = station, e.regKey = key, e.address = address;
            driver.dataArea.append(e);
            continue;
        }
        const auto first = std::find_if(driver.dataArea.begin(), driver.dataArea.end(), [&](const _DATA_& e) {
            return e.station == station && e.address == address && e.regKey == key;
        });
        ASSERT_EQ(getIndexOfDataArea(station, key, address, driver.dataArea), first - driver.dataArea.begin())
            << op;
    }
}

// A random unit range of a register kind, inside the device.
struct Range {
    const char* reg;
    int address, length, station = 1;
};
Range randomRange(std::mt19937& rng) {
    const Range kinds[] = {{"DM", 2000, 200}, {"DM_bit", 30000, 300}, {"R", 15000, 300},
                           {"TC", 9000, 60},  {"T", 9000, 100},       {"MR", 800, 60},
                           {"Z", 8, 8},       {"MR_bit", 12000, 200}};
    const Range& k = kinds[rng() % 8];
    const int length = 1 + int(rng() % unsigned(k.length));
    const int units = kvreg::traits(kvreg::rowOf(k.reg)).unitLength() * length;
    return {k.reg, int(rng() % unsigned(k.address)), units, 1 + int(rng() % 2)};
}
std::string text(const Range& r) {
    return std::to_string(r.station) + ":" + r.reg + std::to_string(r.address) + "x" +
           std::to_string(r.length);
}
// What intf_getData shows of the range, and what it shows when it shows the controller's values.
std::pair<std::vector<unsigned char>, std::vector<unsigned char>> shownAndHeld(const Range& r) {
    const kvreg::Traits& t = kvreg::traits(kvreg::rowOf(r.reg));
    std::vector<unsigned char> held;
    for (int u = 0; u < r.length / t.unitLength(); ++u) {
        const uint32_t v = controller().get(r.reg, uint32_t(r.address + u)).value();
        for (int b = 0; b < t.unitBytes(); ++b) held.push_back(static_cast<unsigned char>(v >> (8 * b)));
    }
    std::vector<unsigned char> shown(held.size(), 0xEE);
    intf_getData(r.station, r.reg, r.address, r.length, shown.data());
    return {shown, held};
}

// Registrations, re-registrations, re-initialisations, screens reading other units, the data
// area emptied behind the driver's back and condition reads, between rounds of cyclic reads:
// afterwards every monitored unit shows what the controller holds.
TEST(Properties, CyclicReadsShowTheControllersValues) {
    resetRuntime();
    std::mt19937 rng(11);
    std::vector<Range> monitored;
    for (int round = 0; round < 60; ++round) {
        const int what = int(rng() % 6);
        if (what == 0 || monitored.empty()) {
            if (rng() % 2) perform("init 1#0#0#3#" + std::to_string(rng() % 8)), perform("run 1");
            monitored.clear();
            std::string keys = "monitor";
            for (int k = 1 + int(rng() % 8); k > 0; --k) {
                monitored.push_back(randomRange(rng));
                keys += " " + text(monitored.back());
            }
            perform(keys);
        }
        if (what == 1) perform("get " + text(randomRange(rng)));
        if (what == 2) driver.dataArea.clear();
        if (what == 3) perform("cread " + text(monitored[rng() % monitored.size()]));
        for (const Range& r : monitored)
            for (int u = 0; u < r.length; ++u)
                controller().set(r.reg, uint32_t(r.address + u), uint32_t(rng()));
        for (const VARIABLE& v : driver.readList) ASSERT_LE(v.length, 128);
        perform("run " + std::to_string(driver.readList.size() + driver.conditionReadList.size()));
        for (const Range& r : monitored) {
            const auto [shown, held] = shownAndHeld(r);
            ASSERT_EQ(shown, held) << round << " " << text(r);
        }
    }
}

// Random recipes of every writable kind, downloaded and uploaded: every unit of every entry goes
// where the recipe buffer layout says, and nothing else changes, in the controller or the buffer.
TEST(Properties, RecipeTransfersMoveEveryEntryAndNothingElse) {
    std::mt19937 rng(13);
    for (int round = 0; round < 12; ++round) {
        resetRuntime();
        std::vector<std::pair<Range, int>> entries;  // range, buffer word
        std::string registration = "recipe";
        const char* regs[] = {"DM", "TC", "R", "DM_bit"};
        const int base[] = {0, 0, 0, 16000};  // DM_bit above the words of DM
        int next[] = {0, 0, 0, 16000}, word = 0;
        std::vector<int> kinds(1 + rng() % 10);
        for (int& k : kinds) k = int(rng() % 4);
        std::sort(kinds.begin(), kinds.end());
        for (int kind : kinds) {
            const int units = 1 + int(rng() % (rng() % 4 ? 40 : 300));
            const Range r{regs[kind], next[kind] + int(rng() % 3 ? 0 : rng() % 4),
                          kind == 1 ? 2 * units : units};
            next[kind] = r.address + units;
            entries.push_back({r, word});
            registration += " " + text(r) + "+" + std::to_string(word);
            word += r.length;
        }
        perform(registration);
        // Download: the controller holds a pattern, the buffer random words.
        auto pattern = [](int kind, int u) {
            return kind == 1 ? 0x5A5A0000u + u : kind == 0 ? uint16_t(0xA000 + u) : 1u;
        };
        for (int k = 0; k < 4; ++k)
            for (int u = base[k]; u < next[k] + 8; ++u) controller().set(regs[k], uint32_t(u), pattern(k, u));
        for (int w = 0; w < word + 8; ++w) recipeBuffer()[w] = uint16_t(rng() % 3 ? rng() : 0);
        std::map<std::pair<std::string, int>, uint32_t> expected;
        for (const auto& [r, at] : entries) {
            const kvreg::Traits& t = kvreg::traits(kvreg::rowOf(r.reg));
            for (int u = 0; u < r.length / t.unitLength(); ++u) {
                const unsigned short* w = recipeBuffer() + at + t.unitLength() * u;
                expected[{r.reg, r.address + u}] = t.countsBits()        ? w[0] != 0
                                                   : t.unitLength() == 2 ? uint32_t(w[1]) << 16 | w[0]
                                                                         : w[0];
            }
        }
        perform("request 1 0");
        for (int i = 0; i < 2000 && perform("request") != "0 0"; ++i) perform("run 1");
        for (int k = 0; k < 4; ++k)
            for (int u = base[k]; u < next[k] + 8; ++u) {
                const auto it = expected.find({regs[k], u});
                ASSERT_EQ(controller().get(regs[k], uint32_t(u)).value(),
                          it == expected.end() ? pattern(k, u) : it->second)
                    << round << " " << regs[k] << u;
            }
        // Upload: the buffer holds a pattern, the controller what the download left.
        for (int w = 0; w < word + 8; ++w) recipeBuffer()[w] = 0xBEEF;
        perform("request 0 1");
        for (int i = 0; i < 2000 && perform("request") != "0 0"; ++i) perform("run 1");
        std::set<int> filled;
        for (const auto& [r, at] : entries) {
            const bool dword = kvreg::traits(kvreg::rowOf(r.reg)).unitLength() == 2;
            for (int u = 0; u < (dword ? r.length / 2 : r.length); ++u) {
                const uint32_t v = controller().get(r.reg, uint32_t(r.address + u)).value();
                const int w = at + (dword ? 2 * u : u);
                const uint32_t got = recipeBuffer()[w] | (dword ? uint32_t(recipeBuffer()[w + 1]) << 16 : 0u);
                ASSERT_EQ(got, dword ? v : uint16_t(v)) << round << " " << text(r) << " " << u;
                filled.insert(w), filled.insert(dword ? w + 1 : w);
            }
        }
        for (int w = 0; w < word + 8; ++w)
            ASSERT_TRUE(filled.count(w) || recipeBuffer()[w] == 0xBEEF) << round << " word " << w;
    }
}

}  // namespace
