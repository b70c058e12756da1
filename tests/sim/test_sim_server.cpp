// The simulator on its own thread: a scripted host over TCP and over the
// pseudo-terminal, clients that misbehave, and faults seen on the wire.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <fcntl.h>
#include <termios.h>

#include <random>
#include <thread>

#include <gtest/gtest.h>

using namespace simtest;
using Clock = std::chrono::steady_clock;

namespace {

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// The handshake as the host runs it: every acknowledge is a write of its
// own that gets no answer.
void handshake(Client& c) {
    ASSERT_TRUE(c.send(kAck));
    EXPECT_TRUE(goodReply(c.transact(kHandshake1, 9), 9));
    ASSERT_TRUE(c.send(kAck));
    EXPECT_TRUE(goodReply(c.transact(kHandshake2, 10), 10));
    ASSERT_TRUE(c.send(kAck));
}

TEST(Server, ScriptedHostOverTcp) {
    kvsim::Simulator sim;
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    ASSERT_NE(sim.port(), 0);
    EXPECT_EQ(sim.host(), "127.0.0.1");
    sim.memory().set("DM", 100, 0x1234);
    sim.memory().set("T", 5, 1);
    sim.memory().set("TS", 5, 300);

    Client c(sim.port());
    ASSERT_TRUE(c.ok());
    handshake(c);

    Bytes r = c.transact(readRequest(6, 3, 100), 17);
    ASSERT_TRUE(goodReply(r, 17));
    EXPECT_EQ(be16(r, 9), 0x1234u);
    EXPECT_TRUE(goodReply(c.transact(wordWriteRequest(6, 100, {0x1234, 0x5678}, 2), 10), 10));
    EXPECT_TRUE(goodReply(c.transact(wordWriteRequest(48, 0, {0xDEADBEEF}, 4), 10), 10));
    EXPECT_TRUE(goodReply(c.transact(bitRequest(true, 0, 37), 9), 9));
    EXPECT_TRUE(goodReply(c.transact(bitRequest(true, 27, 0x10), 9), 9));
    EXPECT_TRUE(goodReply(c.transact(valueRequest(32, 5, 1000), 9), 9));
    r = c.transact(readRequest(2, 1, 5), 20);
    ASSERT_TRUE(goodReply(r, 20));
    EXPECT_EQ(r[9], 0x80);
    EXPECT_EQ(be32(r, 10), 1000u);
    EXPECT_EQ(be32(r, 14), 300u);
    r = c.transact(readRequest(0, 1, 32), 13);
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 0x20u);
    EXPECT_TRUE(isRefusal(c.transact(readRequest(99, 1, 0), 8)));

    EXPECT_EQ(sim.memory().get("DM", 101), 0x5678u);
    EXPECT_EQ(sim.memory().get("Z", 0), 0xDEADBEEFu);
    EXPECT_EQ(sim.memory().get("R", 37), 1u);
    EXPECT_EQ(sim.memory().get("B", 0x10), 1u);
    EXPECT_EQ(sim.memory().get("TC", 5), 1000u);

    const kvsim::Stats s = sim.stats();
    EXPECT_EQ(s.connections, 1u);
    EXPECT_EQ(s.handshakes, 2u);
    EXPECT_EQ(s.reads, 3u);
    EXPECT_EQ(s.wordWrites, 2u);
    EXPECT_EQ(s.bitWrites, 2u);
    EXPECT_EQ(s.valueWrites, 1u);
    EXPECT_EQ(s.refused, 1u);
    EXPECT_EQ(s.requests, 11u);
    sim.stop();
    sim.stop();
    EXPECT_FALSE(sim.running());
}

TEST(Server, ClientsInTurnAndAtOnce) {
    kvsim::Simulator sim;
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    for (int i = 0; i < 40; ++i) {
        Client gone(sim.port());  // connects and leaves at once
        ASSERT_TRUE(gone.ok());
    }
    for (int i = 0; i < 10; ++i) {
        Client c(sim.port());
        ASSERT_TRUE(goodReply(c.transact(wordWriteRequest(6, 0, {static_cast<uint32_t>(i)}, 2), 10), 10));
    }
    EXPECT_EQ(sim.memory().get("DM", 0), 9u);

    std::vector<std::unique_ptr<Client>> many;
    for (int i = 0; i < 5; ++i) many.push_back(std::make_unique<Client>(sim.port()));
    for (int round = 0; round < 3; ++round) {
        for (size_t i = 0; i < many.size(); ++i) ASSERT_TRUE(many[i]->send(readRequest(6, 1, 0)));
        for (size_t i = 0; i < many.size(); ++i) EXPECT_TRUE(goodReply(many[i]->receive(13), 13));
    }
}

TEST(Server, SurvivesNoiseHalfFramesAndAbruptClients) {
    kvsim::Options opt;
    opt.frameTimeoutMs = 50;
    kvsim::Simulator sim(opt);
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    sim.memory().set("DM", 7, 77);
    {
        // A megabyte of noise, then leave without reading anything.
        Client c(sim.port());
        std::mt19937 rng(3);
        Bytes noise(1 << 20);
        for (auto& b : noise) b = static_cast<uint8_t>(rng());
        c.send(noise);
    }
    {
        // A half frame and nothing more: dropped after the quiet spell.
        Client c(sim.port());
        const Bytes req = readRequest(6, 1, 7);
        ASSERT_TRUE(c.send(Bytes(req.begin(), req.begin() + 9)));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        const Bytes r = c.transact(req, 13);
        ASSERT_TRUE(goodReply(r, 13));
        EXPECT_EQ(be16(r, 9), 77u);
    }
    {
        // A half frame followed at once by the next request.
        Client c(sim.port());
        const Bytes big = wordWriteRequest(6, 0, std::vector<uint32_t>(50, 1), 2);
        ASSERT_TRUE(c.send(Bytes(big.begin(), big.begin() + 20)));
        EXPECT_TRUE(goodReply(c.transact(readRequest(6, 1, 7), 13), 13));
    }
    {
        // A request sent and the client gone before the answer.
        Client c(sim.port());
        c.send(readRequest(6, 100, 0));
    }
    Client c(sim.port());
    EXPECT_TRUE(goodReply(c.transact(readRequest(6, 1, 7), 13), 13));
    EXPECT_EQ(sim.memory().get("DM", 0), 0u);
    EXPECT_GT(sim.stats().garbageBytes, 0u);
}

TEST(Server, DropAndCloseOnTheWire) {
    kvsim::Options opt;
    opt.faults.probability[int(kvsim::Fault::Drop)] = 1.0;
    {
        kvsim::Simulator sim(opt);
        ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
        Client c(sim.port());
        EXPECT_TRUE(c.transact(readRequest(6, 1, 0), 13, 150).empty());
        EXPECT_EQ(sim.stats().faults[int(kvsim::Fault::Drop)], 1u);
    }
    kvsim::Options closing;
    closing.faults.probability[int(kvsim::Fault::Close)] = 1.0;
    kvsim::Simulator sim(closing);
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    Client c(sim.port());
    ASSERT_TRUE(c.send(readRequest(6, 1, 0)));
    bool closed = false;
    EXPECT_TRUE(c.receive(13, 1000, nullptr, &closed).empty());
    EXPECT_TRUE(closed);
    EXPECT_EQ(sim.stats().faults[int(kvsim::Fault::Close)], 1u);
}

TEST(Server, DelaySplitGarbageOnTheWire) {
    kvsim::Options opt;
    opt.faults.probability[int(kvsim::Fault::Delay)] = 1.0;
    opt.faults.delayMs = 120;
    kvsim::Simulator delayed(opt);
    ASSERT_TRUE(delayed.startTcp("127.0.0.1", 0));
    Client d(delayed.port());
    auto t0 = Clock::now();
    EXPECT_TRUE(goodReply(d.transact(readRequest(6, 1, 0), 13), 13));
    EXPECT_GE(msSince(t0), 110);

    kvsim::Options sopt;
    sopt.faults.probability[int(kvsim::Fault::Split)] = 1.0;
    sopt.faults.splitPauseMs = 30;
    kvsim::Simulator split(sopt);
    ASSERT_TRUE(split.startTcp("127.0.0.1", 0));
    Client s(split.port());
    ASSERT_TRUE(s.send(readRequest(6, 8, 0)));
    int reads = 0;
    t0 = Clock::now();
    EXPECT_TRUE(goodReply(s.receive(27, 2000, &reads), 27));
    EXPECT_GE(reads, 2);
    EXPECT_GE(msSince(t0), 25);

    kvsim::Options gopt;
    gopt.faults.probability[int(kvsim::Fault::Garbage)] = 1.0;
    kvsim::Simulator garbage(gopt);
    ASSERT_TRUE(garbage.startTcp("127.0.0.1", 0));
    Client g(garbage.port());
    ASSERT_TRUE(g.send(readRequest(6, 1, 0)));
    const Bytes got = g.receive(13 + 8, 300);
    ASSERT_GT(got.size(), 13u);
    EXPECT_TRUE(goodReply(Bytes(got.end() - 13, got.end()), 13));
}

TEST(Server, ScriptedHostOverThePseudoTerminal) {
    kvsim::Simulator sim;
    std::string why;
    ASSERT_TRUE(sim.startPty(&why)) << why;
    ASSERT_EQ(sim.ptyPath().rfind("/dev/", 0), 0u);
    sim.memory().set("DM", 10, 4242);

    const int fd = ::open(sim.ptyPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    termios tio{};
    ASSERT_EQ(tcgetattr(fd, &tio), 0);
    cfmakeraw(&tio);
    cfsetspeed(&tio, B9600);
    tio.c_cflag |= PARENB;
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &tio), 0);
    auto writeAll = [&](const Bytes& b) {
        return ::write(fd, b.data(), b.size()) == static_cast<ssize_t>(b.size());
    };
    auto readN = [&](size_t n) {
        Bytes out;
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        while (out.size() < n && Clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            uint8_t buf[256];
            const ssize_t got = ::read(fd, buf, std::min(sizeof buf, n - out.size()));
            if (got <= 0) break;
            out.insert(out.end(), buf, buf + got);
        }
        return out;
    };
    ASSERT_TRUE(writeAll(kAck));
    ASSERT_TRUE(writeAll(kHandshake1));
    EXPECT_TRUE(goodReply(readN(9), 9));
    ASSERT_TRUE(writeAll(kAck));
    ASSERT_TRUE(writeAll(kHandshake2));
    EXPECT_TRUE(goodReply(readN(10), 10));
    ASSERT_TRUE(writeAll(kAck));
    ASSERT_TRUE(writeAll(readRequest(6, 1, 10)));
    const Bytes r = readN(13);
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 4242u);
    ASSERT_TRUE(writeAll(bitRequest(true, 0, 5)));
    EXPECT_TRUE(goodReply(readN(9), 9));
    EXPECT_EQ(sim.memory().get("R", 5), 1u);
    ::close(fd);

    // The line outlives its host: a second one is served too.
    const int fd2 = ::open(sim.ptyPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd2, 0);
    const Bytes req = readRequest(6, 1, 10);
    ASSERT_EQ(::write(fd2, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    pollfd p{fd2, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 2000), 1);
    ::close(fd2);
}

TEST(Server, LiveValuesMove) {
    kvsim::Options opt;
    opt.live = true;
    kvsim::Simulator sim(opt);
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    Client c(sim.port());
    const Bytes r = c.transact(readRequest(6, 2, 0), 15);
    ASSERT_TRUE(goodReply(r, 15));
    EXPECT_GE(be16(r, 9), 2u);
    EXPECT_EQ(sim.memory().get("TS", 0), 50u);
    EXPECT_GT(sim.memory().get("TC", 0).value(), 0u);
}

TEST(Server, ListensOnlyWhereTold) {
    kvsim::Simulator sim;
    std::string why;
    EXPECT_FALSE(sim.startTcp("999.1.1.1", 0, &why));
    EXPECT_FALSE(why.empty());
    EXPECT_FALSE(sim.startTcp("some.name", 0, &why));  // names are not looked up
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    kvsim::Simulator second;
    EXPECT_FALSE(second.startTcp("127.0.0.1", sim.port(), &why));  // port taken
}

}  // namespace
