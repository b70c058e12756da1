// Cuts the data field of an accepted read reply into values, stores them in
// the data area with change reports, copies recipe reads into the runtime's
// recipe buffer, and completes the write frame of a bit write into words.
//
// Device layouts of the data field (d[k] = reply[offset + k]):
//   R, B       16 bits per word, high byte first; element 0 is bit 0 of the low byte
//   T, C       nine-byte records, the contact in bit 7 of byte 0
//   TC, CC     nine-byte records, current value in bytes 1-4 (high byte first)
//   TS, CS     nine-byte records, set value in bytes 5-8
//   Z, TRM     four bytes per value, high byte first
//   words      two bytes per word, high byte first
// A byte missing at the end of the reply counts 0.
#include "serviceForProtocol/value_parser.h"

#include "kv3000_catalogue.h"
#include "kv3000_wire.h"
#include "kv_3000/frame_builder.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <algorithm>
#include <climits>
#include <vector>

namespace {

struct Reply {
    const unsigned char* bytes;
    long long size;
    long long offset;
    unsigned char operator[](long long k) const {
        const long long p = offset + k;
        return (p >= 0 && p < size) ? bytes[p] : 0;
    }
};

// Recipe entries that the outstanding recipe read covers: [first, last).
struct RecipeRange {
    int first = 0;
    int last = 0;
};

RecipeRange recipeRange() {
    RecipeRange r;
    if (driver.state != 6) return r;
    const int blocks = driver.rcpFirstIndex.size();
    const int b = driver.rcpFrameIndex;
    const int entries = driver.rcpVarList.size();
    if (b < 0 || b >= blocks) return r;
    r.first = driver.rcpFirstIndex.at(b);
    // Pieces of one long entry share its index: each piece still covers that entry.
    r.last = b + 1 < blocks ? std::max(driver.rcpFirstIndex.at(b + 1), r.first + 1) : entries;
    r.first = std::clamp(r.first, 0, entries);
    r.last = std::clamp(r.last, r.first, entries);
    return r;
}

bool storeRecipeWord(long long w, unsigned short value) {
    if (!driver.recipeBuffer || w < 0 || w > INT_MAX) return false;
    driver.recipeBuffer[w] = value;
    return true;
}

void announceRecipeWord(long long w) {
    if (driver.valueChangeCallBack) {
        const QString name = QStringLiteral("RWI");
        driver.valueChangeCallBack(0, -1, name, static_cast<int>(w));
    }
}

void putRecipeWord(long long w, unsigned short value) {
    if (storeRecipeWord(w, value)) announceRecipeWord(w);
}

// The j of an entry's elements (0 <= j < length) whose unit, entryStart + j,
// lies in [lo, hi): iterating only those keeps a huge length cheap.
struct Span {
    long long begin;
    long long end;
};
Span elementsWithin(long long entryStart, long long length, long long lo, long long hi) {
    return {std::max(0LL, lo - entryStart), std::min(length, hi - entryStart)};
}

bool writeViewMayDrop(const _DATA_& entry) {
    if (entry.bitWriteFlags == 0) return true;
    std::lock_guard<std::mutex> lock(driver.mutex);
    return driver.writeList.isEmpty();
}

bool unitAddress(long long base, long long i, int& out) {
    const long long a = base + i;
    if (a < INT_MIN || a > INT_MAX) return false;
    out = static_cast<int>(a);
    return true;
}

// Bit write into words: the words just read get the requested bits, and go
// into the waiting write frame high byte first, with a renewed check byte.
void patchBitWrite(const Reply& d, int count, const VARIABLE& var) {
    if (driver.frameList.size() < 2 || var.address < 0 || count <= 0) return;
    FRAME_PRO& write = driver.frameList[1];
    const int at = write.dataOffset;
    if (at < 0 || write.sendLength < 5 || write.sendLength > KV_BUFFER_SIZE) return;
    if (static_cast<long long>(at) + 2LL * count > write.sendLength - 2) return;

    std::vector<unsigned char> words(static_cast<size_t>(count) * 2);
    for (int w = 0; w < count; ++w) {  // low byte first
        words[2 * w] = d[2 * w + 1];
        words[2 * w + 1] = d[2 * w];
    }
    const int first = var.address % 16;
    const int n = std::min<int>(var.length, KV_BUFFER_SIZE);
    for (int j = 0; j < n; ++j) {
        const long long q = first + j;
        if (q / 8 >= static_cast<long long>(words.size())) break;
        const unsigned char mask = static_cast<unsigned char>(1u << (q % 8));
        if (var.data[j])
            words[q / 8] |= mask;
        else
            words[q / 8] &= static_cast<unsigned char>(~mask);
    }
    for (int w = 0; w < count; ++w) {
        write.frame[at + 2 * w] = words[2 * w + 1];
        write.frame[at + 2 * w + 1] = words[2 * w];
    }
    write.frame[write.sendLength - 2] = static_cast<unsigned char>(
        computate_check(write.frame + 3, static_cast<unsigned short>(write.sendLength - 5)));
}

}  // namespace

int analyzeFrameOfVal(QByteArray reply, int count, int offset, VARIABLE var) {
    const int index = getIndexFromRegName(var.reg);
    if (index < 0 || count <= 0) return 0;
    const Reply d{reinterpret_cast<const unsigned char*>(reply.constData()), reply.size(), offset};
    const RecipeRange recipe = recipeRange();
    // A copy: the change callback may register another recipe under us.
    const QVector<_RCP_VAR_PRO> recipeEntries = driver.rcpVarList;
    const int transfer = regTransferBits(index);
    const int station = var.station;
    const uint32_t epoch = driver.initEpoch;
    auto interrupted = [epoch] { return driver.initEpoch != epoch; };

    if (transfer == 1) {
        const bool contacts = var.reg == QLatin1String("T") || var.reg == QLatin1String("C");
        for (int i = 0; i < count; ++i) {
            int address;
            if (!unitAddress(var.address, i, address)) break;
            const unsigned char bit =
                contacts ? (d[9LL * i] >> 7) & 1 : (d[(i % 16) < 8 ? i / 8 + 1 : i / 8 - 1] >> (i % 8)) & 1;
            const int at = getIndexOfDataArea(station, var.reg, address, driver.dataArea);
            if (driver.dataArea[at].readValue[0] != bit) {
                driver.dataArea[at].writeValid = 0;
                _bitDataChange(at);
                if (interrupted()) return 0;
            }
            driver.dataArea[at].readValue[0] = bit;
        }
        // Bit-register recipe entries: one buffer word per bit.
        for (int k = recipe.first; k < recipe.last; ++k) {
            const _RCP_VAR_PRO e = recipeEntries.at(k);
            const Span span = elementsWithin(e.address, e.length, var.address, var.address + 0LL + count);
            for (long long j = span.begin; j < span.end; ++j) {
                const long long element = static_cast<long long>(e.address) + j - var.address;
                const int at =
                    getIndexOfDataArea(station, var.reg, int(var.address + element), driver.dataArea);
                putRecipeWord(static_cast<long long>(e.bufferOffset) + j, driver.dataArea[at].readValue[0]);
                if (interrupted()) return 0;
            }
        }
        return 0;
    }

    const QString key = regKeyOf(var.reg);
    const bool bitName = var.reg.contains(QLatin1String("_bit"));

    if (transfer == 16) {
        if (bitName && (driver.state == 2 || driver.state == 5)) {
            patchBitWrite(d, count, var);
            return 0;
        }
        // A "_bit" block (recipe) carries a bit address: its words start at address / 16.
        if (bitName && var.address < 0) return 0;
        const long long base = bitName ? var.address / 16 : var.address;
        for (int i = 0; i < count; ++i) {
            int address;
            if (!unitAddress(base, i, address)) break;
            const int at = getIndexOfDataArea(station, key, address, driver.dataArea);
            int fresh = d[2LL * i] * 256 + d[2LL * i + 1];
            _DATA_& entry = driver.dataArea[at];
            int old = entry.readValue[0] + entry.readValue[1] * 256;
            if (fresh != old) {
                if (writeViewMayDrop(entry)) entry.writeValid = 0;
                _wordDataChange(&old, &fresh, at, 0);
                if (interrupted()) return 0;
            }
            driver.dataArea[at].readValue[0] = d[2LL * i + 1];
            driver.dataArea[at].readValue[1] = d[2LL * i];
        }
        for (int k = recipe.first; k < recipe.last; ++k) {
            const _RCP_VAR_PRO e = recipeEntries.at(k);
            const Span span = bitName ? elementsWithin(e.address, e.length, base * 16, (base + count) * 16)
                                      : elementsWithin(e.address, e.length, base, base + count);
            for (long long j = span.begin; j < span.end; ++j) {
                long long word, shift = 0;
                if (bitName) {  // one buffer word per bit
                    const long long bit = static_cast<long long>(e.address) + j;
                    word = bit / 16 - base;
                    shift = bit % 16;
                } else {
                    word = static_cast<long long>(e.address) + j - base;
                }
                const unsigned value = d[2 * word] * 256u + d[2 * word + 1];
                putRecipeWord(static_cast<long long>(e.bufferOffset) + j,
                              bitName ? (value >> shift) & 1u : static_cast<unsigned short>(value));
                if (interrupted()) return 0;
            }
        }
        return 0;
    }

    if (transfer != 32) return 0;
    const bool current = var.reg == QLatin1String("TC") || var.reg == QLatin1String("CC");
    const bool set = var.reg == QLatin1String("TS") || var.reg == QLatin1String("CS");
    auto valueAt = [&](long long i) -> uint32_t {
        const long long p = current ? 9 * i + 1 : set ? 9 * i + 5 : 4 * i;
        return (uint32_t(d[p]) << 24) | (uint32_t(d[p + 1]) << 16) | (uint32_t(d[p + 2]) << 8) | d[p + 3];
    };
    for (int i = 0; i < count; ++i) {
        int address;
        if (!unitAddress(var.address, i, address)) break;
        const int at = getIndexOfDataArea(station, key, address, driver.dataArea);
        const uint32_t v = valueAt(i);
        _DATA_& entry = driver.dataArea[at];
        int fresh = static_cast<int>(v);
        int old = uchar2int32(entry.readValue[0], entry.readValue[1], entry.readValue[2], entry.readValue[3]);
        if (fresh != old) {
            if (writeViewMayDrop(entry)) entry.writeValid = 0;
            _dwordDataChange(&old, &fresh, at, 0);
            if (interrupted()) return 0;
        }
        for (int b = 0; b < 4; ++b)
            driver.dataArea[at].readValue[b] = static_cast<unsigned char>(v >> (8 * b));
    }
    // Every value of a 32-bit entry: length / 2 values (at least one), two buffer words each.
    for (int k = recipe.first; k < recipe.last; ++k) {
        const _RCP_VAR_PRO e = recipeEntries.at(k);
        const long long values = std::max(1, e.length / 2);
        const Span span = elementsWithin(e.address, values, var.address, var.address + 0LL + count);
        for (long long j = span.begin; j < span.end; ++j) {
            const uint32_t v = valueAt(static_cast<long long>(e.address) + j - var.address);
            const long long w = static_cast<long long>(e.bufferOffset) + 2 * j;
            if (!storeRecipeWord(w, static_cast<unsigned short>(v & 0xFFFF)) ||
                !storeRecipeWord(w + 1, static_cast<unsigned short>(v >> 16)))
                continue;
            announceRecipeWord(w);
            if (interrupted()) return 0;
            announceRecipeWord(w + 1);
            if (interrupted()) return 0;
        }
    }
    return 0;
}
