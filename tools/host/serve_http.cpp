#include "serve_http.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <httplib.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

// The page is compiled in from web/serve.qrc; a static library needs the
// resource registered by name, outside any namespace.
static QByteArray loadPage() {
    Q_INIT_RESOURCE(serve);
    QFile f(QStringLiteral(":/kv3000/web/index.html"));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<!doctype html><p>page missing</p>");
}

namespace kvhost {

namespace {

constexpr auto kStreamWait = std::chrono::seconds(5);  // a keep-alive comment at least this often
constexpr size_t kMaxBody = 64 * 1024;
constexpr int kBacklog = 128;
const char* const kJson = "application/json";
const char* const kApiHint =
    "the page is /, the API is GET /api/values, GET /api/events, GET /api/stats and POST /api/write";

std::string errorBody(const QString& sentence) {
    return QJsonDocument(QJsonObject{{QStringLiteral("error"), sentence}})
        .toJson(QJsonDocument::Compact)
        .toStdString();
}

void refuse(httplib::Response& res, int status, const QString& sentence) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(errorBody(sentence), kJson);
}

// localhost, ::1, or an IPv4 address of 127.0.0.0/8 (not a name that starts
// with "127.", which anybody may point anywhere).
bool isLoopbackName(const std::string& host) {
    in_addr a{};
    return host == "localhost" || host == "::1" ||
           (inet_pton(AF_INET, host.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127);
}

// The host name of a Host header: "127.0.0.1:8080" -> "127.0.0.1", "[::1]:80" -> "::1".
std::string hostOfHeader(const std::string& value) {
    if (!value.empty() && value.front() == '[') {
        const size_t close = value.find(']');
        return close == std::string::npos ? value : value.substr(1, close - 1);
    }
    return value.substr(0, value.find(':'));
}

}  // namespace

std::string makeToken() {
    unsigned char bytes[32];
    size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::string();
        got += static_cast<size_t>(n);
    }
    static const char hex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token += hex[b >> 4];
        token += hex[b & 15];
    }
    return token;
}

bool sameSecret(const std::string& a, const std::string& b) {
    unsigned char diff = a.size() != b.size();
    const size_t n = std::max(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
        const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
        diff |= x ^ y;
    }
    return diff == 0;
}

HttpFront::HttpFront(ServeBackend& backend, HttpConfig config)
    : backend_(backend), config_(std::move(config)), server_(std::make_unique<httplib::Server>()) {
    const std::string& h = config_.host;
    loopbackOnly_ = isLoopbackName(h);
    anyAddress_ = h == "0.0.0.0" || h == "::";
    const int threads = config_.threads;
    server_->new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
    server_->set_tcp_nodelay(true);
    server_->set_socket_options([this](socket_t fd) {
        httplib::default_socket_options(fd);
        listenFd_ = fd;
    });
    server_->set_payload_max_length(kMaxBody);
    // Short enough that stop() does not wait long for idle connections.
    server_->set_keep_alive_timeout(1);
    server_->set_read_timeout(5);
    server_->set_write_timeout(5);
    routes();
}

HttpFront::~HttpFront() {
    stop();
}

bool HttpFront::bind(std::string* error) {
    int port = -1;
    errno = 0;
    if (config_.port == 0)
        port = server_->bind_to_any_port(config_.host);
    else if (server_->bind_to_port(config_.host, config_.port))
        port = config_.port;
    if (port <= 0) {
        if (error)
            *error = "cannot listen on " + config_.host + ":" + std::to_string(config_.port) +
                     (errno ? std::string(": ") + std::strerror(errno) : std::string());
        return false;
    }
    // The library listens with a backlog of 5: many clients connecting at
    // once (a control room opening its pages) would wait for SYN resends.
    if (listenFd_ >= 0) ::listen(listenFd_, kBacklog);
    port_ = static_cast<uint16_t>(port);
    const std::string h =
        config_.host.find(':') != std::string::npos ? "[" + config_.host + "]" : config_.host;
    origin_ = "http://" + h + ":" + std::to_string(port_);
    return true;
}

void HttpFront::start() {
    thread_ = std::thread([this] { server_->listen_after_bind(); });
}

void HttpFront::stop() {
    if (!thread_.joinable()) return;
    server_->stop();
    thread_.join();
}

void HttpFront::routes() {
    httplib::Server& s = *server_;

    // A page on another site that has its name resolve to 127.0.0.1 still
    // sends its own name as Host: served on loopback, only loopback names pass.
    s.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (!loopbackOnly_) return httplib::Server::HandlerResponse::Unhandled;
        const std::string host = hostOfHeader(req.get_header_value("Host"));
        if (isLoopbackName(host)) return httplib::Server::HandlerResponse::Unhandled;
        refuse(res, 403,
               QStringLiteral("refused: the request names the host '%1', not this server; open %2/")
                   .arg(QString::fromStdString(host), QString::fromStdString(origin_)));
        return httplib::Server::HandlerResponse::Handled;
    });
    s.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            QString why;
            if (res.status == 404)
                why = QStringLiteral("no such page: %1 (%2)").arg(QString::fromStdString(req.path), kApiHint);
            else if (res.status == 413)
                why = QStringLiteral("request body too large (at most %1 bytes)").arg(kMaxBody);
            else
                why = QStringLiteral("HTTP %1: the request could not be served").arg(res.status);
            res.set_content(errorBody(why), kJson);
            return httplib::Server::HandlerResponse::Handled;
        }));

    static const QByteArray page = loadPage();
    auto servePage = [](const httplib::Request&, httplib::Response& res) {
        res.set_header("Content-Security-Policy",
                       "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                       "connect-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; "
                       "frame-ancestors 'none'");
        res.set_header("X-Content-Type-Options", "nosniff");
        res.set_header("Referrer-Policy", "no-referrer");
        res.set_header("Cache-Control", "no-store");
        res.set_content(page.constData(), static_cast<size_t>(page.size()), "text/html; charset=utf-8");
    };
    s.Get("/", servePage);
    s.Get("/index.html", servePage);

    auto json = [](httplib::Response& res, int status, const QByteArray& body) {
        res.status = status;
        res.set_header("Cache-Control", "no-store");
        res.set_content(body.constData(), static_cast<size_t>(body.size()), kJson);
    };
    s.Get("/api/values", [this, json](const httplib::Request&, httplib::Response& res) {
        json(res, 200, backend_.values());
    });
    s.Get("/api/stats", [this, json](const httplib::Request&, httplib::Response& res) {
        json(res, 200, backend_.stats());
    });

    s.Get("/api/events", [this](const httplib::Request&, httplib::Response& res) {
        EventHub::Handle sub = backend_.subscribe(config_.maxStreams);
        if (!sub) {
            refuse(res, 503,
                   QStringLiteral("too many live streams (%1 open); close a page, or poll GET /api/values")
                       .arg(config_.maxStreams));
            return;
        }
        res.set_header("Cache-Control", "no-store");
        res.set_header("X-Accel-Buffering", "no");
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, sub](size_t, httplib::DataSink& sink) {
                std::string out;
                switch (backend_.hub().take(sub, out, kStreamWait)) {
                    case EventHub::Take::Closed:
                        return false;  // closes the connection at once, no keep-alive wait
                    case EventHub::Take::Overflowed:
                        backend_.resync(sub);
                        return true;
                    case EventHub::Take::Timeout:
                        out = ": keep-alive\n\n";
                        break;
                    case EventHub::Take::Messages:
                        break;
                }
                // A client that went away fails the write and ends the stream.
                return sink.write(out.data(), out.size());
            },
            [this, sub](bool) { backend_.hub().unsubscribe(sub); });
    });

    s.Post("/api/write", [this, json](const httplib::Request& req, httplib::Response& res) {
        if (config_.token.empty()) {
            refuse(res, 403, QStringLiteral("writes are off: start kv3000-host serve with --allow-writes"));
            return;
        }
        const std::string auth = req.get_header_value("Authorization");
        if (auth.rfind("Bearer ", 0) != 0) {
            res.set_header("WWW-Authenticate", "Bearer");
            refuse(res, 401,
                   QStringLiteral("write refused: no token (send Authorization: Bearer TOKEN with the "
                                  "token kv3000-host serve printed at start)"));
            return;
        }
        if (!sameSecret(auth.substr(7), config_.token)) {
            res.set_header("WWW-Authenticate", "Bearer");
            refuse(res, 401,
                   QStringLiteral(
                       "write refused: wrong token (use the one kv3000-host serve printed at start)"));
            return;
        }
        // Same origin only: the page's own origin as served, or with a
        // wildcard listening address, the one the request was sent to.
        const std::string expected = anyAddress_ ? "http://" + req.get_header_value("Host") : origin_;
        if (!req.has_header("Origin")) {
            refuse(res, 403,
                   QStringLiteral("write refused: no Origin header (send Origin: %1)")
                       .arg(QString::fromStdString(expected)));
            return;
        }
        const std::string origin = req.get_header_value("Origin");
        if (origin != expected) {
            refuse(res, 403,
                   QStringLiteral("cross-site write refused: Origin '%1' is not %2")
                       .arg(QString::fromStdString(origin), QString::fromStdString(expected)));
            return;
        }
        const ServeBackend::Reply r = backend_.write(QByteArray::fromStdString(req.body), req.remote_addr);
        json(res, r.status, r.body);
    });
    auto onlyPost = [](const httplib::Request& req, httplib::Response& res) {
        res.set_header("Allow", "POST");
        refuse(res, 405,
               QStringLiteral("%1 cannot write: send POST /api/write with {\"address\": \"DM100\", "
                              "\"value\": 1234}")
                   .arg(QString::fromStdString(req.method)));
    };
    s.Get("/api/write", onlyPost);
    s.Put("/api/write", onlyPost);
    s.Patch("/api/write", onlyPost);
    s.Delete("/api/write", onlyPost);
    s.Options("/api/write", onlyPost);
}

}  // namespace kvhost
