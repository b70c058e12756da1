// --capture and --replay-check of kv3000-host: recording every exchange of
// the communication loop in a pcap file, and comparing the frames the driver
// sends with those of a recorded run.
#ifndef KV3000_HOST_CAPTURE_H
#define KV3000_HOST_CAPTURE_H

#include "capture_file.h"
#include "comm_loop.h"

#include <memory>
#include <string>
#include <vector>

namespace kvhost {

class Session;
struct CommandLine;

// The request bytes of an exchange, or nothing when sending them failed.
// Fills bytes and returns true when the frame went out.
bool sentRequest(const Exchange& ex, std::vector<uint8_t>& bytes);

// Each exchange as two records: the request, stamped when it went out, and
// the bytes handed to the driver as its reply, stamped when they were
// complete or the wait ended. A frame that expects no reply (the lone
// acknowledge) gets no reply record; a reply that did not come at all is an
// empty record, so that every expected reply is paired with its request.
class ExchangeRecorder {
public:
    explicit ExchangeRecorder(kvcapture::Writer& writer) : writer_(writer) {}
    void record(const Exchange& ex);

private:
    kvcapture::Writer& writer_;
};

// Compares each request the driver sends with the next one recorded, lone
// acknowledges left out on both sides and an 06 in front of a frame not
// counted, and remembers the first difference.
class ReplayCheck {
public:
    explicit ReplayCheck(const kvcapture::Capture& recorded);
    // Returns the report line when this request is the first to differ.
    std::string check(const std::vector<uint8_t>& sent);
    // The closing line: how many requests matched, or the first difference.
    std::string summary() const;
    bool differs() const { return !difference_.empty(); }

private:
    struct Recorded {
        uint64_t packet;
        std::vector<uint8_t> bytes;
    };
    std::vector<Recorded> recorded_;
    size_t sent_ = 0;
    std::string difference_;
};

// The capture side of one run: files opened or read before anything is
// sent, hooked to the session's exchanges, and the replay check's verdict.
class HostCapture {
public:
    HostCapture();
    ~HostCapture();
    // Opens --capture and reads --replay-check; for a replay check without
    // --tcp or --serial, the embedded simulator is set to replay the same
    // capture. false with a message (exit status 2) when a file fails.
    bool prepare(CommandLine& cl, std::string* error);
    void attach(Session& session);
    // Prints the replay check's closing line and the capture's failure, if
    // any; returns the exit status, 1 when the check found a difference.
    int finish(int status);

private:
    std::unique_ptr<kvcapture::Writer> writer_;
    std::unique_ptr<ExchangeRecorder> recorder_;
    std::unique_ptr<ReplayCheck> check_;
    bool failureShown_ = false;
};

}  // namespace kvhost

#endif
