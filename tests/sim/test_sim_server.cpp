// The simulator on its own thread: a scripted host over TCP and over the
// pseudo-terminal, clients that misbehave, and faults seen on the wire.
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <memory>
#include <random>
#include <thread>

#include <gtest/gtest.h>

using namespace simtest;
using Clock = std::chrono::steady_clock;

namespace {

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

TEST(Server, ScriptedHostOverTcp) {
    kvsim::Simulator sim;
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0));
    ASSERT_NE(sim.port(), 0);
    EXPECT_EQ(sim.host(), "127.0.0.1");
    sim.memory().set("DM", 100, 0x1234);
    Client c(sim.port());
    ASSERT_TRUE(c.ok());
    // Every acknowledge is a write of its own that gets no answer.
    const struct {
        Bytes request;
        size_t replySize;
    } script[] = {
        {kAck, 0},
        {kHandshake1, 9},
        {kAck, 0},
        {kHandshake2, 10},
        {kAck, 0},
        {readRequest(6, 3, 100), 17},
        {wordWriteRequest(6, 100, {0x1234, 0x5678}, 2), 10},
        {wordWriteRequest(48, 0, {0xDEADBEEF}, 4), 10},
        {bitRequest(true, 0, 37), 9},
        {bitRequest(true, 27, 0x10), 9},
        {valueRequest(32, 5, 1000), 9},
        {readRequest(2, 1, 5), 20},
        {readRequest(0, 1, 32), 13},
    };
    for (const auto& step : script) {
        ASSERT_TRUE(c.send(step.request));
        if (step.replySize) {
            const Bytes r = c.receive(step.replySize);
            ASSERT_TRUE(goodReply(r, step.replySize));
            if (step.replySize == 17) {
                EXPECT_EQ(be16(r, 9), 0x1234u);
            }
        }
    }
    EXPECT_TRUE(isRefusal(c.transact(readRequest(99, 1, 0), 8)));
    EXPECT_EQ(sim.memory().get("DM", 101), 0x5678u);
    EXPECT_EQ(sim.memory().get("Z", 0), 0xDEADBEEFu);
    EXPECT_EQ(sim.memory().get("R", 37), 1u);
    EXPECT_EQ(sim.memory().get("B", 0x10), 1u);
    EXPECT_EQ(sim.memory().get("TC", 5), 1000u);
    const std::string stats = kvsim::formatStats(sim.stats());
    EXPECT_EQ(stats.substr(0, stats.find('\n')),
              "requests 11 handshakes 2 reads 3 word-writes 2 bit-writes 2 value-writes 1 refused 1 acks 1 "
              "garbage-bytes 0 abandoned 0 connections 1");
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

// A simulator on loopback that does `f` to every reply.
std::unique_ptr<kvsim::Simulator> faulty(kvsim::Fault f) {
    kvsim::Options opt;
    opt.faults.probability[int(f)] = 1.0;
    opt.faults.delayMs = 120;
    opt.faults.splitPauseMs = 30;
    auto sim = std::make_unique<kvsim::Simulator>(opt);
    EXPECT_TRUE(sim->startTcp("127.0.0.1", 0));
    return sim;
}

TEST(Server, FaultsOnTheWire) {
    {
        auto sim = faulty(kvsim::Fault::Drop);
        Client c(sim->port());
        EXPECT_TRUE(c.transact(readRequest(6, 1, 0), 13, 150).empty());
        EXPECT_EQ(sim->stats().faults[int(kvsim::Fault::Drop)], 1u);
    }
    {
        auto sim = faulty(kvsim::Fault::Close);
        Client c(sim->port());
        ASSERT_TRUE(c.send(readRequest(6, 1, 0)));
        bool closed = false;
        EXPECT_TRUE(c.receive(13, 1000, nullptr, &closed).empty());
        EXPECT_TRUE(closed);
        EXPECT_EQ(sim->stats().faults[int(kvsim::Fault::Close)], 1u);
    }
    {
        auto sim = faulty(kvsim::Fault::Delay);
        Client c(sim->port());
        const auto t0 = Clock::now();
        EXPECT_TRUE(goodReply(c.transact(readRequest(6, 1, 0), 13), 13));
        EXPECT_GE(msSince(t0), 110);
    }
    {
        auto sim = faulty(kvsim::Fault::Split);
        Client c(sim->port());
        ASSERT_TRUE(c.send(readRequest(6, 8, 0)));
        int reads = 0;
        const auto t0 = Clock::now();
        EXPECT_TRUE(goodReply(c.receive(27, 2000, &reads), 27));
        EXPECT_GE(reads, 2);
        EXPECT_GE(msSince(t0), 25);
    }
    auto sim = faulty(kvsim::Fault::Garbage);
    Client c(sim->port());
    ASSERT_TRUE(c.send(readRequest(6, 1, 0)));
    const Bytes got = c.receive(13 + 8, 300);
    ASSERT_GT(got.size(), 13u);
    EXPECT_TRUE(goodReply(Bytes(got.end() - 13, got.end()), 13));
}

TEST(Server, ScriptedHostOverThePseudoTerminal) {
    kvsim::Simulator sim;
    std::string why;
    ASSERT_TRUE(sim.startPty(&why)) << why;
    ASSERT_EQ(sim.ptyPath().rfind("/dev/", 0), 0u);
    sim.memory().set("DM", 10, 4242);
    const int fd = openRawLine(sim.ptyPath());
    ASSERT_GE(fd, 0);
    const struct {
        Bytes request;
        size_t replySize;
    } script[] = {{kAck, 0},
                  {kHandshake1, 9},
                  {kAck, 0},
                  {kHandshake2, 10},
                  {kAck, 0},
                  {readRequest(6, 1, 10), 13},
                  {bitRequest(true, 0, 5), 9}};
    Bytes r;
    for (const auto& step : script) {
        ASSERT_TRUE(writeAll(fd, step.request));
        if (step.replySize) {
            EXPECT_TRUE(goodReply(r = readFd(fd, step.replySize), step.replySize));
        }
    }
    EXPECT_EQ(sim.memory().get("R", 5), 1u);
    ::close(fd);

    // The line outlives its host: a second one is served too.
    const int fd2 = openRawLine(sim.ptyPath());
    ASSERT_GE(fd2, 0);
    ASSERT_TRUE(writeAll(fd2, readRequest(6, 1, 10)));
    r = readFd(fd2, 13);
    ::close(fd2);
    ASSERT_TRUE(goodReply(r, 13));
    EXPECT_EQ(be16(r, 9), 4242u);
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
