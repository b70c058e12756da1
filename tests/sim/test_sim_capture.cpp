// Captures of the link: what the simulator's links record, how a capture
// file is read back and paired, and how a replay answers from it.
#include "capture_file.h"
#include "kv3000_sim.h"
#include "sim_test_util.h"

#include <pcap/pcap.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace simtest;

namespace {

struct TempFile {
    std::string path;
    TempFile() {
        char name[] = "/tmp/kv3000-capture-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) ::close(fd);
        path = name;
    }
    ~TempFile() { std::remove(path.c_str()); }
};

// A pcap file of the given link type, records written as they are.
void writePcap(const std::string& path, int linkType, const std::vector<Bytes>& records) {
    pcap_t* dead = pcap_open_dead(linkType, 65535);
    pcap_dumper_t* d = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(d, nullptr);
    for (const Bytes& r : records) {
        pcap_pkthdr h{};
        h.caplen = h.len = static_cast<bpf_u_int32>(r.size());
        pcap_dump(reinterpret_cast<u_char*>(d), &h, r.data());
    }
    pcap_dump_close(d);
    pcap_close(dead);
}

Bytes record(uint8_t direction, const Bytes& frame) {
    Bytes r{direction};
    r.insert(r.end(), frame.begin(), frame.end());
    return r;
}

const Bytes kRead = readRequest(6, 1, 100);  // DM100 x1

}  // namespace

TEST(Capture, LinksKeepEveryAcknowledgeAsItCame) {
    const Bytes attached = kRead;  // 06 01 00 FF ...
    const Bytes bare(kRead.begin() + 1, kRead.end());
    struct Case {
        std::vector<Bytes> pieces;
        std::vector<Bytes> frames;
    } cases[] = {
        {{kAck}, {kAck}},  // a 06 that nothing follows yet comes out at once
        {{Bytes{0x06, 0x06}, bare}, {kAck, kAck, bare}},
        {{Bytes{0x06, 0x06, 0x01}, Bytes(kRead.begin() + 2, kRead.end())}, {kAck, attached}},
        {{kAck, kHandshake1}, {kAck, kHandshake1}},  // the handshake's own acknowledge
        {{Bytes{0x06, 0x01, 0x00}, Bytes(kRead.begin() + 3, kRead.end())}, {attached}},
        {{Bytes{0xAA}, attached}, {attached}},
    };
    for (const Case& c : cases) {
        kvsim::StreamParser parser(true);
        std::vector<Bytes> got;
        for (const Bytes& p : c.pieces)
            for (auto& f : parser.feed(p.data(), p.size())) got.push_back(f);
        EXPECT_EQ(got, c.frames);
        EXPECT_EQ(parser.acks(), 0u);  // counted by whoever answers them
    }
}

TEST(Capture, RecordsArePairedAndReadBack) {
    TempFile file;
    kvcapture::Writer w;
    std::string why;
    ASSERT_TRUE(w.open(file.path, &why)) << why;
    const auto t = std::chrono::system_clock::now();
    const Bytes reply{0x06, 0x01, 0x00, 0xFF, 0x1E, 0x00, 0x06, 0x00, 0x01, 0x00, 0x07, 0x2C, 0x04};
    w.write(kvcapture::TO_CONTROLLER, kAck.data(), 1, t);
    w.write(kvcapture::TO_CONTROLLER, kRead.data(), kRead.size(), t);
    w.write(kvcapture::TO_HOST, reply.data(), reply.size(), t);
    w.write(kvcapture::TO_CONTROLLER, kRead.data(), kRead.size(), t);
    w.write(kvcapture::TO_HOST, nullptr, 0, t);  // nothing came back
    w.write(kvcapture::TO_CONTROLLER, kRead.data(), kRead.size(), t);
    EXPECT_EQ(w.records(), 6u);
    kvcapture::Capture c;
    ASSERT_TRUE(kvcapture::readCapture(file.path, c, &why)) << why;  // readable while still open
    w.close();
    ASSERT_EQ(c.exchanges.size(), 4u);
    EXPECT_FALSE(c.exchanges[0].answered);
    EXPECT_TRUE(c.exchanges[1].answered);
    EXPECT_EQ(c.exchanges[1].reply, reply);
    EXPECT_EQ(c.exchanges[1].replyPacket, 3u);
    EXPECT_TRUE(c.exchanges[2].answered);
    EXPECT_TRUE(c.exchanges[2].reply.empty());
    EXPECT_FALSE(c.exchanges[3].answered);
    EXPECT_EQ(c.exchanges[3].packet, 6u);
    EXPECT_TRUE(c.warning.empty());

    // Cut inside the last record: the records before it are kept, with a warning.
    std::FILE* f = std::fopen(file.path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::fseek(f, 0, SEEK_END);
    ASSERT_EQ(ftruncate(fileno(f), std::ftell(f) - 3), 0);
    std::fclose(f);
    ASSERT_TRUE(kvcapture::readCapture(file.path, c, &why)) << why;
    EXPECT_EQ(c.exchanges.size(), 3u);
    EXPECT_NE(c.warning.find("ends inside record 6"), std::string::npos) << c.warning;
}

TEST(Capture, FilesThatAreNotCapturesOfTheLinkAreRefused) {
    const struct {
        int linkType;
        std::vector<Bytes> records;
        const char* reason;
    } cases[] = {
        {DLT_EN10MB, {record(0, kRead)}, "link type EN10MB is not a KV-3000 capture"},
        {kvcapture::LINK_TYPE, {record(1, {0x06})}, "record 1 is a reply with no unanswered request"},
        {kvcapture::LINK_TYPE,
         {record(0, kRead), record(1, {}), record(1, {})},
         "record 3 is a reply with no"},
        {kvcapture::LINK_TYPE, {record(0, kRead), record(2, {})}, "record 2 has direction byte 2"},
        {kvcapture::LINK_TYPE, {Bytes{}}, "record 1 is empty"},
        {kvcapture::LINK_TYPE, {record(0, {})}, "record 1 is a request without bytes"},
    };
    for (const auto& c : cases) {
        TempFile file;
        writePcap(file.path, c.linkType, c.records);
        kvcapture::Capture capture;
        std::string why;
        EXPECT_FALSE(kvcapture::readCapture(file.path, capture, &why)) << c.reason;
        EXPECT_NE(why.find(c.reason), std::string::npos) << why;
        EXPECT_TRUE(capture.exchanges.empty());
    }
    kvcapture::Capture capture;
    std::string why;
    EXPECT_FALSE(kvcapture::readCapture("/nonexistent/x.pcap", capture, &why));
    EXPECT_NE(why.find("cannot read capture /nonexistent/x.pcap"), std::string::npos) << why;
    kvcapture::Writer w;
    EXPECT_FALSE(w.open("/nonexistent/x.pcap", &why));
    EXPECT_NE(why.find("cannot write capture /nonexistent/x.pcap"), std::string::npos) << why;
}

TEST(Capture, ReplayAnswersEachOccurrenceInRecordedOrder) {
    const Bytes other = readRequest(6, 1, 200);
    kvcapture::Capture c;
    auto add = [&](const Bytes& req, bool answered, const Bytes& reply) {
        kvcapture::Exchange e;
        e.request = req;
        e.answered = answered;
        e.reply = reply;
        c.exchanges.push_back(e);
    };
    add(kAck, false, {});
    add(kRead, true, {1});
    add(other, true, {9});
    add(kRead, true, {});   // nothing came back the second time
    add(kRead, false, {});  // the capture ended before its reply
    kvsim::Replay replay(c);
    EXPECT_EQ(replay.recordedExchanges(), 3u);
    const Bytes bare(kRead.begin() + 1, kRead.end());  // the same request without its 06
    Bytes reply{0xEE};
    EXPECT_TRUE(replay.next(bare, reply));
    EXPECT_EQ(reply, Bytes{1});
    EXPECT_TRUE(replay.next(kRead, reply));
    EXPECT_TRUE(reply.empty());
    EXPECT_FALSE(replay.next(kRead, reply));  // used up: from memory
    EXPECT_TRUE(replay.next(other, reply));
    EXPECT_EQ(reply, Bytes{9});
    EXPECT_EQ(replay.replayed(), 3u);
    EXPECT_EQ(replay.fromMemory(), 1u);
}

TEST(Capture, SessionsRecordWhatWentOutAndReplayOverMemory) {
    // The recorded reply to the write says "refused"; the write still lands in memory.
    const Bytes write = wordWriteRequest(6, 100, {42}, 2);
    const Bytes refused = kvsim::refusal(kvsim::REFUSE_RANGE);
    kvcapture::Capture recorded;
    recorded.exchanges.push_back({1, write, true, 2, refused});
    kvsim::Replay replay(recorded);

    TempFile file;
    kvcapture::Writer w;
    std::string why;
    ASSERT_TRUE(w.open(file.path, &why)) << why;
    kvsim::FaultSpec dropAll;
    dropAll.probability[static_cast<int>(kvsim::Fault::Drop)] = 1;
    kvsim::FaultInjector faults(dropAll, 1);
    kvsim::Memory mem;
    kvsim::Counters counters;
    kvsim::Session replaying(mem, nullptr, &counters, kvsim::Tap{&w, &replay});
    kvsim::Session dropping(mem, &faults, &counters, kvsim::Tap{&w, nullptr});

    Bytes in = kAck;
    in.insert(in.end(), write.begin(), write.end());
    const kvsim::Delivery d = replaying.feed(in.data(), in.size());
    ASSERT_EQ(d.writes.size(), 1u);
    EXPECT_EQ(d.writes[0].bytes, refused);
    EXPECT_EQ(mem.get("DM", 100), 42u);
    EXPECT_TRUE(dropping.feed(kRead.data(), kRead.size()).writes.empty());
    EXPECT_EQ(counters.snapshot().acks, 1u);

    kvcapture::Capture c;
    ASSERT_TRUE(kvcapture::readCapture(file.path, c, &why)) << why;
    ASSERT_EQ(c.exchanges.size(), 3u);
    EXPECT_EQ(c.exchanges[0].request, kAck);
    EXPECT_FALSE(c.exchanges[0].answered);
    EXPECT_EQ(c.exchanges[1].request, write);
    EXPECT_EQ(c.exchanges[1].reply, refused);
    EXPECT_EQ(c.exchanges[2].request, kRead);
    EXPECT_TRUE(c.exchanges[2].answered);
    EXPECT_TRUE(c.exchanges[2].reply.empty());  // dropped: recorded as nothing
}
