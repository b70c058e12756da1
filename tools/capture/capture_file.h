// Captures of the KV-3000 link, shared by kv3000-host and kv3000-sim: pcap
// files written and read through libpcap, link type USER0 (147). Each record
// is one frame: a direction byte (TO_CONTROLLER for a request, TO_HOST for a
// reply), then the frame's bytes exactly as sent or received. A reply record
// follows the request it answers; an empty one (the direction byte alone)
// says that nothing came back. A lone acknowledge (06) has no reply record.
#ifndef KV3000_CAPTURE_FILE_H
#define KV3000_CAPTURE_FILE_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace kvcapture {

constexpr int LINK_TYPE = 147;  // DLT_USER0: Wireshark hands it to the wtap_encap dissector table
constexpr uint8_t TO_CONTROLLER = 0x00;
constexpr uint8_t TO_HOST = 0x01;
constexpr int SNAPLEN = 65535;
// A capture whose frames add up to more than this is refused by the reader.
constexpr size_t MAX_CAPTURE_BYTES = size_t(256) << 20;

using WallTime = std::chrono::system_clock::time_point;

class Writer {
public:
    Writer() = default;
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Creates or empties path and writes the file header. false with a
    // reason ("cannot write capture FILE: ...") when it cannot.
    bool open(const std::string& path, std::string* error);
    // Appends one record and flushes it, so that a killed process leaves a
    // readable file. After the first failure (disk full, ...) nothing more is
    // written and failure() says why. Returns false once, on the write that
    // failed, so that the caller reports it once.
    bool write(uint8_t direction, const uint8_t* bytes, size_t n, WallTime when);
    void close();

    bool isOpen() const;
    const std::string& path() const { return path_; }
    uint64_t records() const;
    std::string failure() const;

private:
    mutable std::mutex mutex_;
    std::string path_;
    void* dead_ = nullptr;    // pcap_t
    void* dumper_ = nullptr;  // pcap_dumper_t
    uint64_t records_ = 0;
    std::string failure_;
};

// One request and what came back, in recorded order.
struct Exchange {
    uint64_t packet = 0;  // record number of the request, from 1 as Wireshark counts frames
    std::vector<uint8_t> request;
    bool answered = false;  // a reply record follows it (empty: nothing came back)
    uint64_t replyPacket = 0;
    std::vector<uint8_t> reply;
};

struct Capture {
    std::vector<Exchange> exchanges;
    uint64_t records = 0;
    // Set when the file ends inside a record (a capture cut short by a
    // killed process): the complete records before it are kept.
    std::string warning;
};

// Reads a capture written by --capture. false with a reason naming the file
// or the record when it is not one (another link type, a record without a
// direction byte, a reply with no request before it, ...); out is then empty.
bool readCapture(const std::string& path, Capture& out, std::string* error);
// The same from an open stream, which is closed in every case.
bool readCapture(std::FILE* stream, const std::string& name, Capture& out, std::string* error);

// A lone acknowledge: the one-byte frame 06 that expects no reply.
bool isLoneAcknowledge(const std::vector<uint8_t>& frame);
// The request without the acknowledge byte that may open it, so that the
// same request compares equal whether the 06 travelled with it or alone.
std::vector<uint8_t> requestKey(const std::vector<uint8_t>& frame);

}  // namespace kvcapture

#endif
