// Front-to-back reading of a fuzz input, and the matching writer that the
// corpus generator uses, so that seeds can be composed from real frames.
// Reading past the end yields zeros; the harness then simply stops.
#ifndef KV3000_FUZZ_INPUT_H
#define KV3000_FUZZ_INPUT_H

#include "kv3000_catalogue.h"

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// Aborts so that libFuzzer records the input: the harness found a broken promise.
#define KV_FUZZ_ASSERT(cond)                                                                \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            std::fprintf(stderr, "%s:%d: promise broken: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                   \
        }                                                                                   \
    } while (0)

namespace kvfuzz {

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : p_(data), n_(size) {}
    bool empty() const { return n_ == 0; }
    size_t left() const { return n_; }

    uint8_t u8() {
        if (n_ == 0) return 0;
        --n_;
        return *p_++;
    }
    uint16_t u16() {
        const uint8_t low = u8();
        return static_cast<uint16_t>(low | u8() << 8);
    }
    int32_t i32() {
        const uint16_t low = u16();
        return static_cast<int32_t>(low | static_cast<uint32_t>(u16()) << 16);
    }
    std::vector<uint8_t> bytes(size_t count) {
        if (count > n_) count = n_;
        std::vector<uint8_t> out(p_, p_ + count);
        p_ += count;
        n_ -= count;
        return out;
    }
    // A length byte, then that many bytes.
    std::vector<uint8_t> blob() { return bytes(u8()); }
    // A 16-bit length, then that many bytes.
    std::vector<uint8_t> blob16() { return bytes(u16()); }

    // Mostly small numbers, now and then any 32-bit value: the selector byte
    // picks the shape, so that ranges and edges are both reached.
    int32_t number(int32_t smallMax) {
        const uint8_t shape = u8();
        if (shape < 200) return static_cast<int32_t>(u16() % (static_cast<uint32_t>(smallMax) + 1));
        if (shape < 230) return -static_cast<int32_t>(u8() % 4);
        return i32();
    }
    // A catalogue register name, now and then a name outside it.
    QString regName() {
        const uint8_t pick = u8();
        if (pick < REG_COUNT * 8) return QString::fromLatin1(REG_LIST[pick % REG_COUNT]);
        const std::vector<uint8_t> raw = blob();
        return QString::fromUtf8(reinterpret_cast<const char*>(raw.data()), static_cast<int>(raw.size()));
    }

private:
    const uint8_t* p_;
    size_t n_;
};

class Writer {
public:
    Writer& u8(uint8_t v) {
        out.push_back(v);
        return *this;
    }
    Writer& u16(uint16_t v) { return u8(static_cast<uint8_t>(v)).u8(static_cast<uint8_t>(v >> 8)); }
    Writer& i32(int32_t v) {
        return u16(static_cast<uint16_t>(v)).u16(static_cast<uint16_t>(static_cast<uint32_t>(v) >> 16));
    }
    Writer& bytes(const uint8_t* p, size_t n) {
        out.insert(out.end(), p, p + n);
        return *this;
    }
    Writer& blob(const std::vector<uint8_t>& b) {
        const size_t n = b.size() > 255 ? 255 : b.size();
        return u8(static_cast<uint8_t>(n)).bytes(b.data(), n);
    }
    Writer& blob16(const std::vector<uint8_t>& b) {
        const size_t n = b.size() > 65535 ? 65535 : b.size();
        return u16(static_cast<uint16_t>(n)).bytes(b.data(), n);
    }
    // Inverse of Reader::number for values 0 .. smallMax.
    Writer& number(int32_t v) { return u8(0).u16(static_cast<uint16_t>(v)); }
    Writer& anyNumber(int32_t v) { return u8(255).i32(v); }
    Writer& regName(int catalogueIndex) { return u8(static_cast<uint8_t>(catalogueIndex)); }

    std::vector<uint8_t> out;
};

}  // namespace kvfuzz

#endif
