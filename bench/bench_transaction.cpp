// Driver CPU per cyclic transaction: intf_getSendFrame + intf_dealRcvFrame of
// a 128-word "DM" block whose words are all monitored and all change with
// every reply, in data areas of 1k, 10k and 100k units. The cost must not
// grow with the size of the data area.
#include "bench_support.h"
#include "protocol.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using namespace kvbench;

constexpr int kBlock = 128;
constexpr int kBlockAddress = 1000;

// Entries for units other than the block, as screens that read other values leave them.
void prefillByReading(int units) {
    std::vector<unsigned char> buffer(2 * kBlock);
    for (int done = 0; done < units; done += kBlock) {
        const int n = std::min(kBlock, units - done);
        const int station = 2 + done / 65536;
        intf_getData(station, QStringLiteral("DM"), done % 65536, n, buffer.data());
    }
}

void cyclicRead(benchmark::State& state, int units, int words) {
    Runtime rt;
    rt.init();
    if (!completeHandshake()) return state.SkipWithError("handshake failed");
    prefillByReading(units - words);

    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < words; ++i) keys.append(key(1, "DM", kBlockAddress + i, 1));
    {
        QuietDebug quiet;
        if (intf_addrMerge(keys) != 1) return state.SkipWithError("not one block");
    }
    if (driver.dataArea.size() != units) return state.SkipWithError("data area not pre-filled");

    // Consecutive replies differ in every word.
    std::vector<QByteArray> replies;
    for (unsigned s = 0; s < 64; ++s) replies.push_back(wordReadReply(words, 1 + s * 977u));

    FRAME_PRO frame;
    QString message;
    size_t k = 0;
    changeReports() = 0;
    for (auto _ : state) {
        intf_getSendFrame(&frame);
        QByteArray& reply = replies[k++ & 63];
        benchmark::DoNotOptimize(intf_dealRcvFrame(&reply, &message));
    }
    if (changeReports() != (long long)state.iterations() * words)
        state.SkipWithError("not every word was reported");
    state.counters["reports/tx"] = double(changeReports()) / double(state.iterations());
    intf_setAddrValueChangeCallBack(nullptr);
}

void BM_CyclicRead128(benchmark::State& state) {
    cyclicRead(state, int(state.range(0)), kBlock);
}
BENCHMARK(BM_CyclicRead128)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The same in a 100k data area with blocks of 1, 16 and 128 words: what a
// transaction costs in itself, and what each word adds.
void BM_CyclicReadBlockLength(benchmark::State& state) {
    cyclicRead(state, 100000, int(state.range(0)));
}
BENCHMARK(BM_CyclicReadBlockLength)->Arg(1)->Arg(16)->Arg(128)->Unit(benchmark::kMicrosecond);

// Every unit of the data area monitored, one word per key: the loop runs
// through all blocks in turn, each reply changing every word of its block.
void BM_CyclicReadAllMonitored(benchmark::State& state) {
    const int units = int(state.range(0));
    Runtime rt;
    rt.init();
    if (!completeHandshake()) return state.SkipWithError("handshake failed");
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < units; ++i) keys.append(key(1 + i / 65536, "DM", i % 65536, 1));
    int blocks;
    {
        QuietDebug quiet;
        blocks = intf_addrMerge(keys);
    }
    std::vector<QByteArray> replies(2 * (kBlock + 1));
    for (int n = 1; n <= kBlock; ++n) {
        replies[2 * n] = wordReadReply(n, 0);
        replies[2 * n + 1] = wordReadReply(n, 1);
    }
    FRAME_PRO frame;
    QString message;
    long long t = 0;
    changeReports() = 0;
    long long words = 0;
    for (auto _ : state) {
        intf_getSendFrame(&frame);
        const int parity = int((t++ / blocks) & 1);
        words += frame.elementCount;
        QByteArray& reply = replies[2 * frame.elementCount + parity];
        benchmark::DoNotOptimize(intf_dealRcvFrame(&reply, &message));
    }
    // The first round changes nothing but word 0 of each block (values 0 .. n-1 from 0).
    state.counters["blocks"] = blocks;
    state.counters["reports/tx"] = double(changeReports()) / double(state.iterations());
    state.SetItemsProcessed(words);
    intf_setAddrValueChangeCallBack(nullptr);
}
BENCHMARK(BM_CyclicReadAllMonitored)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
