// The byte link between the host and a controller, and the clock the
// communication loop measures time with. Both are interfaces so that the
// loop runs unchanged over TCP, a serial line, or a scripted fake in tests.
#ifndef KV3000_HOST_LINK_H
#define KV3000_HOST_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kvhost {

// Microseconds on a monotonic scale.
using Micros = int64_t;

class Clock {
public:
    virtual ~Clock() = default;
    virtual Micros now() = 0;
    virtual void sleepFor(Micros us) = 0;
};

class SteadyClock : public Clock {
public:
    Micros now() override;
    void sleepFor(Micros us) override;
};

class Link {
public:
    virtual ~Link() = default;

    // "tcp 127.0.0.1:8000", "serial /dev/ttyUSB0 9600,8,EVEN,1".
    virtual std::string describe() const = 0;
    // Where the peer is: "127.0.0.1:8000", "/dev/ttyUSB0".
    virtual std::string peer() const = 0;
    // Connects or opens the device; false with a reason in error.
    virtual bool open(std::string* error) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;

    // Drops whatever has arrived and was not read: a late reply to an
    // earlier frame must not be taken for the reply to the next one.
    virtual void flushInput() = 0;
    // Sends all bytes; false (link unusable) with a reason in error.
    virtual bool send(const uint8_t* bytes, size_t n, std::string* error) = 0;
    // Waits at most timeout for bytes and reads up to n of them. Returns the
    // count read, 0 when none came in time, -1 when the link was lost (the
    // peer closed or the device went away).
    virtual long receive(uint8_t* buffer, size_t n, Micros timeout) = 0;
    // How long to wait for a reply of this many bytes.
    virtual Micros replyTimeout(int replyLength) const = 0;
    // Whether replies missing entirely several times in a row mean a dead
    // connection (a pulled network cable closes nothing). A quiet serial
    // line says nothing about the device being gone.
    virtual bool silenceMeansLost() const = 0;
};

}  // namespace kvhost

#endif
