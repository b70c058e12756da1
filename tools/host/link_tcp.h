// TCP client link.
#ifndef KV3000_HOST_LINK_TCP_H
#define KV3000_HOST_LINK_TCP_H

#include "link.h"

#include <cstdint>
#include <string>

namespace kvhost {

// "HOST:PORT" or "[IPv6]:PORT"; port 1..65535.
bool parseHostPort(const std::string& text, std::string& host, uint16_t& port, std::string* error);

class TcpLink : public Link {
public:
    TcpLink(std::string host, uint16_t port, Micros connectTimeout, Micros replyTimeout);
    ~TcpLink() override;

    std::string describe() const override;
    std::string peer() const override;
    bool open(std::string* error) override;
    void close() override;
    bool isOpen() const override { return fd_ >= 0; }
    void flushInput() override;
    bool send(const uint8_t* bytes, size_t n, std::string* error) override;
    long receive(uint8_t* buffer, size_t n, Micros timeout) override;
    Micros replyTimeout(int) const override { return replyTimeout_; }
    bool silenceMeansLost() const override { return true; }

private:
    std::string host_;
    uint16_t port_;
    Micros connectTimeout_;
    Micros replyTimeout_;
    int fd_ = -1;
};

}  // namespace kvhost

#endif
