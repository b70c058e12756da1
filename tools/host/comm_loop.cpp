#include "comm_loop.h"

#include <algorithm>

namespace kvhost {

namespace {

// The longest wait in one step, so that a caller checking a stop flag
// between steps stays responsive during a long backoff.
constexpr Micros kMaxWaitPerStep = 100000;

int clampLength(int n, int limit) {
    return std::max(0, std::min(n, limit));
}

}  // namespace

CommLoop::CommLoop(GetSendFrame getSendFrame, DealRcvFrame dealRcvFrame, Link& link, Clock& clock)
    : CommLoop(getSendFrame, dealRcvFrame, link, clock, Config()) {}

CommLoop::CommLoop(GetSendFrame getSendFrame, DealRcvFrame dealRcvFrame, Link& link, Clock& clock,
                   Config config)
    : getSendFrame_(getSendFrame),
      dealRcvFrame_(dealRcvFrame),
      link_(link),
      clock_(clock),
      config_(config),
      downSince_(clock.now()) {
    nextConnectAt_ = downSince_;
}

void CommLoop::grow() {
    backoff_ = backoff_ == 0 ? config_.backoffInitial : std::min(2 * backoff_, config_.backoffMax);
}

bool CommLoop::attemptConnect() {
    ++connectAttempts_;
    std::string why;
    if (!link_.open(&why)) {
        lastLinkError_ = why;
        grow();
        nextConnectAt_ = clock_.now() + backoff_;
        if (linkHandler_) linkHandler_(LinkEvent::ConnectFailed, why);
        return false;
    }
    everConnected_ = true;
    heardSinceConnect_ = false;
    silentReplies_ = 0;
    if (linkHandler_) linkHandler_(LinkEvent::Connected, link_.describe());
    return true;
}

bool CommLoop::connectNow() {
    return link_.isOpen() || attemptConnect();
}

CommLoop::Step CommLoop::connect() {
    const Micros now = clock_.now();
    if (now < nextConnectAt_) {
        clock_.sleepFor(std::min(nextConnectAt_ - now, kMaxWaitPerStep));
        return Step::Waiting;
    }
    return attemptConnect() ? Step::Exchanged : Step::ConnectFailed;
}

void CommLoop::linkLost(const std::string& why) {
    link_.close();
    lastLinkError_ = why;
    downSince_ = clock_.now();
    // A connection that died before it carried a single reply byte counts
    // as a failed attempt, so a peer that accepts and closes at once is not
    // hammered.
    if (!heardSinceConnect_) grow();
    nextConnectAt_ = downSince_ + backoff_;
    if (linkHandler_) linkHandler_(LinkEvent::Lost, why);
}

CommLoop::Step CommLoop::step() {
    if (!link_.isOpen()) {
        const Step s = connect();
        if (s != Step::Exchanged) return s;
    }
    link_.flushInput();
    if (!link_.isOpen()) {
        linkLost("the peer closed the connection");
        return Step::Waiting;
    }

    if (getSendFrame_(&frame_) == 0) {
        ++idleInARow_;
        clock_.sleepFor(config_.idleSleep);
        return Step::Idle;
    }
    idleInARow_ = 0;

    Exchange ex;
    ex.frame = &frame_;
    const int sendLength = clampLength(frame_.sendLength, KV_BUFFER_SIZE);
    ex.expected = clampLength(frame_.replyLength, kReplyBufferSize);

    std::string why;
    int got = 0;
    const Micros started = clock_.now();
    if (!link_.send(frame_.frame, static_cast<size_t>(sendLength), &why)) {
        ex.linkLost = true;
    } else if (ex.expected > 0) {
        // The reply timeout runs from the end of sending (a serial line drains first).
        const Micros deadline = clock_.now() + link_.replyTimeout(ex.expected);
        while (got < ex.expected) {
            const Micros remaining = deadline - clock_.now();
            if (remaining <= 0) {
                ex.timedOut = true;
                break;
            }
            const long r = link_.receive(buffer_ + got, static_cast<size_t>(ex.expected - got), remaining);
            if (r < 0) {
                ex.linkLost = true;
                why = "the peer closed the connection";
                break;
            }
            got += static_cast<int>(r);
        }
        if (ex.linkLost) ex.timedOut = got < ex.expected;
    }
    ex.roundTrip = clock_.now() - started;
    if (got > 0) {
        heardSinceConnect_ = true;
        backoff_ = 0;
    }

    ex.reply = QByteArray(reinterpret_cast<const char*>(buffer_), got);
    QByteArray reply = ex.reply;
    ex.result = dealRcvFrame_(&reply, &ex.message);
    if (ex.result == KV_DEAL_RETRY) {
        ex.retry = ++rejections_;
    } else {
        rejections_ = 0;
    }

    std::string lost;
    if (ex.linkLost) {
        lost = why.empty() ? "link lost" : why;
    } else if (ex.timedOut && got == 0 && config_.silentRepliesBeforeReconnect > 0 &&
               link_.silenceMeansLost() && ++silentReplies_ >= config_.silentRepliesBeforeReconnect) {
        silentReplies_ = 0;
        lost = "no reply to " + std::to_string(config_.silentRepliesBeforeReconnect) + " requests in a row";
    } else if (got > 0) {
        silentReplies_ = 0;
    }
    if (exchangeHandler_) exchangeHandler_(ex);
    if (!lost.empty()) linkLost(lost);
    return Step::Exchanged;
}

}  // namespace kvhost
