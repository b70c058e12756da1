// The runtime's communication loop: ask the driver for a frame, send it,
// collect the reply (or what arrived before the timeout), hand it back.
// The link and the clock are injected, so the loop's timing (reply
// timeouts, reconnect backoff) is tested with a fake link and a fake clock.
#ifndef KV3000_HOST_COMM_LOOP_H
#define KV3000_HOST_COMM_LOOP_H

#include "kv3000_intf.h"
#include "link.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <string>

namespace kvhost {

// One frame sent and what became of it.
struct Exchange {
    const FRAME_PRO* frame = nullptr;
    QByteArray reply;           // the bytes handed to the driver
    int expected = 0;           // replyLength of the frame
    int result = KV_DEAL_IDLE;  // what intf_dealRcvFrame made of the reply
    QString message;            // the driver's text for the frame
    int retry = 0;              // with result 8: how many rejections of this frame so far
    Micros roundTrip = 0;       // from the start of sending to the last byte or the timeout
    bool timedOut = false;      // fewer bytes than expected arrived in time
    bool linkLost = false;      // the link failed while sending or receiving

    // A frame of a cyclic read block.
    bool cyclicRead() const { return frame && frame->id == KV_CYCLIC_READ_ID && frame->elementCount > 0; }
};

enum class LinkEvent {
    Connected,
    ConnectFailed,
    Lost,
    NotAController,  // the peer answers, but not like a KV-3000 (reported by the session)
};

class CommLoop {
public:
    using GetSendFrame = int (*)(FRAME_PRO*);
    using DealRcvFrame = int (*)(QByteArray*, QString*);

    struct Config {
        Micros idleSleep = 15000;  // nothing to send: wait this long before asking again
        Micros backoffInitial = 100000;
        Micros backoffMax = 2000000;
        // Replies missing entirely this many times in a row mean a dead
        // connection on a link whose silence means so: reconnect. 0 = never.
        int silentRepliesBeforeReconnect = 3;
    };

    enum class Step {
        Exchanged,      // a frame went out and its reply was handed back
        Idle,           // the driver had nothing to send
        Waiting,        // the link is down and the next connect is not due yet
        ConnectFailed,  // a connect attempt failed
    };

    CommLoop(GetSendFrame getSendFrame, DealRcvFrame dealRcvFrame, Link& link, Clock& clock);
    CommLoop(GetSendFrame getSendFrame, DealRcvFrame dealRcvFrame, Link& link, Clock& clock, Config config);

    void onExchange(std::function<void(const Exchange&)> handler) { exchangeHandler_ = std::move(handler); }
    void onLinkEvent(std::function<void(LinkEvent, const std::string&)> handler) {
        linkHandler_ = std::move(handler);
    }

    Step step();
    // One connect attempt now, whatever the backoff says (the first
    // connection of a run). false when it failed.
    bool connectNow();

    bool linkUp() const { return link_.isOpen(); }
    // When the link went down (or the loop started without one); valid while down.
    Micros downSince() const { return downSince_; }
    bool everConnected() const { return everConnected_; }
    int connectAttempts() const { return connectAttempts_; }
    Micros nextConnectAt() const { return nextConnectAt_; }
    Micros backoff() const { return backoff_; }
    const std::string& lastLinkError() const { return lastLinkError_; }
    // Consecutive Idle steps (0 after any exchange).
    int idleInARow() const { return idleInARow_; }

private:
    Step connect();
    bool attemptConnect();
    void linkLost(const std::string& why);
    void grow();

    GetSendFrame getSendFrame_;
    DealRcvFrame dealRcvFrame_;
    Link& link_;
    Clock& clock_;
    Config config_;
    std::function<void(const Exchange&)> exchangeHandler_;
    std::function<void(LinkEvent, const std::string&)> linkHandler_;

    FRAME_PRO frame_;
    // Replies can be longer than a request: 128 timer records are 1163 bytes.
    static constexpr int kReplyBufferSize = 4096;
    uint8_t buffer_[kReplyBufferSize] = {};
    Micros backoff_ = 0;
    Micros nextConnectAt_ = 0;
    Micros downSince_ = 0;
    bool everConnected_ = false;
    bool heardSinceConnect_ = false;
    int connectAttempts_ = 0;
    int silentReplies_ = 0;
    int rejections_ = 0;
    int idleInARow_ = 0;
    std::string lastLinkError_;
};

}  // namespace kvhost

#endif
