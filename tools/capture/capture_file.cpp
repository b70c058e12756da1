#include "capture_file.h"

#include "kv3000_wire.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cstring>

namespace kvcapture {

namespace {

pcap_t* deadOf(void* p) {
    return static_cast<pcap_t*>(p);
}
pcap_dumper_t* dumperOf(void* p) {
    return static_cast<pcap_dumper_t*>(p);
}

timeval toTimeval(WallTime when) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    if (tv.tv_usec < 0) {
        tv.tv_usec += 1000000;
        tv.tv_sec -= 1;
    }
    return tv;
}

std::string packetText(uint64_t n) {
    return "record " + std::to_string(n);
}

}  // namespace

Writer::~Writer() {
    close();
}

bool Writer::open(const std::string& path, std::string* error) {
    close();
    std::lock_guard<std::mutex> guard(mutex_);
    auto fail = [&](const std::string& why) {
        if (error) *error = "cannot write capture " + path + ": " + why;
        return false;
    };
    if (path.empty()) return fail("no file name");
    if (path == "-") return fail("give a file name (standard output carries the program's own output)");
    pcap_t* dead = pcap_open_dead(LINK_TYPE, SNAPLEN);
    if (!dead) return fail("libpcap could not start a capture");
    pcap_dumper_t* dumper = pcap_dump_open(dead, path.c_str());
    if (!dumper) {
        const std::string why = pcap_geterr(dead);
        pcap_close(dead);
        return fail(why);
    }
    if (pcap_dump_flush(dumper) != 0) {
        const std::string why = std::strerror(errno);
        pcap_dump_close(dumper);
        pcap_close(dead);
        return fail(why);
    }
    dead_ = dead;
    dumper_ = dumper;
    path_ = path;
    records_ = 0;
    failure_.clear();
    return true;
}

bool Writer::write(uint8_t direction, const uint8_t* bytes, size_t n, WallTime when) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!dumper_ || !failure_.empty()) return true;
    if (!bytes) n = 0;
    if (n + 1 > static_cast<size_t>(SNAPLEN)) n = SNAPLEN - 1;
    std::vector<uint8_t> record(n + 1);
    record[0] = direction;
    if (n) std::memcpy(record.data() + 1, bytes, n);
    pcap_pkthdr header{};
    header.ts = toTimeval(when);
    header.caplen = header.len = static_cast<bpf_u_int32>(record.size());
    pcap_dump(reinterpret_cast<u_char*>(dumperOf(dumper_)), &header, record.data());
    if (pcap_dump_flush(dumperOf(dumper_)) != 0) {
        failure_ = "capture " + path_ + ": writing failed (" + std::strerror(errno) + "); capture stopped";
        return false;
    }
    ++records_;
    return true;
}

void Writer::close() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (dumper_) pcap_dump_close(dumperOf(dumper_));
    if (dead_) pcap_close(deadOf(dead_));
    dumper_ = nullptr;
    dead_ = nullptr;
}

bool Writer::isOpen() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return dumper_ != nullptr;
}

uint64_t Writer::records() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return records_;
}

std::string Writer::failure() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return failure_;
}

namespace {

bool readOpened(pcap_t* p, const std::string& name, Capture& out, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = "capture " + name + ": " + why;
        out = Capture();
        return false;
    };
    const int link = pcap_datalink(p);
    if (link != LINK_TYPE) {
        const char* linkName = pcap_datalink_val_to_name(link);
        return fail("link type " + std::string(linkName ? linkName : std::to_string(link)) +
                    " is not a KV-3000 capture (USER0, as written by --capture)");
    }
    Capture c;
    size_t total = 0;
    for (;;) {
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        const int rc = pcap_next_ex(p, &header, &data);
        if (rc == PCAP_ERROR_BREAK) break;  // end of file
        if (rc != 1) {
            const std::string why = pcap_geterr(p);
            if (why.rfind("truncated dump file", 0) == 0) {
                c.warning = "capture " + name + " ends inside " + packetText(c.records + 1) + "; the " +
                            std::to_string(c.records) + " complete records before it are used";
                break;
            }
            return fail(packetText(c.records + 1) + ": " + why);
        }
        const uint64_t packet = ++c.records;
        if (header->caplen < header->len)
            return fail(packetText(packet) + " holds " + std::to_string(header->caplen) + " of its " +
                        std::to_string(header->len) + " bytes");
        if (header->caplen == 0) return fail(packetText(packet) + " is empty: it has no direction byte");
        total += header->caplen;
        if (total > MAX_CAPTURE_BYTES)
            return fail("more than " + std::to_string(MAX_CAPTURE_BYTES >> 20) + " MiB of frames");
        const uint8_t direction = data[0];
        std::vector<uint8_t> frame(data + 1, data + header->caplen);
        if (direction == TO_CONTROLLER) {
            if (frame.empty()) return fail(packetText(packet) + " is a request without bytes");
            Exchange e;
            e.packet = packet;
            e.request = std::move(frame);
            c.exchanges.push_back(std::move(e));
        } else if (direction == TO_HOST) {
            if (c.exchanges.empty() || c.exchanges.back().answered)
                return fail(packetText(packet) + " is a reply with no unanswered request before it");
            Exchange& e = c.exchanges.back();
            e.answered = true;
            e.replyPacket = packet;
            e.reply = std::move(frame);
        } else {
            return fail(packetText(packet) + " has direction byte " + std::to_string(direction) +
                        " (0 request, 1 reply)");
        }
    }
    out = std::move(c);
    return true;
}

}  // namespace

bool readCapture(std::FILE* stream, const std::string& name, Capture& out, std::string* error) {
    out = Capture();
    if (!stream) {
        if (error) *error = "capture " + name + ": nothing to read";
        return false;
    }
    char err[PCAP_ERRBUF_SIZE] = "";
    pcap_t* p = pcap_fopen_offline(stream, err);
    if (!p) {
        std::fclose(stream);
        if (error) *error = "capture " + name + " is not a pcap file: " + err;
        return false;
    }
    const bool ok = readOpened(p, name, out, error);
    pcap_close(p);  // closes the stream too
    return ok;
}

bool readCapture(const std::string& path, Capture& out, std::string* error) {
    out = Capture();
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        if (error) *error = "cannot read capture " + path + ": " + std::strerror(errno);
        return false;
    }
    return readCapture(f, path, out, error);
}

bool isLoneAcknowledge(const std::vector<uint8_t>& frame) {
    return frame.size() == 1 && frame[0] == kvwire::ACK;
}

std::vector<uint8_t> requestKey(const std::vector<uint8_t>& frame) {
    if (frame.size() > 1 && frame[0] == kvwire::ACK)
        return std::vector<uint8_t>(frame.begin() + 1, frame.end());
    return frame;
}

}  // namespace kvcapture
