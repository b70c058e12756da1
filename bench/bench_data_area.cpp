// Storing and reading back one 128-word block must cost the same whatever the
// size of the data area around it.
#include "bench_support.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <vector>

namespace {

// Resident anonymous memory (heap and the like, not the mapped program).
long residentBytes() {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "RssAnon: %ld kB", &kib) == 1) break;
    std::fclose(f);
    return kib * 1024;
}

// What one word unit stored through intf_setData (local-only writes) adds to
// the resident memory, measured in a child of a process that has not run a
// benchmark yet, so that no memory freed earlier is reused: 512 words a call,
// 65536 a station.
double residentBytesPerUnit(int units) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        kvbench::Runtime rt;
        rt.init("1#1#0#3#10");
        QString dm = QStringLiteral("DM");
        std::vector<unsigned char> values(1024, 0x5A);
        intf_setData(0, &dm, 0, 1, values.data(), 1);  // the first call's one-off allocations
        const long before = residentBytes();
        for (int done = 0; done < units;) {
            const int n = std::min(512, units - done);
            intf_setData(1 + done / 65536, &dm, done % 65536, n, values.data(), 1);
            done += n;
        }
        const double perUnit = double(residentBytes() - before) / units;
        const ssize_t w = write(fds[1], &perUnit, sizeof perUnit);
        _exit(w == sizeof perUnit && driver.dataArea.size() == units + 1 ? 0 : 1);
    }
    close(fds[1]);
    double perUnit = -1;
    if (read(fds[0], &perUnit, sizeof perUnit) != sizeof perUnit) perUnit = -1;
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? perUnit : -1;
}

void fillArea(int units) {
    clearDataArea();
    for (int a = 0; a < units; ++a) getIndexOfDataArea(a % 4, QStringLiteral("DM"), a / 4, driver.dataArea);
}

// Measured before any benchmark runs.
double residentPerUnit(int units) {
    static const std::map<int, double> measured = {
        {1000, residentBytesPerUnit(1000)},
        {10000, residentBytesPerUnit(10000)},
        {100000, residentBytesPerUnit(100000)},
    };
    const auto it = measured.find(units);
    return it == measured.end() ? -1 : it->second;
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
    // Beside the timing: what a unit costs in memory in an area of this size.
    state.counters["resident B/unit"] = residentPerUnit(units);
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

int main(int argc, char** argv) {
    residentPerUnit(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
