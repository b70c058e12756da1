// Registration of monitored addresses through intf_addrMerge: random keys over
// mixed registers and stations, 1k to 100k of them, monitor flags included.
#include "bench_support.h"
#include "protocol.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

namespace {

using namespace kvbench;

QList<KEY_ADDRESS> randomKeys(int count) {
    struct Reg {
        const char* name;
        int top;        // highest address used
        int maxLength;  // runtime units: bits for bit registers, words otherwise
    };
    const Reg regs[] = {{"DM", 65535, 4},     {"DM_bit", 1048575, 20}, {"EM", 65535, 2},  {"TM", 9999, 4},
                        {"MR_bit", 15999, 8}, {"R", 15999, 8},         {"B", 16383, 8},   {"W", 1023, 2},
                        {"TC", 9999, 4},      {"CS", 9999, 2},         {"ZF", 131071, 2}, {"Z", 15, 2}};
    std::mt19937 rng(2024);
    QList<KEY_ADDRESS> keys;
    keys.reserve(count);
    for (int i = 0; i < count; ++i) {
        const Reg& r = regs[rng() % (sizeof regs / sizeof regs[0])];
        const int span = std::min(r.top + 1, 20000);
        const int length = 1 + int(rng() % r.maxLength);
        const int station = int(rng() % 4);
        keys.append(key(station, r.name, int(rng() % uint32_t(std::max(1, span - length))), length));
    }
    return keys;
}

void run(benchmark::State& state) {
    Runtime rt;
    rt.init();
    QList<KEY_ADDRESS> keys = randomKeys(int(state.range(0)));
    int blocks = 0;
    for (auto _ : state) blocks = intf_addrMerge(keys);
    state.counters["blocks"] = blocks;
    state.counters["units"] = driver.dataArea.size();
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    intf_setAddrValueChangeCallBack(nullptr);
}

// The "step", "step0" and "step3" lines are formatted and dropped by a message handler.
void BM_AddrMerge(benchmark::State& state) {
    QuietDebug quiet;
    run(state);
}
BENCHMARK(BM_AddrMerge)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Debug output switched off by logging rules.
void BM_AddrMergeDebugOff(benchmark::State& state) {
    DebugOff off;
    run(state);
}
BENCHMARK(BM_AddrMergeDebugOff)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
