#include "session.h"

#include "link_factory.h"
#include "output.h"
#include "trace.h"

#ifdef KV_HOST_EMBEDDED_SIM
#include "kv3000_sim.h"
#endif

#include <algorithm>

namespace kvhost {

namespace {

const QString kHandshakeMessage = QStringLiteral("connection failed");
constexpr Micros kSecond = 1000000;
// How long a one-shot command waits for a lost link to come back.
constexpr Micros kOutageBudget = 10 * kSecond;
// Handshakes abandoned in a row before the peer is taken for something
// that is not a KV-3000.
constexpr int kHandshakeFailuresAllowed = 3;
// Handshake replies in a row that do not start like a KV-3000 reply, from a
// peer that never sent one that did, before it is taken for something else.
constexpr int kForeignRepliesAllowed = 3;
// The shortest time for one pass of cyclic reads over all read blocks.
constexpr Micros kScanPeriod = 50000;

}  // namespace

Session::Session(const DriverApi& api, const HostOptions& options) : api_(api), options_(options) {}

Session::~Session() {
    loop_.reset();
    if (link_) link_->close();
    runtime_.reset();
#ifdef KV_HOST_EMBEDDED_SIM
    if (simulator_) simulator_->stop();
#endif
}

std::string Session::linkDescription() const {
    std::string d = link_ ? link_->describe() : "no link";
    if (simulator_)
        d += " (embedded simulator" + std::string(options_.liveSimulator ? ", live values)" : ")");
    return d;
}

bool Session::start(std::string* error) {
    uint16_t embeddedPort = 0;
    if (options_.link == HostOptions::LinkKind::Embedded) {
#ifdef KV_HOST_EMBEDDED_SIM
        kvsim::Options simOptions;
        simOptions.live = options_.liveSimulator;
        simOptions.replay = options_.simulatorReplay;
        simulator_ = std::make_unique<kvsim::Simulator>(simOptions);
        std::string why;
        if (!simulator_->startTcp("127.0.0.1", 0, &why)) {
            if (error) *error = "cannot start the embedded simulator: " + why;
            return false;
        }
        embeddedPort = simulator_->port();
#else
        if (error) *error = "this build has no embedded simulator: give --tcp HOST:PORT or --serial DEVICE";
        return false;
#endif
    }
    link_ = makeLink(options_, embeddedPort);

    runtime_ = std::make_unique<Runtime>(api_);
    runtime_->init(options_.params);
    runtime_->setChangeHandler([this](int context, int station, const QString& name, int address) {
        if (context == -1 && station == -1 && name == QLatin1String("-1")) {
            conditionEnded_ = true;
            conditionStatus_ = address;
            return;
        }
        if (changeHandler_) changeHandler_(context, station, name, address);
    });

    loop_ = std::make_unique<CommLoop>(api_.getSendFrame, api_.dealRcvFrame, *link_, clock_);
    loop_->onExchange([this](const Exchange& ex) { handleExchange(ex); });
    loop_->onLinkEvent([this](LinkEvent e, const std::string& text) { handleLink(e, text); });
    if (!loop_->connectNow()) {
        const char* verb =
            options_.link == HostOptions::LinkKind::Serial ? "cannot open " : "cannot connect to ";
        if (error) *error = verb + link_->describe() + ": " + loop_->lastLinkError();
        return false;
    }
    lastAccepted_ = clock_.now();
    return true;
}

void Session::handleExchange(const Exchange& ex) {
    stats_.record(ex);
    if (options_.trace) printTrace(traceExchange(ex));
    // The driver checks a handshake reply only for its length: one that does
    // not start like a KV-3000 reply is no sign of a controller.
    const bool handshake = isHandshakeRequest(ex.frame->frame, static_cast<size_t>(ex.frame->sendLength));
    bool foreign = false;
    if (handshake && !ex.reply.isEmpty()) {
        foreign = !startsLikeKvReply(ex.reply);
        if (foreign) {
            ++foreignReplies_;
            const QByteArray start = ex.reply.left(4);
            foreignStart_ = hexBytes(reinterpret_cast<const uint8_t*>(start.constData()),
                                     static_cast<size_t>(start.size()));
            if (foreignReplies_ == kForeignRepliesAllowed && !controllerSeen_)
                handleLink(LinkEvent::NotAController, foreignPeer());
        } else {
            foreignReplies_ = 0;
        }
    }
    // Only real replies count as signs of life: the handshake's lone
    // acknowledge bytes are "accepted" without any.
    if (ex.result == KV_DEAL_ACCEPTED && ex.expected > 0 && !foreign) {
        lastAccepted_ = clock_.now();
        controllerSeen_ = true;
        if (ex.message != kHandshakeMessage) handshakeFailures_ = 0;
    }
    if (ex.result == KV_DEAL_ABANDONED && ex.message == kHandshakeMessage) ++handshakeFailures_;
    if (cyclicBlocks_ > 0 && ex.cyclicRead() && ex.result != KV_DEAL_RETRY &&
        ++cyclicInPass_ >= cyclicBlocks_) {
        const Micros now = clock_.now();
        cyclicInPass_ = 0;
        pauseUntil_ = std::max(now, passStart_ + kScanPeriod);
        passStart_ = pauseUntil_;
    }
    const int id = ex.frame->id;
    if (id >= 1000 && id < nextId_) {
        RequestOutcome& o = outcomes_[id];
        if (ex.result == KV_DEAL_ACCEPTED) ++o.accepted;
        if (ex.result == KV_DEAL_ABANDONED) {
            o.failed = true;
            o.message = ex.message;
        }
    }
    // Copied: an observer may remove itself.
    const auto observers = exchangeObservers_;
    for (const auto& o : observers) o.second(ex);
}

int Session::addExchangeObserver(std::function<void(const Exchange&)> observer) {
    exchangeObservers_[nextObserver_] = std::move(observer);
    return nextObserver_++;
}

void Session::removeExchangeObserver(int token) {
    exchangeObservers_.erase(token);
}

std::string Session::foreignPeer() const {
    if (controllerSeen_ || foreignReplies_ == 0 || !link_) return std::string();
    return "the peer at " + link_->peer() + " does not answer like a KV-3000 (reply starts " + foreignStart_ +
           ")";
}

QString Session::explain(const QString& message) const {
    const std::string foreign = foreignPeer();
    return foreign.empty() ? message : QString::fromStdString(foreign);
}

void Session::handleLink(LinkEvent event, const std::string& text) {
    stats_.recordLink(event);
    if (linkHandler_) {
        linkHandler_(event, text);
        return;
    }
    switch (event) {
        case LinkEvent::Lost:
            printError("link lost (" + text + "); reconnecting");
            break;
        case LinkEvent::Connected:
            if (stats_.reconnects() > 0) printError("reconnected to " + text);
            break;
        case LinkEvent::ConnectFailed:
            if (options_.trace) printError("connect failed: " + text);
            break;
        case LinkEvent::NotAController:
            break;  // the failure of the command says so
    }
}

Session::RunResult Session::runUntil(const std::function<bool()>& done, double timeLimitSeconds,
                                     bool persistent) {
    const Micros start = clock_.now();
    const Micros limit = static_cast<Micros>(timeLimitSeconds * 1e6);
    const Micros timeout = static_cast<Micros>(options_.timeoutMs) * 1000;
    const Micros stallLimit = std::max<Micros>(5 * kSecond, 3 * (options_.retries + 1) * timeout);
    lastAccepted_ = std::max(lastAccepted_, start);
    for (;;) {
        if (done()) return RunResult::Done;
        if (stop_ && stop_->load()) return RunResult::Interrupted;
        if (outputClosed()) return RunResult::OutputClosed;
        const Micros now = clock_.now();
        if (limit > 0 && now - start >= limit) return RunResult::TimeUp;
        if (!persistent) {
            if (!controllerSeen_ && foreignReplies_ >= kForeignRepliesAllowed) {
                failure_ = foreignPeer();
                return RunResult::LinkFailed;
            }
            if (!loop_->linkUp() && now - loop_->downSince() > kOutageBudget) {
                failure_ = "the link to " + link_->describe() + " stayed down for " +
                           std::to_string(kOutageBudget / kSecond) + " s: " + loop_->lastLinkError();
                return RunResult::LinkFailed;
            }
            if (handshakeFailures_ >= kHandshakeFailuresAllowed) {
                failure_ = "no answer to the handshake from " + link_->describe() + " (connection failed)";
                return RunResult::LinkFailed;
            }
            if (now - lastAccepted_ > stallLimit) {
                failure_ = "no valid reply from " + link_->describe() + " for " +
                           std::to_string(stallLimit / kSecond) + " s";
                if (!foreignPeer().empty()) failure_ = foreignPeer();
                return RunResult::LinkFailed;
            }
        }
        if (now < pauseUntil_) {
            clock_.sleepFor(std::min<Micros>(pauseUntil_ - now, 10000));
            continue;
        }
        loop_->step();
    }
}

int Session::newRequestId() {
    const int id = nextId_++;
    outcomes_[id] = RequestOutcome();
    return id;
}

bool Session::conditionReadEnded(int* status) const {
    if (conditionEnded_ && status) *status = conditionStatus_;
    return conditionEnded_;
}

void Session::printSummary() {
    printLine(stats_.summary() + summaryExtra_);
}

}  // namespace kvhost
