// Registration of monitored addresses through intf_addrMerge: random keys over
// mixed registers and stations, 1k to 100k of them, monitor flags included.
#include "bench_support.h"
#include "protocol.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

namespace {

using namespace kvbench;

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
