#include "sim_protocol.h"

#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"

#include <array>

namespace kvsim {

namespace {

// What an area code names on the device: the row that reads it (for the
// T and C areas, the contacts), and its highest unit in the frame's own
// addressing (the bit number for R and B, the word for relay words).
struct Area {
    const RegInfo* reg = nullptr;
    uint32_t max = 0;
    kvreg::Kind kind() const { return reg ? reg->traits.kind : kvreg::Kind::None; }
};

struct AreaTables {
    std::array<Area, 256> read;   // reads, word writes, bit writes
    std::array<Area, 256> value;  // timer/counter value writes
};

// Built from the catalogue: every row but the bit views names its read
// area; timer/counter values also name their value-write area.
AreaTables buildAreas() {
    AreaTables t;
    for (const RegInfo& r : registers()) {
        const kvreg::Kind kind = r.traits.kind;
        if (kind == kvreg::Kind::BitInWord) continue;
        if (kind == kvreg::Kind::TimerValue) {
            t.value[r.traits.valueWriteArea] = Area{&r, r.max};
            continue;
        }
        t.read[r.area()] = Area{&r, r.max};
    }
    return t;
}

const AreaTables& areas() {
    static const AreaTables t = buildAreas();
    return t;
}

}  // namespace

std::vector<uint8_t> replyEnvelope(const std::vector<uint8_t>& body) {
    std::vector<uint8_t> out;
    out.reserve(body.size() + 6);
    out.push_back(kvwire::ACK);
    out.push_back(kvwire::SOF);
    out.push_back(kvwire::HDR2);
    out.push_back(kvwire::HDR3);
    out.insert(out.end(), body.begin(), body.end());
    out.push_back(
        static_cast<uint8_t>(kvwire::checkSum(out.data() + 3, static_cast<int>(out.size() - 3)) & 0xFF));
    out.push_back(kvwire::EOT);
    return out;
}

namespace {

void put16(std::vector<uint8_t>& v, uint32_t x) {
    v.resize(v.size() + 2);
    kvwire::putBE16(v.data() + v.size() - 2, x);
}

void put32(std::vector<uint8_t>& v, uint32_t x) {
    v.resize(v.size() + 4);
    kvwire::putBE32(v.data() + v.size() - 4, x);
}

// Checks that count units from start lie inside the area; returns the first
// index into the store, or -1.
int64_t firstIndex(const Area& a, uint32_t start, uint32_t count) {
    if (count == 0) return -1;
    uint64_t first = start;
    uint64_t units = count;
    if (a.reg->traits.relayWord) {
        if (start % 16 != 0) return -1;
        first = start / 16;
    } else if (a.kind() == kvreg::Kind::RelayBit) {
        units = static_cast<uint64_t>(count) * 16;
    }
    if (first + units - 1 > a.max) return -1;
    return static_cast<int64_t>(first);
}

bool bitAt(const std::vector<uint16_t>& words, uint64_t bit) {
    return bit / 16 < words.size() && ((words[bit / 16] >> (bit % 16)) & 1u);
}

std::vector<uint8_t> serveRead(Memory& mem, uint8_t code, uint32_t count, uint32_t start, Outcome& outcome) {
    const Area& a = areas().read[code];
    if (!a.reg) return refusal(REFUSE_AREA);
    if (count > MAX_READ_UNITS) return refusal(REFUSE_RANGE);
    const int64_t first = firstIndex(a, start, count);
    if (first < 0) return refusal(REFUSE_RANGE);
    const size_t i0 = static_cast<size_t>(first);

    std::vector<uint8_t> body{kvwire::CMD_WORD, kvwire::CMD_WORD_READ, code};
    put16(body, count);
    auto guard = mem.lock();
    switch (a.kind()) {
        case kvreg::Kind::RelayBit: {
            const auto& words = mem.words(code);
            for (uint32_t j = 0; j < count; ++j) {
                uint32_t v = 0;
                for (uint32_t k = 0; k < 16; ++k) {
                    if (bitAt(words, static_cast<uint64_t>(start) + 16u * j + k)) v |= 1u << k;
                }
                put16(body, v);
            }
            break;
        }
        case kvreg::Kind::Contact: {
            const auto& timers = mem.timers(code);
            for (uint32_t j = 0; j < count; ++j) {
                body.resize(body.size() + kvwire::TC_RECORD_LEN);
                kvwire::writeTimerRecord(body.data() + body.size() - kvwire::TC_RECORD_LEN,
                                         i0 + j < timers.size() ? timers[i0 + j] : TimerRecord{});
            }
            break;
        }
        case kvreg::Kind::Word: {
            const auto& words = mem.words(code);
            for (uint32_t j = 0; j < count; ++j) put16(body, i0 + j < words.size() ? words[i0 + j] : 0);
            break;
        }
        case kvreg::Kind::DWord: {
            const auto& dwords = mem.dwords(code);
            for (uint32_t j = 0; j < count; ++j) put32(body, i0 + j < dwords.size() ? dwords[i0 + j] : 0);
            break;
        }
        default:
            return refusal(REFUSE_AREA);
    }
    outcome = Outcome::Read;
    return replyEnvelope(body);
}

std::vector<uint8_t> serveWordWrite(Memory& mem, uint8_t code, uint32_t count, uint32_t start,
                                    const uint8_t* data, size_t dataLen, Outcome& outcome) {
    const Area& a = areas().read[code];
    if (a.kind() != kvreg::Kind::Word && a.kind() != kvreg::Kind::DWord) return refusal(REFUSE_AREA);
    const size_t width = a.reg->traits.transferBits / 8;
    if (dataLen != static_cast<size_t>(count) * width) return refusal(REFUSE_LENGTH);
    const int64_t first = firstIndex(a, start, count);
    if (first < 0) return refusal(REFUSE_RANGE);
    const size_t i0 = static_cast<size_t>(first);
    {
        auto guard = mem.lock();
        if (width == 4) {
            auto& dwords = mem.dwords(code);
            if (i0 + count > dwords.size()) return refusal(REFUSE_RANGE);
            for (uint32_t j = 0; j < count; ++j) dwords[i0 + j] = kvwire::getBE32(data + 4 * j);
        } else {
            auto& words = mem.words(code);
            if (i0 + count > words.size()) return refusal(REFUSE_RANGE);
            for (uint32_t j = 0; j < count; ++j)
                words[i0 + j] = static_cast<uint16_t>(kvwire::getBE16(data + 2 * j));
        }
    }
    outcome = Outcome::WordWrite;
    return replyEnvelope({kvwire::CMD_WORD, kvwire::CMD_WORD_WRITE, code, 0x00});
}

std::vector<uint8_t> serveBitWrite(Memory& mem, uint8_t cmd, uint8_t code, uint32_t address,
                                   Outcome& outcome) {
    const Area& a = areas().read[code];
    if (a.kind() != kvreg::Kind::RelayBit) return refusal(REFUSE_AREA);
    if (address > a.max) return refusal(REFUSE_RANGE);
    {
        auto guard = mem.lock();
        auto& words = mem.words(code);
        if (address / 16 >= words.size()) return refusal(REFUSE_RANGE);
        const uint16_t mask = static_cast<uint16_t>(1u << (address % 16));
        uint16_t& w = words[address / 16];
        w = cmd == kvwire::CMD_BIT_SET ? static_cast<uint16_t>(w | mask) : static_cast<uint16_t>(w & ~mask);
    }
    outcome = Outcome::BitWrite;
    return replyEnvelope({cmd, code, 0x00});
}

std::vector<uint8_t> serveValueWrite(Memory& mem, uint8_t code, uint32_t address, uint32_t value,
                                     Outcome& outcome) {
    const Area& a = areas().value[code];
    if (a.kind() != kvreg::Kind::TimerValue) return refusal(REFUSE_AREA);
    if (address > a.max) return refusal(REFUSE_RANGE);
    {
        auto guard = mem.lock();
        auto& timers = mem.timers(a.reg->area());
        if (address >= timers.size()) return refusal(REFUSE_RANGE);
        (a.reg->traits.field == kvwire::TimerField::Current ? timers[address].current : timers[address].set) =
            value;
    }
    outcome = Outcome::ValueWrite;
    return replyEnvelope({kvwire::CMD_VALUE_WRITE, code, 0x00});
}

std::vector<uint8_t> serveCommand(Memory& mem, const uint8_t* c, size_t len, Outcome& outcome) {
    if (len == 0) return refusal(REFUSE_LENGTH);
    switch (c[0]) {
        case kvwire::CMD_HANDSHAKE_1:
            if (len != 2 || c[1] != 0x01) return refusal(REFUSE_COMMAND);
            outcome = Outcome::Handshake;
            return replyEnvelope({kvwire::CMD_HANDSHAKE_1, 0x01, 0x00});
        case kvwire::CMD_HANDSHAKE_2: {
            static const uint8_t rest[5] = {0x00, 0x01, 0x06, 0x00, 0x00};
            if (len != 6) return refusal(REFUSE_COMMAND);
            for (size_t i = 0; i < 5; ++i) {
                if (c[1 + i] != rest[i]) return refusal(REFUSE_COMMAND);
            }
            outcome = Outcome::Handshake;
            return replyEnvelope({kvwire::CMD_HANDSHAKE_2, 0x00, 0x01, 0x00});
        }
        case kvwire::CMD_WORD: {
            // 1E sub 00 area 00 00 count(2) start(4) [data]
            if (len < static_cast<size_t>(kvwire::READ_CMD_LEN)) return refusal(REFUSE_LENGTH);
            if (c[2] != 0x00 || (c[1] != kvwire::CMD_WORD_READ && c[1] != kvwire::CMD_WORD_WRITE))
                return refusal(REFUSE_COMMAND);
            if (c[4] != 0x00 || c[5] != 0x00) return refusal(REFUSE_AREA);
            const uint32_t count = kvwire::getBE16(c + 6);
            const uint32_t start = kvwire::getBE32(c + 8);
            if (c[1] == kvwire::CMD_WORD_READ) {
                if (len != static_cast<size_t>(kvwire::READ_CMD_LEN)) return refusal(REFUSE_LENGTH);
                return serveRead(mem, c[3], count, start, outcome);
            }
            return serveWordWrite(mem, c[3], count, start, c + 12, len - 12, outcome);
        }
        case kvwire::CMD_BIT_SET:
        case kvwire::CMD_BIT_RESET:
            // 32|33 00 01 area addr(2)
            if (len != static_cast<size_t>(kvwire::BIT_WRITE_CMD_LEN)) return refusal(REFUSE_LENGTH);
            if (c[1] != 0x00 || c[2] != 0x01) return refusal(REFUSE_COMMAND);
            return serveBitWrite(mem, c[0], c[3], kvwire::getBE16(c + 4), outcome);
        case kvwire::CMD_VALUE_WRITE:
            // 18 00 01 warea addr(2) value(4)
            if (len != static_cast<size_t>(kvwire::VALUE_WRITE_CMD_LEN)) return refusal(REFUSE_LENGTH);
            if (c[1] != 0x00 || c[2] != 0x01) return refusal(REFUSE_COMMAND);
            return serveValueWrite(mem, c[3], kvwire::getBE16(c + 4), kvwire::getBE32(c + 6), outcome);
        default:
            return refusal(REFUSE_COMMAND);
    }
}

bool frameCheckOk(const uint8_t* f, size_t L) {
    return (kvwire::checkSum(f + 2, static_cast<int>(L + 2)) & 0xFF) == f[L + 4];
}

}  // namespace

std::vector<uint8_t> refusal(uint8_t code) {
    return replyEnvelope({REFUSAL, code});
}

std::vector<uint8_t> answer(Memory& mem, const uint8_t* req, size_t n, Outcome* outcome) {
    Outcome result = Outcome::Error;
    std::vector<uint8_t> reply;
    if (!req) n = 0;
    if (n == 1 && req[0] == kvwire::ACK) {
        result = Outcome::Ack;
    } else {
        const size_t skip = (n > 0 && req[0] == kvwire::ACK) ? 1 : 0;
        const uint8_t* f = req + skip;
        const size_t m = n - skip;
        if (m < 6 || f[0] != kvwire::SOF || f[1] != kvwire::HDR2 || f[2] != kvwire::HDR3 ||
            m != static_cast<size_t>(f[3]) + 6 || f[m - 1] != kvwire::EOT) {
            reply = refusal(REFUSE_LENGTH);
        } else if (!frameCheckOk(f, f[3])) {
            reply = refusal(REFUSE_CHECK);
        } else {
            reply = serveCommand(mem, f + 4, f[3], result);
        }
    }
    if (outcome) *outcome = result;
    return reply;
}

std::vector<std::vector<uint8_t>> StreamParser::feed(const uint8_t* data, size_t n) {
    if (data && n) buf_.insert(buf_.end(), data, data + n);
    std::vector<std::vector<uint8_t>> frames;
    size_t p = 0;
    while (p < buf_.size()) {
        // s: where the frame's 01 is; p: where the frame handed out starts
        // (its 06 when acknowledges are kept).
        size_t s = p;
        if (buf_[p] == kvwire::ACK) {
            const bool attached = p + 1 < buf_.size() && buf_[p + 1] == kvwire::SOF;
            if (keepAcks_ && !attached) {
                frames.push_back({kvwire::ACK});
                ++p;
                continue;
            }
            if (p + 1 == buf_.size()) break;
            if (!attached) ++acks_;
            if (!keepAcks_ || !attached) {
                ++p;
                continue;
            }
            s = p + 1;
        }
        const size_t avail = buf_.size() - s;
        if (buf_[s] != kvwire::SOF || (avail >= 2 && buf_[s + 1] != kvwire::HDR2) ||
            (avail >= 3 && buf_[s + 2] != kvwire::HDR3)) {
            ++garbage_;
            p = s + 1;
            continue;
        }
        if (avail < 4) break;
        const size_t total = static_cast<size_t>(buf_[s + 3]) + 6;
        if (avail < total) {
            const size_t q = findCompleteFrame(s + 1);
            if (q == 0) break;
            ++abandoned_;
            p = q;
            continue;
        }
        if (buf_[s + total - 1] != kvwire::EOT) {
            ++garbage_;
            p = s + 1;
            continue;
        }
        frames.emplace_back(buf_.begin() + static_cast<std::ptrdiff_t>(p),
                            buf_.begin() + static_cast<std::ptrdiff_t>(s + total));
        p = s + total;
    }
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(p));
    return frames;
}

// Position of the first complete frame with a valid check byte at or after
// from; 0 when there is none (from is always at least 1).
size_t StreamParser::findCompleteFrame(size_t from) const {
    const size_t size = buf_.size();
    for (size_t q = from; q + 6 <= size; ++q) {
        if (buf_[q] != kvwire::SOF || buf_[q + 1] != kvwire::HDR2 || buf_[q + 2] != kvwire::HDR3) continue;
        const size_t L = buf_[q + 3];
        if (q + L + 6 > size || buf_[q + L + 5] != kvwire::EOT) continue;
        if (frameCheckOk(buf_.data() + q, L)) return q;
    }
    return 0;
}

void StreamParser::expire() {
    if (buf_.size() == 1 && buf_[0] == kvwire::ACK) {
        ++acks_;
    } else if (!buf_.empty()) {
        ++abandoned_;
    }
    buf_.clear();
}

std::vector<uint8_t> feedStream(Memory& mem, const uint8_t* data, size_t n) {
    StreamParser parser;
    std::vector<uint8_t> out;
    for (const auto& frame : parser.feed(data, n)) {
        const auto reply = answer(mem, frame.data(), frame.size());
        out.insert(out.end(), reply.begin(), reply.end());
    }
    return out;
}

}  // namespace kvsim
