// The HTTP side of kv3000-host serve: the page, the JSON API and the live
// stream, on cpp-httplib's thread pool. It checks who may do what (the Host
// a request was sent to, the method, and for writes the token and the
// Origin) and leaves values and writes to a ServeBackend.
#ifndef KV3000_HOST_SERVE_HTTP_H
#define KV3000_HOST_SERVE_HTTP_H

#include "serve_hub.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace kvhost {

class ServeBackend {
public:
    virtual ~ServeBackend() = default;
    virtual QByteArray values() = 0;  // GET /api/values
    virtual QByteArray stats() = 0;   // GET /api/stats
    // A live-stream subscription with a snapshot queued first; nullptr when
    // `limit` streams are open already.
    virtual EventHub::Handle subscribe(size_t limit) = 0;
    // Replaces what the subscriber has queued with a fresh snapshot.
    virtual void resync(const EventHub::Handle& subscriber) = 0;
    virtual EventHub& hub() = 0;
    struct Reply {
        int status;
        QByteArray body;  // JSON
    };
    // POST /api/write, once the request may write: the body as sent.
    virtual Reply write(const QByteArray& body, const std::string& peer) = 0;
};

struct HttpConfig {
    std::string host = "127.0.0.1";
    uint16_t port = 8080;  // 0: a free one
    std::string token;     // empty: writes are refused
    int threads = 160;     // each open connection holds one
    size_t maxStreams = 120;
};

class HttpFront {
public:
    HttpFront(ServeBackend& backend, HttpConfig config);
    ~HttpFront();  // stop()
    HttpFront(const HttpFront&) = delete;
    HttpFront& operator=(const HttpFront&) = delete;

    // Binds the listening socket. false with a reason.
    bool bind(std::string* error);
    // "http://127.0.0.1:8080", with the port actually bound.
    const std::string& origin() const { return origin_; }
    // Serves on a thread of its own until stop().
    void start();
    // Closes the listening socket and every connection, streams included,
    // and waits for the server's threads. Call hub().close() first.
    void stop();

private:
    void routes();

    ServeBackend& backend_;
    HttpConfig config_;
    std::unique_ptr<httplib::Server> server_;
    std::string origin_;
    int listenFd_ = -1;
    uint16_t port_ = 0;
    bool loopbackOnly_ = false;
    bool anyAddress_ = false;
    std::thread thread_;
};

// A token of 256 random bits from the kernel, in hexadecimal; empty when no
// random source answers.
std::string makeToken();
// Compares in time that depends on the lengths only.
bool sameSecret(const std::string& a, const std::string& b);

}  // namespace kvhost

#endif
