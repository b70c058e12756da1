// e2e_rss: peak memory of a runtime with 100k monitored units. Registers
// 100,000 "DM" words (one key each, as screens register them), runs the
// cyclic reads over every block a few times with every word changing, and
// prints the process's peak and current resident size from /proc/self/status.
//
//   e2e_rss [UNITS]   prints "rss_peak_kib N", "rss_after_kib N", ...
#include "bench_support.h"
#include "protocol.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <malloc.h>

namespace {

long statusKib(const char* field) {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long value = -1;
    const size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, field, n) == 0 && line[n] == ':') {
            value = std::atol(line + n + 1);
            break;
        }
    }
    std::fclose(f);
    return value;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kvbench;
    const int units = argc > 1 ? std::atoi(argv[1]) : 100000;
    const long baseline = statusKib("VmHWM");

    Runtime rt;
    rt.init();
    if (!completeHandshake()) return 1;
    int blocks;
    {
        QList<KEY_ADDRESS> keys;
        keys.reserve(units);
        for (int i = 0; i < units; ++i) keys.append(key(1 + i / 65536, "DM", i % 65536, 1));
        QuietDebug quiet;
        blocks = intf_addrMerge(keys);
    }  // the runtime's key list is gone; what stays is the driver's
    malloc_trim(0);
    const long afterRegistration = statusKib("VmRSS");

    std::vector<QByteArray> replies(2 * 129);
    for (int n = 1; n <= 128; ++n) {
        replies[2 * n] = wordReadReply(n, 1);
        replies[2 * n + 1] = wordReadReply(n, 2);
    }
    FRAME_PRO frame;
    QString message;
    for (long long t = 0; t < 4LL * blocks; ++t) {
        if (!intf_getSendFrame(&frame)) return 1;
        QByteArray& reply = replies[2 * frame.elementCount + int((t / blocks) & 1)];
        if (intf_dealRcvFrame(&reply, &message) != 1) return 1;
    }
    std::printf("units %d\nblocks %d\ndata_area_entries %d\nchange_reports %lld\n", units, blocks,
                int(driver.dataArea.size()), changeReports());
    std::printf(
        "rss_start_kib %ld\nrss_after_registration_kib %ld\nrss_after_reads_kib %ld\nrss_peak_kib %ld\n",
        baseline, afterRegistration, statusKib("VmRSS"), statusKib("VmHWM"));
    intf_setAddrValueChangeCallBack(nullptr);
    return 0;
}
