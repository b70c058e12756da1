// The simulator: core, console and fault lists as scenarios (sim/*.txt); memory, areas, faults, stream
// parser; its links (TCP, pseudo-terminal, misbehaving clients, wire faults); captures; kv3000-sim.
#include "capture_file.h"
#include "kv3000_sim.h"
#include "scenario.h"

#include <pcap/pcap.h>
#include <QProcess>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <regex>
#include <thread>
#include <utility>

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

Bytes hx(const std::string& text) {
    return bytesOf(split(text));
}
// 06 01 00 FF L <command> check 04
Bytes request(const Bytes& command) {
    Bytes f{0x06, 0x01, 0x00, 0xFF, uint8_t(command.size())};
    f.insert(f.end(), command.begin(), command.end());
    f.push_back(uint8_t(kvwire::checkSum(f.data() + 3, int(f.size()) - 3)));
    f.push_back(kvwire::EOT);
    return f;
}
std::string answerText(const Bytes& r) {
    if (r.empty()) return "-";
    const bool good = r.size() >= 6 && Bytes(r.begin(), r.begin() + 4) == Bytes{0x06, 0x01, 0x00, 0xFF} &&
                      r.back() == kvwire::EOT &&
                      r[r.size() - 2] == uint8_t(kvwire::checkSum(r.data() + 3, int(r.size()) - 5));
    return good ? hexOf(r.data() + 4, long(r.size()) - 6) : "BAD " + hexOf(r.data(), long(r.size()));
}
Bytes request(const std::string& command) {
    return request(hx(command));
}
// A reply the host takes: its size, and a whole envelope (nothing when the size is 0).
bool good(const Bytes& r, size_t size) {
    return r.size() == size && answerText(r).rfind("BAD", 0) != 0;
}
Bytes& put(Bytes& b, uint32_t value, int size) {  // high byte first
    while (size-- > 0) b.push_back(uint8_t(value >> (8 * size)));
    return b;
}
Bytes answer(const Bytes& req) {
    return kvsim::answer(controller(), req.data(), req.size());
}

const bool verbs = [] {
    addVerb("ask", [](const Words& w) { return answerText(answer(request(bytesOf(w, 1)))); });
    addVerb("raw", [](const Words& w) { return answerText(answer(bytesOf(w, 1))); });
    addVerb("stream", [](const Words& w) {  // N BYTES, "|" a quiet spell
        kvsim::StreamParser parser;
        std::string out;
        for (size_t from = 2, to; from <= w.size(); from = to + 1) {
            to = std::find(w.begin() + long(from), w.end(), "|") - w.begin();
            const Bytes b = bytesOf(Words(w.begin() + long(from), w.begin() + long(to)));
            for (size_t i = 0, n = std::stoul(w[1]); i < b.size(); i += n)
                for (const Bytes& f : parser.feed(b.data() + i, std::min(n, b.size() - i)))
                    out += (out.empty() ? "" : " | ") + answerText(answer(f));
            if (to < w.size()) parser.expire();
        }
        return out + " / " + std::to_string(parser.acks()) + " " + std::to_string(parser.garbageBytes()) +
               " " + std::to_string(parser.abandoned()) + " " + std::to_string(parser.pending());
    });
    addVerb("address", [](const Words& w) {
        std::string why;
        const auto u = kvsim::parseUnit(w.size() > 1 && w[1] != "\"\"" ? w[1] : "", &why);
        if (!u) return std::string(why.empty() ? "error without a reason" : "error");
        return std::to_string(u->address) + " " + kvsim::formatAddress(*u->reg, u->address);
    });
    addVerb("console", [](const Words& w) {
        static kvsim::Console console(controller(), {});
        std::string line, out;
        for (size_t i = 1; i < w.size(); ++i) line += w[i] + " ";
        bool quit = false;
        for (char c : console.execute(line, &quit)) out += c == '\n' ? std::string(" / ") : std::string(1, c);
        return (out.size() > 3 ? out.substr(0, out.size() - 3) : out) + (quit ? "quit" : "");
    });
    addVerb("faults", [](const Words& w) {
        kvsim::FaultSpec s;
        s.probability[0] = 0.25;
        std::string why, out;
        if (!kvsim::parseFaultSpec(w[1] == "\"\"" ? "" : w[1], s, &why))
            return std::string(why.empty() || s.probability[0] != 0.25 ? "error, or the old list changed"
                                                                       : "error");
        char text[32];
        for (double p : s.probability) std::snprintf(text, sizeof text, "%g ", p), out += text;
        return out + std::to_string(s.delayMs) + " " + std::to_string(s.splitPauseMs);
    });
    return true;
}();

// Every register's memory holds its range and no more. Every area answers reads of its first and
// last unit and of up to 1024 units, takes word writes where it has words, refuses what runs past.
TEST(Answers, EveryAreaAcrossItsRange) {
    resetRuntime();
    for (const kvsim::RegInfo& r : kvsim::registers()) {
        kvsim::Memory mem;
        EXPECT_TRUE(mem.set(r.name, r.max, 1) && mem.get(r.name, r.max) == 1u) << r.name;
        EXPECT_FALSE(mem.set(r.name, r.max + 1, 1) || mem.get(r.name, r.max + 1).has_value()) << r.name;
        const kvreg::Kind kind = r.traits.kind;
        if (kind == kvreg::Kind::BitInWord || kind == kvreg::Kind::Contact || r.name == "TS" ||
            r.name == "CS")
            continue;
        SCOPED_TRACE(r.name);
        const uint32_t step = r.traits.relayWord ? 16 : 1, units = kind == kvreg::Kind::RelayBit ? 16 : 1;
        const size_t width = kind == kvreg::Kind::RelayBit ? 2 : r.traits.replyBytes();
        auto read = [&](uint32_t count, uint32_t start) {
            Bytes command{0x1E, 0, 0, r.area(), 0, 0};
            return answer(request(put(put(command, count, 2), start, 4)));
        };
        const uint32_t last = (r.max + 1) / units - 1;  // in frame units: words of bits, or values
        for (uint32_t unit : {0u, last}) {
            EXPECT_EQ(read(1, unit * step * units).size(), 11 + width) << unit;
            if (kind != kvreg::Kind::Word && kind != kvreg::Kind::DWord) continue;
            const uint32_t value = width == 4 ? 0x89ABCDEFu : 0xC0DEu;
            Bytes write{0x1E, 0x01, 0, r.area(), 0, 0, 0, 1};
            EXPECT_EQ(answerText(answer(request(put(put(write, unit * step, 4), value, int(width))))),
                      "1E 01 " + hexOf(&write[3], 1) + " 00");
            EXPECT_EQ(controller().get(r.name, unit), value);
        }
        EXPECT_EQ(answerText(read(1, (last + 1) * step * units)).substr(0, 2), "15");
        EXPECT_EQ(answerText(read(2, last * step * units)).substr(0, 2), "15");
        EXPECT_TRUE(last < 1023 || read(1024, 0).size() == 11 + 1024 * width);
    }
}

const Bytes kReadDM0x2 = request("1E 00 00 06 00 00 00 02 00 00 00 00");
kvsim::FaultSpec only(kvsim::Fault f, double p) {
    kvsim::FaultSpec s;
    s.probability[int(f)] = p;
    s.delayMs = 123, s.splitPauseMs = 9;
    return s;
}

// Whether a delivery of reply shows kind, and only it, as only() configures it: one changed byte,
// a 123 ms hold, two to four pieces 9 ms apart, one to eight bytes in front, nothing, or a close.
bool shows(kvsim::Fault kind, const kvsim::Delivery& d, const Bytes& reply) {
    Bytes all;
    for (const auto& w : d.writes) all.insert(all.end(), w.bytes.begin(), w.bytes.end());
    const bool one = d.writes.size() == 1 && !d.close, prompt = one && d.writes[0].pauseMs == 0;
    int differ = 0;
    for (size_t i = 0; i < all.size() && all.size() == reply.size(); ++i) differ += all[i] != reply[i];
    bool pieces = d.writes.size() >= 2 && d.writes.size() <= 4 && d.writes[0].pauseMs == 0 && !d.close;
    for (size_t i = 1; i < d.writes.size(); ++i)
        pieces = pieces && d.writes[i].pauseMs == 9 && !d.writes[i].bytes.empty();
    // By kind: drop, corrupt, delay, split, garbage, close.
    const bool shown[kvsim::FAULT_KINDS] = {d.writes.empty() && !d.close,
                                            prompt && all.size() == reply.size() && differ == 1,
                                            one && d.writes[0].pauseMs == 123 && all == reply,
                                            pieces && all == reply,
                                            prompt && all.size() > reply.size() &&
                                                all.size() <= reply.size() + 8 &&
                                                Bytes(all.end() - long(reply.size()), all.end()) == reply,
                                            d.writes.empty() && d.close};
    return shown[int(kind)];
}

// 10 000 reads through a session; the deliveries and the counters.
kvsim::Stats runSession(const kvsim::FaultSpec& plan, uint32_t seed,
                        std::vector<kvsim::Delivery>* log = nullptr) {
    kvsim::Memory mem;
    kvsim::Counters counters;
    kvsim::FaultInjector faults(plan, seed);
    kvsim::Session session(mem, &faults, &counters);
    for (int i = 0; i < 10000; ++i) {
        kvsim::Delivery d = session.feed(kReadDM0x2.data(), kReadDM0x2.size());
        if (d.close) session.reset();
        if (log) log->push_back(std::move(d));
    }
    kvsim::Stats s = counters.snapshot();
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) s.faults[k] = faults.count(kvsim::Fault(k));
    return s;
}
// Within five standard deviations of n draws at probability p.
void expectNear(uint64_t got, double n, double p, const char* what) {
    EXPECT_NEAR(double(got), n * p, 5 * std::sqrt(n * p * (1 - p)) + 1) << what;
}

TEST(Faults, EachKindAloneAndTogether) {
    kvsim::Memory zeros;
    const Bytes reply = kvsim::answer(zeros, kReadDM0x2.data(), kReadDM0x2.size());
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        const auto kind = kvsim::Fault(k);
        SCOPED_TRACE(kvsim::faultName(kind));
        std::vector<kvsim::Delivery> log;
        const kvsim::Stats s = runSession(only(kind, 0.1), 11, &log);
        EXPECT_EQ(std::to_string(s.requests) + " " + std::to_string(s.reads), "10000 10000");
        expectNear(s.faults[k], 10000, 0.1, "counter");
        for (int other = 0; other < kvsim::FAULT_KINDS; ++other) EXPECT_TRUE(other == k || !s.faults[other]);
        uint64_t seen = 0;
        for (const auto& d : log) seen += shows(kind, d, reply);
        EXPECT_EQ(seen, s.faults[k]);
    }
    kvsim::FaultInjector none(kvsim::FaultSpec(), 1);
    for (int i = 0; i < 100; ++i) {
        const kvsim::Delivery d = none.apply(reply);
        EXPECT_TRUE(d.writes.size() == 1 && d.writes[0].pauseMs == 0 && d.writes[0].bytes == reply &&
                    !d.close);
    }
    EXPECT_TRUE(none.apply({}).writes.empty());
    // All kinds together keep their order; a seed repeats a run.
    kvsim::FaultSpec plan;
    for (double& p : plan.probability) p = 0.05;
    const kvsim::Stats s = runSession(plan, 99);
    expectNear(s.faults[int(kvsim::Fault::Close)], 10000, 0.05, "close");
    expectNear(s.faults[int(kvsim::Fault::Drop)], 9500, 0.05, "drop, when not closed");
    for (kvsim::Fault f :
         {kvsim::Fault::Corrupt, kvsim::Fault::Delay, kvsim::Fault::Split, kvsim::Fault::Garbage})
        expectNear(s.faults[int(f)], 9025, 0.05, kvsim::faultName(f));
    EXPECT_NE(kvsim::formatStats(s).find("requests 10000 "), std::string::npos);
    for (double& p : plan.probability) p = 0.2;
    auto trace = [&](uint32_t seed) {
        std::vector<kvsim::Delivery> log;
        runSession(plan, seed, &log);
        std::string t;
        for (const auto& d : log) {
            t += d.close ? "C" : "|";
            for (const auto& w : d.writes)
                t += std::to_string(w.pauseMs) + ":" + std::string(w.bytes.begin(), w.bytes.end());
        }
        return t;
    };
    EXPECT_TRUE(trace(1234) == trace(1234));
    EXPECT_FALSE(trace(1234) == trace(4321));
}

// A megabyte of random bytes, and noise of the bytes that matter to the framing: never more than
// one frame's worth kept, and the next good request found.
TEST(Stream, NoiseNeverStalls) {
    resetRuntime();
    controller().set("DM", 4321, 0xCAFE);
    std::mt19937 rng(42);
    const uint8_t alphabet[] = {0x06, 0x01, 0x00, 0xFF, 0x04, 0x0C, 0x1E, 0x02};
    for (bool frameLike : {false, true}) {
        Bytes noise(frameLike ? 200000 : 1 << 20);
        for (auto& b : noise) b = frameLike ? alphabet[rng() % sizeof alphabet] : uint8_t(rng());
        kvsim::StreamParser parser;
        for (size_t i = 0; i < noise.size(); i += 1000) {
            for (const auto& f : parser.feed(noise.data() + i, std::min<size_t>(1000, noise.size() - i)))
                answer(f);
            ASSERT_LE(parser.pending(), 261u);
        }
        parser.expire();
        const Bytes req = request("1E 00 00 06 00 00 00 01 00 00 10 E1");
        const auto found = parser.feed(req.data(), req.size());
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(answerText(answer(found[0])), "1E 00 06 00 01 CA FE");
    }
}

const Bytes kHandshake1 = hx("01 00 FF 02 07 01 F7 04");
const std::string kReadDM0 = "1E 00 00 06 00 00 00 01 00 00 00 00",  // one word, 13-byte reply
    kWriteDM0 = "1E 01 00 06 00 00 00 01 00 00 00 00 00 0";

// Up to n bytes from fd before the deadline or the other end's close.
Bytes readFd(int fd, size_t n, int timeoutMs = 2000, int* reads = nullptr, bool* closed = nullptr) {
    Bytes out;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (uint8_t buf[4096]; out.size() < n; reads && ++*reads) {
        pollfd p{fd, POLLIN, 0};
        const auto left = (deadline - Clock::now()) / std::chrono::milliseconds(1);
        if (left <= 0 || ::poll(&p, 1, int(left)) <= 0) break;
        const ssize_t got = ::read(fd, buf, std::min(sizeof buf, n - out.size()));
        if (got <= 0) return closed && (*closed = true), out;
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

struct Client {
    explicit Client(uint16_t port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET, a.sin_port = htons(port), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    ~Client() { ::close(fd); }
    Bytes transact(const Bytes& req, size_t replySize) {
        return writeAll(fd, req) ? readFd(fd, replySize) : Bytes();
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
        const std::string bytes = step.substr(0, step.find('/'));
        const size_t size = std::stoul(step.substr(step.find('/') + 1));
        EXPECT_TRUE(good(c.transact(bytes[0] == '>' ? request(bytes.substr(1)) : hx(bytes), size), size))
            << step;
    }
    EXPECT_EQ(sim.memory().get("DM", 101), 0x5678u);
    // How many acknowledges count as lone ones (the stream quiet behind them) depends on the load.
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
    for (char i = '0'; i <= '9'; ++i)
        ASSERT_TRUE(good(Client(sim.port()).transact(request(kWriteDM0 + i), 10), 10));
    EXPECT_EQ(sim.memory().get("DM", 0), 9u);
    std::vector<std::unique_ptr<Client>> many;
    for (int i = 0; i < 5; ++i) many.push_back(std::make_unique<Client>(sim.port()));
    for (int round = 0; round < 3; ++round) {
        for (auto& c : many) ASSERT_TRUE(writeAll(c->fd, request(kReadDM0)));
        for (auto& c : many) EXPECT_TRUE(good(readFd(c->fd, 13), 13));
    }
    std::mt19937 rng(3);
    Bytes noise(1 << 20);
    for (auto& b : noise) b = uint8_t(rng());
    Client(sim.port()).transact(noise, 0);  // a megabyte of noise, then gone without reading
    // A half frame dropped after the quiet spell, and one followed at once by the next request.
    Client c(sim.port());
    ASSERT_TRUE(writeAll(c.fd, hx("06 01 00 FF 0C 1E 00 00 06")));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_TRUE(good(c.transact(request(kReadDM0), 13), 13));
    ASSERT_TRUE(writeAll(c.fd, hx("06 01 00 FF 70 1E 01 00 06 00 00 00 32 00 00 00 00 00 01 00 01")));
    EXPECT_TRUE(good(c.transact(request(kReadDM0), 13), 13));
    Client(sim.port()).transact(request("1E 00 00 06 00 00 00 64 00 00 00 00"), 0);  // gone before the answer
    const Bytes r = Client(sim.port()).transact(request(kReadDM0), 13);
    EXPECT_TRUE(good(r, 13));
    EXPECT_EQ(r[10], 9);
    EXPECT_GT(sim.stats().garbageBytes, 0u);
}

TEST(Links, FaultsOnTheWire) {
    const Bytes req = request("1E 00 00 06 00 00 00 08 00 00 00 00");
    kvsim::Memory zeros;
    const Bytes clean = kvsim::answer(zeros, req.data(), req.size());  // 27 bytes
    for (int k = 0; k < kvsim::FAULT_KINDS; ++k) {
        SCOPED_TRACE(kvsim::faultName(kvsim::Fault(k)));
        kvsim::Options opt;
        opt.faults.probability[k] = 1.0;
        opt.faults.delayMs = 120, opt.faults.splitPauseMs = 30;
        kvsim::Simulator sim(opt);
        ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
        Client c(sim.port());
        ASSERT_TRUE(writeAll(c.fd, req));
        int reads = 0;
        bool closed = false;
        const auto t0 = Clock::now();
        const bool drop = k == int(kvsim::Fault::Drop), garbage = k == int(kvsim::Fault::Garbage);
        const Bytes got = readFd(c.fd, garbage ? 35 : 27, drop || garbage ? 300 : 1000, &reads, &closed);
        const auto ms = (Clock::now() - t0) / std::chrono::milliseconds(1);
        // By kind: drop, corrupt, delay, split, garbage, close.
        const bool shown[kvsim::FAULT_KINDS] = {got.empty() && !closed,
                                                got.size() == 27 && got != clean,
                                                got == clean && ms >= 110,
                                                got == clean && reads >= 2 && ms >= 25,
                                                got.size() > 27 && Bytes(got.end() - 27, got.end()) == clean,
                                                got.empty() && closed};
        EXPECT_TRUE(shown[k]);
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
        const int fd = ::open(sim.ptyPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios tio{};
        ASSERT_EQ(tcgetattr(fd, &tio), 0);
        cfmakeraw(&tio), tcsetattr(fd, TCSANOW, &tio);
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
struct TempFile {  // and a capture w written to it
    std::string path = "/tmp/kv3000-capture-XXXXXX";
    kvcapture::Writer w;
    TempFile() { ::close(mkstemp(path.data())); }
    ~TempFile() { std::remove(path.c_str()); }
};
const Bytes kAck{0x06}, kRead = request("1E 00 00 06 00 00 00 01 00 00 00 64");  // DM100 x1
std::string hex(const Bytes& b) {
    return hexOf(b.data(), long(b.size()));
}
std::string exchanges(const std::string& path, std::string* warning = nullptr) {
    kvcapture::Capture c;
    std::string why, out;
    if (!kvcapture::readCapture(path, c, &why)) return c.exchanges.empty() ? why : "kept exchanges";
    for (const auto& e : c.exchanges)
        out += std::to_string(e.packet) + ":" + hex(e.request) +
               (e.answered ? "/" + std::to_string(e.replyPacket) + ":" + hex(e.reply) : "") + " | ";
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
    ASSERT_TRUE(file.w.open(file.path, nullptr));
    const auto t = std::chrono::system_clock::now();
    for (const auto& [dir, b] : std::vector<std::pair<int, Bytes>>{
             {0, kAck}, {0, kRead}, {1, hx("06 07")}, {0, kRead}, {1, {}}, {0, kRead}})
        file.w.write(dir ? kvcapture::TO_HOST : kvcapture::TO_CONTROLLER, b.empty() ? nullptr : b.data(),
                     b.size(), t);
    EXPECT_EQ(file.w.records(), 6u);
    const std::string r = hex(kRead);
    std::string warning = "x";
    EXPECT_EQ(exchanges(file.path, &warning),  // readable while still open
              "1:06 | 2:" + r + "/3:06 07 | 4:" + r + "/5: | 6:" + r + " | ");
    EXPECT_EQ(warning, "");
    file.w.close();
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
    }  // files that cannot be read or written: e2e_capture.sh
}

// A replay answers each occurrence in recorded order, then from memory (a write lands there even
// when its recorded reply refused it); a session records what went out, a dropped reply as nothing.
TEST(Capture, ReplayAndSessionsThatRecord) {
    const Bytes other = request("1E 00 00 06 00 00 00 01 00 00 00 C8"),
                write = request("1E 01 00 06 00 00 00 01 00 00 00 64 00 2A");
    const Bytes refused = kvsim::refusal(kvsim::REFUSE_RANGE);
    kvcapture::Capture c;
    c.exchanges = {{0, kAck, false, 0, {}}, {0, kRead, true, 0, {1}}, {0, other, true, 0, {9}},
                   {0, kRead, true, 0, {}}, {0, kRead, false, 0, {}}, {0, write, true, 0, refused}};
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
    ASSERT_TRUE(file.w.open(file.path, nullptr));
    kvsim::FaultInjector faults(only(kvsim::Fault::Drop, 1), 1);
    kvsim::Memory mem;
    kvsim::Counters counters;
    Bytes in = kAck;
    in.insert(in.end(), write.begin(), write.end());
    const kvsim::Delivery d =
        kvsim::Session(mem, nullptr, &counters, kvsim::Tap{&file.w, &replay}).feed(in.data(), in.size());
    ASSERT_EQ(d.writes.size(), 1u);
    EXPECT_EQ(d.writes[0].bytes, refused);
    EXPECT_EQ(mem.get("DM", 100), 42u);
    EXPECT_TRUE(kvsim::Session(mem, &faults, &counters, kvsim::Tap{&file.w, nullptr})
                    .feed(kRead.data(), kRead.size())
                    .writes.empty());
    EXPECT_EQ(counters.snapshot().acks, 1u);
    EXPECT_EQ(exchanges(file.path),
              "1:06 | 2:" + hex(write) + "/3:" + hex(refused) + " | 4:" + hex(kRead) + "/5: | ");
}

// The built simulator, its arguments separated by "|".
struct Process : QProcess {
    explicit Process(const QString& args) { start(KV3000_SIM_BINARY, args.split('|')), waitForStarted(); }
    std::string rest() { return waitForFinished(3000), readAllStandardOutput().toStdString(); }
    uint16_t port() {  // from its first line, "listening on 127.0.0.1:PORT"
        while (!canReadLine() && waitForReadyRead(3000)) continue;
        const std::string l = readLine().toStdString();
        return l.rfind("listening on 127.0.0.1:", 0) == 0 ? uint16_t(std::stoi(l.substr(23))) : 0;
    }
    int wait() {  // the exit status, -1 when it did not end in 3 s
        waitForFinished(3000);
        return state() == NotRunning && exitStatus() == NormalExit ? exitCode() : -1;
    }
};
// SIGINT, SIGTERM, "quit" and the end of its input stop it, each with its counters at the end; its
// help, and bad options refused with exit status 2.
TEST(Binary, StopsHelpsAndRefusesBadOptions) {
    for (const char* how : {"SIGINT", "SIGTERM", "quit", "end"}) {
        Process p("--listen=127.0.0.1:0|--faults|delay=0.5:10|--seed|3|--live");
        const uint16_t port = p.port();
        ASSERT_NE(port, 0);
        EXPECT_TRUE(good(Client(port).transact(kHandshake1, 9), 9));
        if (how[0] == 'S') kill(pid_t(p.processId()), how[4] == 'N' ? SIGINT : SIGTERM);
        if (how[0] == 'q') p.write("quit\n");
        if (how[0] == 'e') p.closeWriteChannel();
        EXPECT_NE(p.rest().find("requests 1 handshakes 1 reads 0 "), std::string::npos) << how;
        EXPECT_EQ(p.wait(), 0) << how;
    }
    Process help("--help");
    const std::string out = help.rest();
    EXPECT_EQ(help.wait(), 0);
    for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "CONSOLE", "EXAMPLES",
                                "--listen", "--pty", "--faults", "--seed", "--live"})
        EXPECT_NE(out.find(section), std::string::npos) << section;
    for (const char* args : {"--bogus", "--listen", "--listen|127.0.0.1", "--listen|127.0.0.1:70000",
                             "--faults|jam=1", "--faults|", "--seed|x"}) {
        Process p(args);
        EXPECT_EQ(p.rest(), "");
        EXPECT_EQ(p.wait(), 2) << args;
    }
}

}  // namespace
