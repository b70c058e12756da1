#include "serve.h"

#include "output.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

#include <algorithm>
#include <cmath>

namespace kvhost {

namespace {

constexpr Micros kStatsEvery = 500000;
constexpr size_t kRoundTripWindow = 200;
// Units one web write may carry: a bit register queues one item per unit,
// and the driver's write queue is shared by every client.
constexpr int kMaxUnitsPerWrite = 64;
const QString kWriteExample = QStringLiteral("send {\"address\": \"DM100\", \"value\": 1234}");

qint64 nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

QString isoTime(qint64 ms) {
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

QString kindName(const RegisterInfo& r) {
    if (r.isBit()) return QStringLiteral("bit");
    return r.unit() == kvreg::Unit::DWord ? QStringLiteral("dword") : QStringLiteral("word");
}

std::string sse(const char* event, const QJsonObject& data) {
    return std::string("event: ") + event +
           "\ndata: " + QJsonDocument(data).toJson(QJsonDocument::Compact).toStdString() + "\n\n";
}

QByteArray compact(const QJsonObject& o) {
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

ServeBackend::Reply failure(int status, const QString& sentence) {
    return {status, compact(QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), sentence}})};
}

// One JSON value as the command line would have written it: numbers in
// decimal, texts as they are. false for anything else.
bool valueText(const QJsonValue& v, QString& out) {
    if (v.isDouble()) {
        const double d = v.toDouble();
        out = d == std::floor(d) && std::fabs(d) < 9007199254740992.0
                  ? QString::number(static_cast<qint64>(d))
                  : QString::number(d, 'g', 17);
        return true;
    }
    if (!v.isString()) return false;
    out = v.toString();
    // One value per unit: the separators of the command line stay out.
    return !out.contains(QLatin1Char(',')) && !out.contains(QLatin1Char('='));
}

}  // namespace

ServeApp::ServeApp(Session& session, const Catalogue& catalogue, std::vector<Address> addresses,
                   const ServeOptions& options)
    : ServeApp(session, catalogue, std::move(addresses), options, Limits()) {}

ServeApp::ServeApp(Session& session, const Catalogue& catalogue, std::vector<Address> addresses,
                   const ServeOptions& options, Limits limits)
    : session_(session),
      catalogue_(catalogue),
      options_(options),
      watcher_(session, std::move(addresses)),
      hub_(limits.queueLimit) {
    const QStringList params = QString::fromStdString(session.options().params).split(QLatin1Char('#'));
    localWriteOnly_ = params.size() > 1 && params[1] == QLatin1String("1");
    const std::vector<Address>& list = watcher_.addresses();
    for (size_t i = 0; i < list.size(); ++i) {
        firstUnit_.push_back(units_.size());
        for (int u = 0; u < list[i].count; ++u) {
            Unit unit;
            unit.address = static_cast<int>(i);
            unit.unit = u;
            unit.name = list[i].unitName(u);
            units_.push_back(unit);
        }
    }
    HttpConfig config;
    config.host = options.host;
    config.port = options.port;
    config.threads = limits.threads;
    config.maxStreams = limits.maxStreams;
    if (options.allowWrites) config.token = token_ = makeToken();
    http_ = std::make_unique<HttpFront>(*this, config);
}

ServeApp::~ServeApp() {
    // The HTTP threads use every member: they end first.
    hub_.close();
    tracker_.close();
    http_->stop();
    if (observer_ >= 0) session_.removeExchangeObserver(observer_);
    session_.onLinkEvent(nullptr);
}

bool ServeApp::bind(std::string* error) {
    if (options_.allowWrites && token_.empty()) {
        if (error) *error = "cannot make a write token: the kernel's random source did not answer";
        return false;
    }
    return http_->bind(error);
}

std::chrono::milliseconds ServeApp::writeTimeout() const {
    const HostOptions& o = session_.options();
    return std::chrono::milliseconds(std::max(10000, 2 * (o.retries + 1) * o.timeoutMs));
}

void ServeApp::run() {
    session_.onLinkEvent([this](LinkEvent e, const std::string& text) {
        if (e == LinkEvent::ConnectFailed) return;
        linkUp_ = e == LinkEvent::Connected;
        logLine((linkUp_ ? QStringLiteral("connected: ") : QStringLiteral("link lost: ")) +
                    QString::fromStdString(text),
                true);
        publishStats(true);
    });
    observer_ = session_.addExchangeObserver([this](const Exchange& ex) {
        tracker_.observe(ex);
        if (ex.result == 1 && ex.expected > 0) {
            roundTrips_.push_back(ex.roundTrip);
            if (roundTrips_.size() > kRoundTripWindow) roundTrips_.pop_front();
        }
    });
    blocks_ = watcher_.registerAll();
    lastStatsAt_ = clock_.now();
    lastTransactions_ = session_.stats().transactions();
    publishStats(true);
    http_->start();
    printLine(QStringLiteral("watching %1 address(es) in %2 read block(s) over %3; Ctrl-C stops")
                  .arg(watcher_.addresses().size())
                  .arg(blocks_)
                  .arg(QString::fromStdString(session_.linkDescription())));
    session_.runUntil(
        [this] {
            tick();
            return false;
        },
        0, true);
    hub_.close();
    tracker_.close();
    http_->stop();
}

void ServeApp::tick() {
    const std::vector<Watcher::Change> changes = watcher_.takeUpdates(blocks_);
    if (!changes.empty()) publishChanges(changes);
    KEY_ADDRESS key;
    int id = 0;
    if (tracker_.barrierDue(key, id)) session_.api().addConditionRead(key, id);
    publishStats(false);
}

QJsonObject ServeApp::unitJson(const Unit& u, uint32_t value, bool known) const {
    const Address& a = watcher_.addresses()[static_cast<size_t>(u.address)];
    QJsonObject o{{QStringLiteral("name"), u.name},
                  {QStringLiteral("kind"), kindName(*a.reg)},
                  {QStringLiteral("writable"), a.reg->writable()}};
    o[QStringLiteral("value")] = known ? QJsonValue(static_cast<double>(value)) : QJsonValue();
    o[QStringLiteral("text")] = known ? QJsonValue(formatValue(*a.reg, value)) : QJsonValue();
    o[QStringLiteral("changed")] = u.changedMs ? QJsonValue(isoTime(u.changedMs)) : QJsonValue();
    return o;
}

void ServeApp::publishChanges(const std::vector<Watcher::Change>& changes) {
    const qint64 now = nowMs();
    const Address* base = watcher_.addresses().data();
    std::lock_guard<std::mutex> lock(mutex_);
    QJsonArray list;
    for (const Watcher::Change& c : changes) {
        Unit& u = units_[firstUnit_[static_cast<size_t>(c.address - base)] + static_cast<size_t>(c.unit)];
        u.value = c.value;
        u.known = true;
        u.changedMs = now;
        list.append(unitJson(u, u.value, true));
    }
    hub_.publish(sse("change", QJsonObject{{QStringLiteral("units"), list}}));
}

void ServeApp::publishStats(bool now) {
    const Micros t = clock_.now();
    if (!now && t < nextStatsAt_) return;
    nextStatsAt_ = t + kStatsEvery;
    const Stats& s = session_.stats();
    const double seconds = static_cast<double>(t - lastStatsAt_) / 1e6;
    const double tps = seconds > 0 ? static_cast<double>(s.transactions() - lastTransactions_) / seconds : 0;
    if (seconds >= 0.25) {
        lastStatsAt_ = t;
        lastTransactions_ = s.transactions();
    }
    double mean = 0, p95 = 0;
    if (!roundTrips_.empty()) {
        std::vector<Micros> sorted(roundTrips_.begin(), roundTrips_.end());
        std::sort(sorted.begin(), sorted.end());
        for (Micros r : sorted) mean += static_cast<double>(r);
        mean /= static_cast<double>(sorted.size());
        p95 = static_cast<double>(sorted[(sorted.size() * 95 + 99) / 100 - 1]);
    }
    auto ms = [](double us) { return std::round(us / 10.0) / 100.0; };
    QJsonObject o{
        {QStringLiteral("link"), QString::fromStdString(session_.linkDescription())},
        {QStringLiteral("transactions"), static_cast<double>(s.transactions())},
        {QStringLiteral("transactionsPerSecond"), std::round(tps * 10.0) / 10.0},
        {QStringLiteral("retries"), static_cast<double>(s.retried())},
        {QStringLiteral("abandoned"), static_cast<double>(s.failed())},
        {QStringLiteral("timeouts"), static_cast<double>(s.timeouts())},
        {QStringLiteral("reconnects"), static_cast<double>(s.reconnects())},
        {QStringLiteral("roundTripMs"), ms(mean)},
        {QStringLiteral("roundTripP95Ms"), ms(p95)},
        {QStringLiteral("streams"), static_cast<double>(hub_.subscribers())},
        {QStringLiteral("writesWaiting"), static_cast<double>(tracker_.pending())},
        {QStringLiteral("time"), isoTime(nowMs())},
    };
    o[QStringLiteral("linkUp")] = linkUp_;
    std::lock_guard<std::mutex> lock(mutex_);
    stats_ = o;
    hub_.publish(sse("stats", stats_));
}

std::string ServeApp::snapshotLocked() const {
    QJsonArray list;
    for (const Unit& u : units_) list.append(unitJson(u, u.value, u.known));
    return "retry: 1000\n" + sse("snapshot", QJsonObject{{QStringLiteral("writesAllowed"), !token_.empty()},
                                                         {QStringLiteral("units"), list},
                                                         {QStringLiteral("stats"), stats_}});
}

EventHub::Handle ServeApp::subscribe(size_t limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    return hub_.subscribe(snapshotLocked(), limit);
}

void ServeApp::resync(const EventHub::Handle& subscriber) {
    std::lock_guard<std::mutex> lock(mutex_);
    hub_.resync(subscriber, snapshotLocked());
}

QByteArray ServeApp::values() {
    std::vector<Unit> units;
    QJsonObject stats;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        units = units_;
        stats = stats_;
    }
    // Read as a screen does, straight from the driver's data area: a value
    // just written shows at once.
    QJsonArray list;
    for (const Unit& u : units) {
        const Address& a = watcher_.addresses()[static_cast<size_t>(u.address)];
        unsigned char buffer[4] = {};
        session_.api().getData(1, a.reg->name, a.address + u.unit, a.reg->unitLength(), buffer);
        list.append(unitJson(u, loadValue(*a.reg, buffer), u.known));
    }
    return compact(QJsonObject{{QStringLiteral("writesAllowed"), !token_.empty()},
                               {QStringLiteral("link"), stats.value(QStringLiteral("link"))},
                               {QStringLiteral("linkUp"), stats.value(QStringLiteral("linkUp"))},
                               {QStringLiteral("units"), list}});
}

QByteArray ServeApp::stats() {
    std::lock_guard<std::mutex> lock(mutex_);
    return compact(stats_);
}

ServeBackend::Reply ServeApp::write(const QByteArray& body, const std::string& peer) {
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        return failure(400, QStringLiteral("the request body is not JSON (%1 at byte %2); %3")
                                .arg(error.errorString())
                                .arg(error.offset)
                                .arg(kWriteExample));
    if (!doc.isObject())
        return failure(400, QStringLiteral("the request body is not a JSON object; ") + kWriteExample);
    const QJsonObject o = doc.object();
    const QJsonValue addressValue = o.value(QStringLiteral("address"));
    const QString address = addressValue.toString().trimmed();
    if (!addressValue.isString() || address.isEmpty())
        return failure(400, QStringLiteral("no \"address\" text in the request; ") + kWriteExample);
    if (address.contains(QLatin1Char('=')))
        return failure(
            400,
            address + QStringLiteral(": malformed address (expected a register and an address, e.g. DM100)"));
    const QJsonValue v = o.value(QStringLiteral("value"));
    QStringList texts;
    QString text;
    bool ok = true;
    if (v.isArray()) {
        for (const QJsonValue& e : v.toArray()) {
            ok = ok && valueText(e, text);
            texts << text;
        }
        ok = ok && !texts.isEmpty();
    } else {
        ok = valueText(v, text);
        texts << text;
    }
    if (!ok)
        return failure(400, QStringLiteral("\"value\" must be a number, a text such as \"0x1234\", or a list "
                                           "of them, one per unit; ") +
                                kWriteExample);

    WriteRequest w;
    QString why;
    if (!parseWriteArgument(catalogue_, session_.api(),
                            address + QLatin1Char('=') + texts.join(QLatin1Char(',')), w, &why))
        return failure(400, why);
    if (w.address.count > kMaxUnitsPerWrite)
        return failure(400, QStringLiteral("%1: at most %2 units per write from the web; split it")
                                .arg(w.address.text)
                                .arg(kMaxUnitsPerWrite));

    const RegisterInfo& reg = *w.address.reg;
    std::vector<unsigned char> buffer(static_cast<size_t>(w.address.bufferBytes()), 0);
    for (int i = 0; i < w.address.count; ++i)
        storeValue(reg, w.values[static_cast<size_t>(i)], buffer.data() + i * reg.unitBytes());
    QStringList shown;
    for (uint32_t x : w.values) shown << QString::number(x);
    const QString what = QStringLiteral("%1 = %2").arg(w.address.text, shown.join(QLatin1Char(',')));

    const WriteTracker::Outcome outcome =
        tracker_.write(session_.api(), w.address, buffer.data(), localWriteOnly_,
                       std::chrono::steady_clock::now() + writeTimeout());

    Reply reply{200, QByteArray()};
    QString result;
    switch (outcome.state) {
        case WriteTracker::State::Written:
            result = QStringLiteral("wrote ") + what +
                     (localWriteOnly_ ? QStringLiteral(" (local write only: the driver's data area, not the "
                                                       "controller)")
                                      : QString());
            reply.body =
                compact(QJsonObject{{QStringLiteral("ok"), true}, {QStringLiteral("message"), result}});
            break;
        case WriteTracker::State::Failed:
            result = QStringLiteral("write %1 failed: %2").arg(w.address.text, outcome.message);
            reply = failure(502, result);
            break;
        case WriteTracker::State::Dropped:
            result = QStringLiteral(
                         "write %1 not carried out: the driver replaced it with a later write to the "
                         "same units")
                         .arg(w.address.text);
            reply = failure(409, result);
            break;
        case WriteTracker::State::TimedOut:
            result = QStringLiteral("write %1 not confirmed within %2 s (%3); it may still be written")
                         .arg(w.address.text)
                         .arg(writeTimeout().count() / 1000)
                         .arg(QString::fromStdString(session_.linkDescription()));
            reply = failure(504, result);
            break;
        case WriteTracker::State::NotQueued:
            result = QStringLiteral("write %1 not queued: the driver's write queue stayed full for %2 s")
                         .arg(w.address.text)
                         .arg(writeTimeout().count() / 1000);
            reply = failure(503, result);
            break;
        case WriteTracker::State::Pending:
        case WriteTracker::State::Closed:
            result = QStringLiteral("write %1 not confirmed: the host is shutting down").arg(w.address.text);
            reply = failure(503, result);
            break;
    }
    logLine(QStringLiteral("web write %1 from %2: %3").arg(what, QString::fromStdString(peer), result),
            false);
    return reply;
}

int runServe(Session& session, const Catalogue& catalogue, const PreparedCommand& cmd,
             const ServeOptions& options) {
    ServeApp app(session, catalogue, cmd.addresses, options);
    std::string error;
    if (!app.bind(&error)) {
        printError(error);
        return 1;
    }
    printLine("serving " + app.origin() + "/");
    if (options.allowWrites) {
        printLine("token: " + app.token());
        printLine("writes from the page: " + app.origin() + "/#token=" + app.token());
    }
    app.run();
    return 0;
}

}  // namespace kvhost
