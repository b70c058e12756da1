// Storing and reading back one 128-word block must cost the same whatever the
// size of the data area around it.
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

void fillArea(int units) {
    clearDataArea();
    for (int a = 0; a < units; ++a) getIndexOfDataArea(a % 4, QStringLiteral("DM"), a / 4, driver.dataArea);
}

// The same block every time, as a screen reads its values over and over.
void BM_StoreAndReadBlock(benchmark::State& state) {
    const int units = static_cast<int>(state.range(0));
    fillArea(units);
    const QString dm = QStringLiteral("DM");
    const int station = 1;
    const int base = units / 8 - 64;
    std::vector<unsigned char> in(256), out(256);
    unsigned char value = 0;
    for (auto _ : state) {
        for (auto& b : in) b = value;
        ++value;
        write_saveDataToArea(station, dm, base, 128, in.data());
        intf_getData(station, dm, base, 128, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    if (driver.dataArea.size() != units) state.SkipWithError("block was not pre-filled");
    state.SetItemsProcessed(state.iterations() * 128);
    clearDataArea();
}
BENCHMARK(BM_StoreAndReadBlock)->Arg(1000)->Arg(10000)->Arg(100000);

// A different block each time, spread over the whole area: with 100k units
// this measures cache and TLB misses rather than the lookup.
void BM_StoreAndReadBlockRotating(benchmark::State& state) {
    const int units = static_cast<int>(state.range(0));
    fillArea(units);
    const QString dm = QStringLiteral("DM");
    const int blocks = units / 4 / 128;
    std::vector<unsigned char> in(256), out(256);
    int k = 0;
    for (auto _ : state) {
        for (auto& b : in) b = static_cast<unsigned char>(k);
        write_saveDataToArea(k % 4, dm, (k / 4 % blocks) * 128, 128, in.data());
        intf_getData(k % 4, dm, (k / 4 % blocks) * 128, 128, out.data());
        benchmark::DoNotOptimize(out.data());
        ++k;
    }
    if (driver.dataArea.size() != units) state.SkipWithError("block was not pre-filled");
    state.SetItemsProcessed(state.iterations() * 128);
    clearDataArea();
}
BENCHMARK(BM_StoreAndReadBlockRotating)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
