// The simulator on its links: a scripted host over TCP and the pseudo-terminal, clients that
// misbehave, faults on the wire, captures of the link and their replay, and the built kv3000-sim
// with its options, console and signals.
#include "capture_file.h"
#include "kv3000_sim.h"
#include "scenario.h"

#include <pcap/pcap.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <regex>
#include <sstream>
#include <thread>
#include <utility>

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

// Hex words; a request is its command bytes in the 06 01 00 FF L .. check 04 envelope.
Bytes hx(const std::string& text) {
    std::istringstream in(text);
    Words w;
    for (std::string t; in >> t;) w.push_back(t);
    return bytesOf(w, 0);
}
Bytes request(const std::string& command) {
    Bytes f = hx("06 01 00 FF 00 " + command);
    f[4] = uint8_t(f.size() - 5);
    f.push_back(uint8_t(kvwire::checkSum(f.data() + 3, int(f.size()) - 3)));
    f.push_back(kvwire::EOT);
    return f;
}
const Bytes kHandshake1 = hx("01 00 FF 02 07 01 F7 04");
const std::string kReadDM0 = "1E 00 00 06 00 00 00 01 00 00 00 00";  // one word, 13-byte reply

// A reply the host takes: its size, 06 first, 04 last, the check byte over 3 .. size-3.
bool good(const Bytes& r, size_t size) {
    return r.size() == size && size >= 6 && r[0] == 0x06 && r.back() == 0x04 &&
           r[size - 2] == uint8_t(kvwire::checkSum(r.data() + 3, int(size) - 5));
}
// Up to n bytes from fd before the deadline or the other end's close.
Bytes readFd(int fd, size_t n, int timeoutMs = 2000, int* reads = nullptr, bool* closed = nullptr) {
    Bytes out;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out.size() < n) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, int(left)) <= 0) break;
        uint8_t buf[4096];
        const ssize_t got = ::read(fd, buf, std::min(sizeof buf, n - out.size()));
        if (got <= 0) {
            if (closed) *closed = true;
            break;
        }
        if (reads) ++*reads;
        out.insert(out.end(), buf, buf + got);
    }
    return out;
}
bool writeAll(int fd, const Bytes& b) {
    for (size_t off = 0; off < b.size();) {
        const ssize_t n = ::write(fd, b.data() + off, b.size() - off);
        if (n <= 0) return false;
        off += size_t(n);
    }
    return true;
}
int openRawLine(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios tio{};
    if (fd >= 0 && tcgetattr(fd, &tio) == 0) cfmakeraw(&tio), tcsetattr(fd, TCSANOW, &tio);
    return fd;
}

struct Client {
    explicit Client(uint16_t port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET, a.sin_port = htons(port), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    ~Client() { ::close(fd); }
    Bytes transact(const Bytes& req, size_t replySize, int timeoutMs = 2000) {
        return writeAll(fd, req) ? readFd(fd, replySize, timeoutMs) : Bytes();
    }
    int fd;
};

// Each step "request bytes/reply size", ">" putting command bytes in the envelope; every acknowledge
// goes as a write of its own and gets no answer.
TEST(Links, ScriptedHostOverTcpAndTheStatsItLeaves) {
    kvsim::Simulator sim;
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    EXPECT_EQ(sim.host(), "127.0.0.1");
    Client c(sim.port());
    for (const std::string step :
         {"06/0", "01 00 FF 02 07 01 F7 04/9", "06/0", "01 00 FF 06 20 00 01 06 00 00 D4 04/10", "06/0",
          ">1E 00 00 06 00 00 00 03 00 00 00 64/17", ">1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78/10",
          ">32 00 01 00 00 25/9", ">18 00 01 20 00 05 00 00 03 E8/9",
          ">1E 00 00 63 00 00 00 01 00 00 00 00/8"}) {
        const std::string bytes = step.substr(0, step.find('/')), size = step.substr(step.find('/') + 1);
        const Bytes r = c.transact(bytes[0] == '>' ? request(bytes.substr(1)) : hx(bytes), std::stoul(size));
        EXPECT_TRUE(size == "0" ? r.empty() : good(r, std::stoul(size))) << step;
    }
    EXPECT_EQ(sim.memory().get("DM", 101), 0x5678u);
    // An acknowledge counts as a lone one when the stream went quiet behind it, before the next
    // request came: how many do depends on the machine's load.
    const std::string stats =
        std::regex_replace(kvsim::formatStats(sim.stats()), std::regex("acks [0-3] "), "");
    EXPECT_EQ(stats.substr(0, stats.find('\n')),
              "requests 7 handshakes 2 reads 1 word-writes 1 bit-writes 1 value-writes 1 refused 1 "
              "garbage-bytes 0 abandoned 0 connections 1");
    sim.stop();
    sim.stop();
    EXPECT_FALSE(sim.running());
}

TEST(Links, ClientsInTurnAtOnceAndMisbehaving) {
    kvsim::Options opt;
    opt.frameTimeoutMs = 50;
    kvsim::Simulator sim(opt);
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    for (int i = 0; i < 40; ++i) Client gone(sim.port());
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(
            good(Client(sim.port())
                     .transact(request("1E 01 00 06 00 00 00 01 00 00 00 00 00 0" + std::to_string(i)), 10),
                 10));
    EXPECT_EQ(sim.memory().get("DM", 0), 9u);
    std::vector<std::unique_ptr<Client>> many;
    for (int i = 0; i < 5; ++i) many.push_back(std::make_unique<Client>(sim.port()));
    for (int round = 0; round < 3; ++round) {
        for (auto& c : many) ASSERT_TRUE(writeAll(c->fd, request(kReadDM0)));
        for (auto& c : many) EXPECT_TRUE(good(readFd(c->fd, 13), 13));
    }
    {  // a megabyte of noise, then gone without reading
        Client c(sim.port());
        std::mt19937 rng(3);
        Bytes noise(1 << 20);
        for (auto& b : noise) b = uint8_t(rng());
        writeAll(c.fd, noise);
    }
    {  // a half frame dropped after the quiet spell, and one followed at once by the next request
        Client c(sim.port());
        ASSERT_TRUE(writeAll(c.fd, hx("06 01 00 FF 0C 1E 00 00 06")));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        EXPECT_TRUE(good(c.transact(request(kReadDM0), 13), 13));
        ASSERT_TRUE(writeAll(c.fd, hx("06 01 00 FF 70 1E 01 00 06 00 00 00 32 00 00 00 00 00 01 00 01")));
        EXPECT_TRUE(good(c.transact(request(kReadDM0), 13), 13));
    }
    Client(sim.port()).transact(request("1E 00 00 06 00 00 00 64 00 00 00 00"), 0);  // gone before the answer
    const Bytes r = Client(sim.port()).transact(request(kReadDM0), 13);
    EXPECT_TRUE(good(r, 13));
    EXPECT_EQ(r[10], 9);
    EXPECT_GT(sim.stats().garbageBytes, 0u);
}

long msSince(Clock::time_point t) {
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

TEST(Links, FaultsOnTheWire) {
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = kvsim::Fault(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        kvsim::Options opt;
        opt.faults.probability[k] = 1.0;
        opt.faults.delayMs = 120, opt.faults.splitPauseMs = 30;
        kvsim::Simulator sim(opt);
        ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
        Client c(sim.port());
        const Bytes req = request("1E 00 00 06 00 00 00 08 00 00 00 00");
        kvsim::Memory zeros;
        const Bytes clean = kvsim::answer(zeros, req.data(), req.size());  // 27 bytes
        ASSERT_TRUE(writeAll(c.fd, req));
        int reads = 0;
        bool closed = false;
        const auto t0 = Clock::now();
        const Bytes got =
            readFd(c.fd, kind == kvsim::Fault::Garbage ? 35 : 27,
                   kind == kvsim::Fault::Drop || kind == kvsim::Fault::Garbage ? 300 : 1000, &reads, &closed);
        const long ms = msSince(t0);
        const bool none = got.empty() && closed == (kind == kvsim::Fault::Close);
        const bool garbled = kind == kvsim::Fault::Corrupt
                                 ? got.size() == 27 && got != clean
                                 : got.size() > 27 && Bytes(got.end() - 27, got.end()) == clean;
        const bool late = got == clean && (kind == kvsim::Fault::Delay ? ms >= 110 : reads >= 2 && ms >= 25);
        EXPECT_TRUE(kind == kvsim::Fault::Drop || kind == kvsim::Fault::Close        ? none
                    : kind == kvsim::Fault::Corrupt || kind == kvsim::Fault::Garbage ? garbled
                                                                                     : late);
        EXPECT_EQ(sim.stats().faults[k], 1u);
    }
}

TEST(Links, PseudoTerminalLiveValuesAndWhereItListens) {
    kvsim::Options opt;
    opt.live = true;
    kvsim::Simulator sim(opt);
    std::string why;
    ASSERT_TRUE(sim.startPty(&why)) << why;
    ASSERT_EQ(sim.ptyPath().rfind("/dev/", 0), 0u);
    for (int line = 0; line < 2; ++line) {  // the line outlives its host
        const int fd = openRawLine(sim.ptyPath());
        ASSERT_GE(fd, 0);
        for (const Bytes& req : {Bytes{0x06}, kHandshake1}) ASSERT_TRUE(writeAll(fd, req));
        EXPECT_TRUE(good(readFd(fd, 9), 9));
        ASSERT_TRUE(writeAll(fd, request("32 00 01 00 00 05")));
        EXPECT_TRUE(good(readFd(fd, 9), 9));
        ::close(fd);
    }
    EXPECT_EQ(sim.memory().get("R", 5), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_GE(sim.memory().get("DM", 0).value(), 2u);
    EXPECT_EQ(sim.memory().get("TS", 0), 50u);
    EXPECT_FALSE(sim.startTcp("999.1.1.1", 0, &why) || why.empty());
    EXPECT_FALSE(sim.startTcp("some.name", 0, &why));  // names are not looked up
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    EXPECT_FALSE(kvsim::Simulator().startTcp("127.0.0.1", sim.port(), &why));  // port taken
}

// Captures: records of the link read back as exchanges, refused files with the reason, a replay.
struct TempFile {
    std::string path = "/tmp/kv3000-capture-XXXXXX";
    TempFile() { ::close(mkstemp(path.data())); }
    ~TempFile() { std::remove(path.c_str()); }
};
const Bytes kAck{0x06}, kRead = request("1E 00 00 06 00 00 00 01 00 00 00 64");  // DM100 x1
std::string exchanges(const std::string& path, std::string* warning = nullptr) {
    kvcapture::Capture c;
    std::string why, out;
    if (!kvcapture::readCapture(path, c, &why)) return c.exchanges.empty() ? why : "kept exchanges";
    for (const auto& e : c.exchanges)
        out += std::to_string(e.packet) + ":" + hexOf(e.request.data(), long(e.request.size())) +
               (e.answered
                    ? "/" + std::to_string(e.replyPacket) + ":" + hexOf(e.reply.data(), long(e.reply.size()))
                    : "") +
               " | ";
    if (warning) *warning = c.warning;
    return out;
}

TEST(Capture, AcknowledgesAsTheyCameAndRecordsPairedAndReadBack) {
    const Bytes bare(kRead.begin() + 1, kRead.end());
    const std::vector<std::pair<std::vector<Bytes>, std::vector<Bytes>>> cases = {
        {{kAck}, {kAck}},  // a 06 that nothing follows yet comes out at once
        {{hx("06 06"), bare}, {kAck, kAck, bare}},
        {{hx("06 06 01"), Bytes(kRead.begin() + 2, kRead.end())}, {kAck, kRead}},
        {{kAck, kHandshake1}, {kAck, kHandshake1}},
        {{hx("06 01 00"), Bytes(kRead.begin() + 3, kRead.end())}, {kRead}},
        {{hx("AA"), kRead}, {kRead}}};
    for (const auto& [pieces, frames] : cases) {
        kvsim::StreamParser parser(true);
        std::vector<Bytes> got;
        for (const Bytes& p : pieces)
            for (auto& f : parser.feed(p.data(), p.size())) got.push_back(f);
        EXPECT_EQ(got, frames);
        EXPECT_EQ(parser.acks(), 0u);  // counted by whoever answers them
    }
    TempFile file;
    kvcapture::Writer w;
    std::string why;
    ASSERT_TRUE(w.open(file.path, &why)) << why;
    const auto t = std::chrono::system_clock::now();
    for (const auto& [dir, b] : std::vector<std::pair<int, Bytes>>{
             {0, kAck}, {0, kRead}, {1, hx("06 07")}, {0, kRead}, {1, {}}, {0, kRead}})
        w.write(dir ? kvcapture::TO_HOST : kvcapture::TO_CONTROLLER, b.empty() ? nullptr : b.data(), b.size(),
                t);
    EXPECT_EQ(w.records(), 6u);
    const std::string r = hexOf(kRead.data(), long(kRead.size()));
    std::string warning = "x";
    EXPECT_EQ(exchanges(file.path, &warning),  // readable while still open
              "1:06 | 2:" + r + "/3:06 07 | 4:" + r + "/5: | 6:" + r + " | ");
    EXPECT_EQ(warning, "");
    w.close();
    std::filesystem::resize_file(file.path, std::filesystem::file_size(file.path) - 3);
    EXPECT_EQ(exchanges(file.path, &warning), "1:06 | 2:" + r + "/3:06 07 | 4:" + r + "/5: | ");
    EXPECT_NE(warning.find("ends inside record 6"), std::string::npos) << warning;
}

TEST(Capture, FilesThatAreNotCapturesOfTheLinkAreRefused) {
    const auto rec = [](uint8_t direction, Bytes b) { return b.insert(b.begin(), direction), b; };
    const std::vector<std::tuple<int, std::vector<Bytes>, std::string>> cases = {
        {DLT_EN10MB, {rec(0, kRead)}, "link type EN10MB is not a KV-3000 capture"},
        {kvcapture::LINK_TYPE, {rec(1, kAck)}, "record 1 is a reply with no unanswered request"},
        {kvcapture::LINK_TYPE, {rec(0, kRead), rec(1, {}), rec(1, {})}, "record 3 is a reply with no"},
        {kvcapture::LINK_TYPE, {rec(0, kRead), rec(2, {})}, "record 2 has direction byte 2"},
        {kvcapture::LINK_TYPE, {Bytes{}}, "record 1 is empty"},
        {kvcapture::LINK_TYPE, {rec(0, {})}, "record 1 is a request without bytes"}};
    for (const auto& [linkType, records, reason] : cases) {
        TempFile file;
        pcap_t* dead = pcap_open_dead(linkType, 65535);
        pcap_dumper_t* d = pcap_dump_open(dead, file.path.c_str());
        for (const Bytes& r : records) {
            pcap_pkthdr h{};
            h.caplen = h.len = bpf_u_int32(r.size());
            pcap_dump(reinterpret_cast<u_char*>(d), &h, r.data());
        }
        pcap_dump_close(d), pcap_close(dead);
        EXPECT_NE(exchanges(file.path).find(reason), std::string::npos) << reason;
    }
    EXPECT_NE(exchanges("/nonexistent/x.pcap").find("cannot read capture /nonexistent/x.pcap"),
              std::string::npos);
    std::string why;
    EXPECT_FALSE(kvcapture::Writer().open("/nonexistent/x.pcap", &why));
    EXPECT_NE(why.find("cannot write capture /nonexistent/x.pcap"), std::string::npos) << why;
}

// A replay answers each occurrence in recorded order, then from memory (a write lands there even
// when its recorded reply refused it); a session records what went out, a dropped reply as nothing.
TEST(Capture, ReplayAndSessionsThatRecord) {
    const Bytes other = request("1E 00 00 06 00 00 00 01 00 00 00 C8"),
                write = request("1E 01 00 06 00 00 00 01 00 00 00 64 00 2A");
    const Bytes refused = kvsim::refusal(kvsim::REFUSE_RANGE);
    kvcapture::Capture c;
    for (const auto& [req, answered, reply] :
         std::vector<std::tuple<Bytes, bool, Bytes>>{{kAck, false, {}},
                                                     {kRead, true, {1}},
                                                     {other, true, {9}},
                                                     {kRead, true, {}},
                                                     {kRead, false, {}},
                                                     {write, true, refused}})
        c.exchanges.push_back({0, req, answered, 0, reply});
    kvsim::Replay replay(c);
    EXPECT_EQ(replay.recordedExchanges(), 4u);
    Bytes reply{0xEE};
    EXPECT_TRUE(replay.next(Bytes(kRead.begin() + 1, kRead.end()), reply) &&
                reply == Bytes{1});  // without its 06
    EXPECT_TRUE(replay.next(kRead, reply) && reply.empty());
    EXPECT_FALSE(replay.next(kRead, reply));  // used up: from memory
    EXPECT_TRUE(replay.next(other, reply) && reply == Bytes{9});
    EXPECT_EQ(replay.replayed(), 3u);
    EXPECT_EQ(replay.fromMemory(), 1u);

    TempFile file;
    kvcapture::Writer w;
    std::string why;
    ASSERT_TRUE(w.open(file.path, &why)) << why;
    kvsim::FaultSpec dropAll;
    dropAll.probability[int(kvsim::Fault::Drop)] = 1;
    kvsim::FaultInjector faults(dropAll, 1);
    kvsim::Memory mem;
    kvsim::Counters counters;
    Bytes in = kAck;
    in.insert(in.end(), write.begin(), write.end());
    const kvsim::Delivery d =
        kvsim::Session(mem, nullptr, &counters, kvsim::Tap{&w, &replay}).feed(in.data(), in.size());
    ASSERT_EQ(d.writes.size(), 1u);
    EXPECT_EQ(d.writes[0].bytes, refused);
    EXPECT_EQ(mem.get("DM", 100), 42u);
    EXPECT_TRUE(kvsim::Session(mem, &faults, &counters, kvsim::Tap{&w, nullptr})
                    .feed(kRead.data(), kRead.size())
                    .writes.empty());
    EXPECT_EQ(counters.snapshot().acks, 1u);
    EXPECT_EQ(exchanges(file.path), "1:06 | 2:" + hexOf(write.data(), long(write.size())) +
                                        "/3:" + hexOf(refused.data(), long(refused.size())) +
                                        " | 4:" + hexOf(kRead.data(), long(kRead.size())) + "/5: | ");
}

// The built simulator with pipes on its stdin and stdout.
struct Process {
    explicit Process(std::vector<std::string> args) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        args.insert(args.begin(), KV3000_SIM_BINARY);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if ((pid = fork()) == 0) {
            dup2(in[0], STDIN_FILENO), dup2(out[1], STDOUT_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ::close(in[0]), ::close(out[1]);
        stdinFd = in[1], stdoutFd = out[0];
    }
    ~Process() {
        ::close(stdinFd), ::close(stdoutFd);
        if (pid > 0 && wait() < 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
    std::string line() {
        std::string l;
        for (Bytes b; (b = readFd(stdoutFd, 1, 3000)).size() == 1 && b[0] != '\n';) l += char(b[0]);
        return l;
    }
    std::string rest() {
        std::string all;
        for (Bytes b; !(b = readFd(stdoutFd, 4096, 3000)).empty();) all.append(b.begin(), b.end());
        return all;
    }
    uint16_t port() {
        const std::string l = line(), prefix = "listening on 127.0.0.1:";
        return l.rfind(prefix, 0) == 0 ? uint16_t(std::stoi(l.substr(prefix.size()))) : 0;
    }
    void write(const std::string& text) { EXPECT_TRUE(writeAll(stdinFd, Bytes(text.begin(), text.end()))); }
    // Exit status, -1 when it did not end in time.
    int wait() {
        for (int waited = 0; waited < 3000 && pid > 0; waited += 10) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    pid_t pid = -1;
    int stdinFd = -1, stdoutFd = -1;
};

// SIGINT, SIGTERM, "quit" and the end of its input stop it, each with its counters at the end.
TEST(Binary, StopsOnSignalsQuitAndTheEndOfItsInput) {
    for (const char* how : {"SIGINT", "SIGTERM", "quit", "end"}) {
        Process p({"--listen=127.0.0.1:0", "--faults", "delay=0.5:10", "--seed", "3", "--live"});
        const uint16_t port = p.port();
        ASSERT_NE(port, 0);
        EXPECT_TRUE(good(Client(port).transact(kHandshake1, 9), 9));
        if (how[0] == 'S') kill(p.pid, how[4] == 'N' ? SIGINT : SIGTERM);
        if (how[0] == 'q') p.write("quit\n");
        if (how[0] == 'e') ::close(std::exchange(p.stdinFd, -1));
        EXPECT_NE(p.rest().find("requests 1 handshakes 1 reads 0 "), std::string::npos) << how;
        EXPECT_EQ(p.wait(), 0) << how;
    }
}

TEST(Binary, HelpAndBadOptions) {
    Process help({"--help"});
    const std::string out = help.rest();
    EXPECT_EQ(help.wait(), 0);
    for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "CONSOLE", "EXAMPLES",
                                "--listen", "--pty", "--faults", "--seed", "--live"})
        EXPECT_NE(out.find(section), std::string::npos) << section;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--bogus"},
                                               {"--listen"},
                                               {"--listen", "127.0.0.1"},
                                               {"--listen", "127.0.0.1:70000"},
                                               {"--faults", "jam=1"},
                                               {"--faults", ""},
                                               {"--seed", "x"}}) {
        Process p(args);
        EXPECT_EQ(p.rest(), "");
        EXPECT_EQ(p.wait(), 2) << args[0];
    }
}

}  // namespace
