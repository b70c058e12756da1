// Merging of monitored keys into read blocks: random keys over mixed
// registers and stations, 1k to 100k of them.
#include "kv3000_catalogue.h"
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"

#include <QList>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

namespace {

QList<KEY_ADDRESS> randomKeys(int count) {
    // Valid addresses, kept to the first few thousand so that neighbours meet.
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
        KEY_ADDRESS k;
        k.station = int(rng() % 4);
        k.reg = QString::fromLatin1(r.name);
        const int span = std::min(r.top + 1, 20000);
        k.length = 1 + int(rng() % r.maxLength);
        k.address = int(rng() % uint32_t(std::max(1, span - k.length)));
        k.dataType = 1;
        keys.append(k);
    }
    return keys;
}

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
