// Merging of monitored keys into read blocks: random keys over mixed
// registers and stations, 1k to 100k of them.
#include "kv3000_catalogue.h"
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"

#include <QList>
#include <QLoggingCategory>

#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

namespace {

using kvbench::randomKeys;

void discardMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

void run(benchmark::State& state, int mode) {
    const QList<KEY_ADDRESS> keys = randomKeys(int(state.range(0)));
    driver.maxGap = 2;
    size_t blocks = 0;
    for (auto _ : state) {
        QList<KEY_ADDRESS> work = keys;  // shared, the merge never writes into it
        driver.rcpFirstIndex.clear();
        addrMerge(work, mode);
        blocks = size_t(work.size());
        benchmark::DoNotOptimize(work);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    state.counters["blocks"] = double(blocks);
}

// The step0 lines are formatted and handed to a message handler that drops them.
void BM_MergeMonitored(benchmark::State& state) {
    const QtMessageHandler previous = qInstallMessageHandler(discardMessage);
    run(state, 1);
    qInstallMessageHandler(previous);
}

// Debug output switched off by logging rules: the lines are not even formatted.
void BM_MergeMonitoredDebugOff(benchmark::State& state) {
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    run(state, 1);
    QLoggingCategory::setFilterRules(QString());
}

// Recipe keys, unsorted input as handed in, first pass only.
void BM_MergeRecipe(benchmark::State& state) {
    run(state, 2);
}

BENCHMARK(BM_MergeMonitored)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeMonitoredDebugOff)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeRecipe)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
