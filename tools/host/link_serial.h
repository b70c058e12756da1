// Serial line link (termios, raw mode).
#ifndef KV3000_HOST_LINK_SERIAL_H
#define KV3000_HOST_LINK_SERIAL_H

#include "link.h"

#include <string>

namespace kvhost {

struct SerialParams {
    int baud = 9600;
    int dataBits = 8;
    char parity = 'E';  // 'N', 'E' or 'O'
    int stopBits = 1;
    int bitsPerCharacter() const { return 1 + dataBits + (parity == 'N' ? 0 : 1) + stopBits; }
    std::string text() const;  // "9600,8,EVEN,1"
};

// "9600,8,EVEN,1": baud, data bits (5-8), parity NONE/EVEN/ODD, stop bits (1-2).
bool parseSerialParams(const std::string& text, SerialParams& out, std::string* error);

class SerialLink : public Link {
public:
    // margin: added to the transmission time of a reply to make its timeout.
    SerialLink(std::string device, SerialParams params, Micros margin);
    ~SerialLink() override;

    std::string describe() const override;
    std::string peer() const override { return device_; }
    bool open(std::string* error) override;
    void close() override;
    bool isOpen() const override { return fd_ >= 0; }
    void flushInput() override;
    bool send(const uint8_t* bytes, size_t n, std::string* error) override;
    long receive(uint8_t* buffer, size_t n, Micros timeout) override;
    Micros replyTimeout(int replyLength) const override;
    bool silenceMeansLost() const override { return false; }

private:
    std::string device_;
    SerialParams params_;
    Micros margin_;
    int fd_ = -1;
};

}  // namespace kvhost

#endif
