// kv3000-sim: a KV-3000 controller on TCP and, if asked, a pseudo-terminal,
// with a line console on stdin.
#include "capture_file.h"
#include "kv3000_sim.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

const char kHelp[] =
    "NAME\n"
    "    kv3000-sim - KV-3000 controller simulator\n"
    "\n"
    "SYNOPSIS\n"
    "    kv3000-sim [--listen HOST:PORT] [--pty] [--faults LIST] [--seed N] [--live]\n"
    "               [--capture FILE.pcap] [--replay FILE.pcap]\n"
    "    kv3000-sim --help\n"
    "\n"
    "DESCRIPTION\n"
    "    Answers the binary request frames of a KV-3000 host (handshake, reads, word,\n"
    "    double-word, bit and timer/counter value writes) from a register memory that\n"
    "    covers every device area: R, B, CR, MR, LR, T and C (contact, current and set\n"
    "    value), DM, TM, CM, EM, FM, W, ZF, Z and TRM. All memory starts at zero.\n"
    "    A request it cannot serve (bad check byte, unknown command or area, address\n"
    "    out of range, wrong length) gets an 8-byte refusal and changes nothing.\n"
    "\n"
    "    The first line printed is 'listening on HOST:PORT' with the real port; with\n"
    "    --pty a line 'serial on PATH' follows. Then commands are read from standard\n"
    "    input (see CONSOLE). The simulator stops on 'quit', at the end of standard\n"
    "    input, and on SIGINT or SIGTERM, and prints its counters as it goes.\n"
    "\n"
    "OPTIONS\n"
    "    --listen HOST:PORT\n"
    "        Address to serve TCP on; default 127.0.0.1:8000. Port 0 picks a free\n"
    "        port. Only the given address is listened on; use [::1]:PORT for IPv6.\n"
    "    --pty\n"
    "        Also serve a pseudo-terminal in raw mode, for hosts that use serial I/O.\n"
    "    --faults LIST\n"
    "        Inject faults into replies. LIST is a comma-separated list of\n"
    "        KIND=PROBABILITY, each kind at most once, probabilities from 0 to 1.\n"
    "        Kinds: drop (no reply), corrupt (one byte altered), delay (held back;\n"
    "        delay=P:MS, default 200 ms), split (sent in 2-4 pieces; split=P:MS pause,\n"
    "        default 20 ms), garbage (1-8 random bytes in front), close (connection\n"
    "        closed instead; on the pseudo-terminal the reply is dropped and\n"
    "        half-read input forgotten).\n"
    "    --seed N\n"
    "        Seed of the fault generator (default 1): the same seed and the same\n"
    "        requests give the same faults.\n"
    "    --live\n"
    "        Change some values by themselves: DM0 counts every 100 ms, DM1 follows a\n"
    "        sine between 0 and 1000 over 10 s, timer T0 runs to its set value 50 and\n"
    "        closes its contact, R0.00 toggles every second.\n"
    "    --capture FILE.pcap\n"
    "        Record every frame of every link, requests and replies (faults\n"
    "        included), with its time, in a pcap file that Wireshark opens with\n"
    "        tools/wireshark/kv3000.lua. Each record is flushed as it is written.\n"
    "    --replay FILE.pcap\n"
    "        Answer each request with the reply recorded for the same request\n"
    "        bytes in a capture written by --capture (by kv3000-host or\n"
    "        kv3000-sim), occurrence by occurrence in recorded order, faults and\n"
    "        missing replies included. A request the capture does not hold, or\n"
    "        holds fewer times, is answered from memory; writes change memory\n"
    "        either way. 'stats' then adds 'replay replayed N from-memory M'.\n"
    "    --help\n"
    "        Print this text.\n"
    "\n"
    "CONSOLE\n"
    "    get ADDR[:N]        print N units from ADDR, one line each: 'DM100 1234',\n"
    "                        'R5.03 1', 'TC5 100000', 'B3FF 1'\n"
    "    set ADDR VALUE...   set consecutive units (decimal, negative or 0x hex)\n"
    "    stats               print the request and fault counters\n"
    "    help                list the commands\n"
    "    quit                stop\n"
    "    ADDR is a register name and an address in its own notation: DM100, R5.03,\n"
    "    B3FF (hexadecimal), W1F, MR_bit10.05, DM_bit100.15, T5 (contact), TC5\n"
    "    (current value), TS5 (set value), CC5, CS5, Z3, TRM0. Mistakes print one\n"
    "    line starting with 'error:'.\n"
    "\n"
    "EXAMPLES\n"
    "    kv3000-sim --listen 127.0.0.1:0\n"
    "    kv3000-sim --pty --faults drop=0.01,delay=0.05:300 --seed 7\n"
    "    sleep infinity | kv3000-sim --live          (keeps running without a console)\n"
    "    printf 'set DM100 1234\\nget DM100:3\\n' | kv3000-sim\n"
    "    kv3000-sim --listen 127.0.0.1:8000 --replay field.pcap --capture lab.pcap\n"
    "\n"
    "EXIT STATUS\n"
    "    0 stopped; 1 cannot listen or open the pseudo-terminal; 2 a usage error, or a\n"
    "    capture that cannot be written or replayed (reported before listening).\n";

int gSignalPipe[2] = {-1, -1};

void onSignal(int) {
    const int saved = errno;
    const char b = 1;
    if (::write(gSignalPipe[1], &b, 1) < 0) {
    }
    errno = saved;
}

bool splitHostPort(const std::string& text, std::string& host, uint16_t& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string p = text.substr(colon + 1);
    if (host.empty() || p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long v = std::strtoul(p.c_str(), nullptr, 10);
    if (v > 65535) return false;
    port = static_cast<uint16_t>(v);
    return true;
}

// A capture file that cannot be read or written: refused before anything is served.
int fileError(const std::string& what) {
    std::fprintf(stderr, "kv3000-sim: %s\n", what.c_str());
    return 2;
}

int usageError(const std::string& what) {
    std::fprintf(stderr, "kv3000-sim: %s\nTry 'kv3000-sim --help'.\n", what.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    uint16_t port = 8000;
    bool pty = false;
    kvsim::Options options;
    std::string capturePath;
    std::string replayPath;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        const size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        }
        auto needValue = [&]() -> bool {
            if (hasValue) return true;
            if (i + 1 >= argc) return false;
            value = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (arg == "--listen") {
            if (!needValue()) return usageError("--listen needs HOST:PORT");
            if (!splitHostPort(value, host, port))
                return usageError("bad --listen '" + value + "' (HOST:PORT)");
        } else if (arg == "--pty" && !hasValue) {
            pty = true;
        } else if (arg == "--live" && !hasValue) {
            options.live = true;
        } else if (arg == "--faults") {
            if (!needValue() || value.empty()) return usageError("--faults needs a LIST");
            std::string why;
            if (!kvsim::parseFaultSpec(value, options.faults, &why))
                return usageError("bad --faults: " + why);
        } else if (arg == "--seed") {
            if (!needValue()) return usageError("--seed needs a number");
            char* end = nullptr;
            errno = 0;
            const unsigned long long v = std::strtoull(value.c_str(), &end, 10);
            if (value.empty() || value[0] == '-' || errno != 0 || *end != '\0' || v > 0xFFFFFFFFull)
                return usageError("bad --seed '" + value + "'");
            options.seed = static_cast<uint32_t>(v);
        } else if (arg == "--capture") {
            if (!needValue() || value.empty()) return usageError("--capture needs a FILE");
            capturePath = value;
        } else if (arg == "--replay") {
            if (!needValue() || value.empty()) return usageError("--replay needs a FILE");
            replayPath = value;
        } else {
            return usageError("unknown option '" + std::string(argv[i]) + "'");
        }
    }

    // Both files are dealt with before anything is served; the replay is read
    // first, so that the same file may be replayed and then written anew.
    if (!replayPath.empty()) {
        kvcapture::Capture recorded;
        std::string why;
        if (!kvcapture::readCapture(replayPath, recorded, &why)) return fileError(why);
        if (!recorded.warning.empty())
            std::fprintf(stderr, "kv3000-sim: warning: %s\n", recorded.warning.c_str());
        options.replay = std::make_shared<kvsim::Replay>(recorded);
        std::fprintf(stderr, "kv3000-sim: replaying %s: %zu recorded replies\n", replayPath.c_str(),
                     options.replay->recordedExchanges());
    }
    if (!capturePath.empty()) {
        options.capture = std::make_shared<kvcapture::Writer>();
        std::string why;
        if (!options.capture->open(capturePath, &why)) return fileError(why);
    }

    if (pipe(gSignalPipe) != 0) {
        std::perror("kv3000-sim: pipe");
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    kvsim::Simulator sim(options);
    std::string why;
    if (!sim.startTcp(host, port, &why)) {
        std::fprintf(stderr, "kv3000-sim: %s\n", why.c_str());
        return 1;
    }
    const std::string shown = sim.host().find(':') != std::string::npos ? "[" + sim.host() + "]" : sim.host();
    std::printf("listening on %s:%u\n", shown.c_str(), static_cast<unsigned>(sim.port()));
    if (pty) {
        if (!sim.startPty(&why)) {
            std::fprintf(stderr, "kv3000-sim: %s\n", why.c_str());
            return 1;
        }
        std::printf("serial on %s\n", sim.ptyPath().c_str());
    }
    std::fflush(stdout);

    kvsim::Console console(sim.memory(), [&sim] { return sim.stats(); });
    std::string pending;
    bool quit = false;
    bool inputOpen = true;
    bool skipping = false;
    while (!quit && inputOpen) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {gSignalPipe[0], POLLIN, 0}};
        const int rc = ::poll(fds, 2, -1);
        if (rc < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents & POLLIN) break;
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char buf[4096];
        const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            inputOpen = false;
        } else {
            pending.append(buf, static_cast<size_t>(n));
        }
        size_t nl;
        while (!quit && (nl = pending.find('\n')) != std::string::npos) {
            const std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            if (skipping) {
                skipping = false;
                continue;
            }
            std::fputs(console.execute(line, &quit).c_str(), stdout);
        }
        if (!inputOpen && !quit && !skipping && !pending.empty())
            std::fputs(console.execute(pending, &quit).c_str(), stdout);
        // A line that keeps growing without an end is not a command: it is
        // dropped up to its newline.
        if (pending.size() > 4096) {
            if (!skipping) std::fputs("error: line too long\n", stdout);
            pending.clear();
            skipping = true;
        }
        std::fflush(stdout);
    }

    sim.stop();
    std::fputs(kvsim::formatStats(sim.stats()).c_str(), stdout);
    std::fflush(stdout);
    return 0;
}
