#include "capture.h"

#include "options.h"
#include "output.h"
#include "session.h"
#include "trace.h"

#ifdef KV_HOST_EMBEDDED_SIM
#include "kv3000_sim.h"
#endif

#include <algorithm>
#include <chrono>

namespace kvhost {

namespace {

std::string shown(const std::vector<uint8_t>& frame) {
    return hexBytes(frame.data(), frame.size()) + " (" + describeRequest(frame.data(), frame.size()) + ")";
}

}  // namespace

bool sentRequest(const Exchange& ex, std::vector<uint8_t>& bytes) {
    // The loop reports a failed send as a lost link without a timeout: a
    // link lost while waiting for the reply always also counts as timed out.
    if (!ex.frame || (ex.linkLost && !ex.timedOut)) return false;
    const int n = std::max(0, std::min(ex.frame->sendLength, static_cast<int>(KV_BUFFER_SIZE)));
    bytes.assign(ex.frame->frame, ex.frame->frame + n);
    return n > 0;
}

void ExchangeRecorder::record(const Exchange& ex) {
    std::vector<uint8_t> request;
    if (!sentRequest(ex, request)) return;
    const auto now = std::chrono::system_clock::now();
    writer_.write(kvcapture::TO_CONTROLLER, request.data(), request.size(),
                  now - std::chrono::microseconds(std::max<Micros>(0, ex.roundTrip)));
    if (ex.expected > 0)
        writer_.write(kvcapture::TO_HOST, reinterpret_cast<const uint8_t*>(ex.reply.constData()),
                      static_cast<size_t>(ex.reply.size()), now);
}

ReplayCheck::ReplayCheck(const kvcapture::Capture& recorded) {
    for (const kvcapture::Exchange& e : recorded.exchanges) {
        if (!kvcapture::isLoneAcknowledge(e.request)) recorded_.push_back(Recorded{e.packet, e.request});
    }
}

std::string ReplayCheck::check(const std::vector<uint8_t>& sent) {
    if (kvcapture::isLoneAcknowledge(sent)) return "";
    const size_t index = sent_++;
    if (!difference_.empty()) return "";
    const std::string which = "replay-check: request " + std::to_string(index + 1);
    if (index >= recorded_.size()) {
        difference_ = which + " is not in the capture, which ends after " + std::to_string(recorded_.size()) +
                      " requests: sent " + shown(sent);
    } else if (kvcapture::requestKey(sent) != kvcapture::requestKey(recorded_[index].bytes)) {
        difference_ = which + " differs from record " + std::to_string(recorded_[index].packet) +
                      " of the capture: sent " + shown(sent) + ", recorded " + shown(recorded_[index].bytes);
    }
    return difference_;
}

std::string ReplayCheck::summary() const {
    if (!difference_.empty()) return difference_;
    if (sent_ == recorded_.size())
        return "replay-check: the " + std::to_string(sent_) + " requests sent match the capture";
    return "replay-check: the " + std::to_string(sent_) + " requests sent match the first " +
           std::to_string(sent_) + " of the " + std::to_string(recorded_.size()) + " in the capture";
}

HostCapture::HostCapture() = default;
HostCapture::~HostCapture() = default;

bool HostCapture::prepare(CommandLine& cl, std::string* error) {
    if (!cl.replayCheckPath.empty()) {
        kvcapture::Capture recorded;
        if (!kvcapture::readCapture(cl.replayCheckPath, recorded, error)) return false;
        if (!recorded.warning.empty()) printError("warning: " + recorded.warning);
        check_ = std::make_unique<ReplayCheck>(recorded);
#ifdef KV_HOST_EMBEDDED_SIM
        if (cl.host.link == HostOptions::LinkKind::Embedded)
            cl.host.simulatorReplay = std::make_shared<kvsim::Replay>(recorded);
#endif
    }
    if (!cl.capturePath.empty()) {
        writer_ = std::make_unique<kvcapture::Writer>();
        if (!writer_->open(cl.capturePath, error)) return false;
        recorder_ = std::make_unique<ExchangeRecorder>(*writer_);
    }
    return true;
}

void HostCapture::attach(Session& session) {
    if (!recorder_ && !check_) return;
    session.addExchangeObserver([this](const Exchange& ex) {
        if (recorder_) {
            recorder_->record(ex);
            const std::string failure = writer_->failure();
            if (!failure.empty() && !failureShown_) {
                failureShown_ = true;
                printError(failure);
            }
        }
        std::vector<uint8_t> sent;
        if (check_ && sentRequest(ex, sent)) {
            const std::string report = check_->check(sent);
            if (!report.empty()) printLine(report);
        }
    });
}

int HostCapture::finish(int status) {
    if (writer_) writer_->close();
    if (!check_) return status;
    if (!check_->differs()) printLine(check_->summary());
    return check_->differs() && status == 0 ? 1 : status;
}

}  // namespace kvhost
