// Writes: intf_setData of one word while 500 distinct writes are pending (the
// scan for an equal pending item), and the scheduler's choice of the next
// transaction with every queue full.
#include "bench_support.h"
#include "protocol.h"

#include <benchmark/benchmark.h>

namespace {

using namespace kvbench;

void queueDistinctWrites(int count) {
    QString dm = QStringLiteral("DM");
    for (int i = 0; i < count; ++i) {
        unsigned char v[2] = {static_cast<unsigned char>(i), static_cast<unsigned char>(i >> 8)};
        intf_setData(1, &dm, 100 + i, 1, v, 7);
    }
}

// The new value matches the oldest waiting item behind the head: the scan
// runs from the end of the queue over all 499 others.
void setDataScan(benchmark::State& state) {
    Runtime rt;
    rt.init();
    queueDistinctWrites(500);
    QString dm = QStringLiteral("DM");
    unsigned k = 0;
    for (auto _ : state) {
        unsigned char v[2] = {static_cast<unsigned char>(k), static_cast<unsigned char>(k >> 8)};
        ++k;
        intf_setData(1, &dm, 101, 1, v, 7);
    }
    if (driver.writeList.size() != 500) state.SkipWithError("queue grew");
    intf_setAddrValueChangeCallBack(nullptr);
}

void BM_SetDataWith500Pending(benchmark::State& state) {
    QuietDebug quiet;
    setDataScan(state);
}
BENCHMARK(BM_SetDataWith500Pending)->Unit(benchmark::kMicrosecond);

void BM_SetDataWith500PendingDebugOff(benchmark::State& state) {
    DebugOff off;
    setDataScan(state);
}
BENCHMARK(BM_SetDataWith500PendingDebugOff)->Unit(benchmark::kMicrosecond);

// 513 writes, 513 condition reads and 100 read blocks waiting. Each call
// chooses and frames a transaction; the frames are then dropped unanswered,
// so the queues stay full: ten writes, then one cyclic read, over and over.
void BM_SchedulerChoiceFullQueues(benchmark::State& state) {
    QuietDebug quiet;
    Runtime rt;
    rt.init();
    if (!completeHandshake()) return state.SkipWithError("handshake failed");
    QList<KEY_ADDRESS> keys;
    for (int b = 0; b < 100; ++b) keys.append(key(1, "DM", 1000 + 200 * b, 128));
    intf_addrMerge(keys);
    queueDistinctWrites(513);
    for (int i = 0; i < 513; ++i) intf_addConditionRead(key(1, "EM", 10 * i, 4), 9);
    if (driver.writeList.size() != 513 || driver.conditionReadList.size() != 513)
        return state.SkipWithError("queues not full");
    FRAME_PRO frame;
    for (auto _ : state) {
        benchmark::DoNotOptimize(intf_getSendFrame(&frame));
        driver.frameList.clear();
    }
    intf_setAddrValueChangeCallBack(nullptr);
}
BENCHMARK(BM_SchedulerChoiceFullQueues)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
