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
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "kv_3000/frame_builder.h"
#include "protocol.h"
#include "serviceForProtocol/data_area.h"

#include <algorithm>
#include <climits>
#include <unordered_map>
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
    // The timer record of element i, bytes missing at the end counting 0.
    kvwire::TimerRecord timerRecord(long long i) const {
        uint8_t record[kvwire::TC_RECORD_LEN];
        for (int b = 0; b < kvwire::TC_RECORD_LEN; ++b) record[b] = (*this)[kvwire::TC_RECORD_LEN * i + b];
        return kvwire::readTimerRecord(record);
    }
};

// Recipe entries that the outstanding recipe read covers: [first, last).
struct RecipeRange {
    int first = 0;
    int last = 0;
};

RecipeRange recipeRange() {
    RecipeRange r;
    if (driver.state != STATE_RECIPE_READ) return r;
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
void patchBitWrite(const Reply& d, int count, const ParsedBlock& var) {
    if (driver.frameList.size() < 2 || var.address < 0 || count <= 0) return;
    // The requested bits, taken before the list is touched: var.data may lie in its head.
    const int n = std::min<int>(var.length, KV_BUFFER_SIZE);
    std::vector<unsigned char> bits(var.data, var.data + std::max(0, n));
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
    for (int j = 0; j < n; ++j) {
        const long long q = first + j;
        if (q / 8 >= static_cast<long long>(words.size())) break;
        const unsigned char mask = static_cast<unsigned char>(1u << (q % 8));
        if (bits[j])
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

// A cyclic read block, by what its reply covers.
struct BlockKey {
    int32_t station;
    int32_t row;
    long long base;
    int32_t count;
    bool operator==(const BlockKey& o) const {
        return station == o.station && row == o.row && base == o.base && count == o.count;
    }
};
struct BlockKeyHash {
    size_t operator()(const BlockKey& k) const noexcept {
        uint64_t h = static_cast<uint64_t>(k.base) * 0x9E3779B97F4A7C15ull;
        h ^= (uint64_t(uint32_t(k.station)) << 32 | uint32_t(k.row) << 8) + uint32_t(k.count);
        return static_cast<size_t>(h ^ (h >> 31));
    }
};

std::unordered_map<BlockKey, std::vector<int>, BlockKeyHash> blockUnits;
// Bumped when blockUnits is emptied, so a parse that a change report
// interrupted stops using a position list that went away.
uint64_t blockUnitsGeneration = 0;

// The data-area positions of a reply's units. A cyclic read block keeps the
// list from one reply to the next; each position is checked against its
// unit before use (entries are never removed one by one, so a position stays
// right until the data area is emptied) and looked up again when it fails.
class BlockUnits {
public:
    BlockUnits(int station, int row, int keyIndex, long long base, int count)
        : station_(station), keyIndex_(keyIndex), key_(catalogueKeyName(keyIndex)) {
        if (driver.state != STATE_CYCLIC_READ) return;
        list_ = &blockUnits[BlockKey{station, row, base, count}];
        generation_ = blockUnitsGeneration;
        if (list_->capacity() < size_t(count)) list_->reserve(size_t(count));
    }
    int at(int i, int address) {
        if (list_ && generation_ != blockUnitsGeneration) list_ = nullptr;
        if (list_ && size_t(i) < list_->size()) {
            const int pos = (*list_)[size_t(i)];
            if (pos >= 0 && pos < driver.dataArea.size() &&
                entryHasKey(driver.dataArea.at(pos), station_, key_, address))
                return pos;
        }
        UnitRegister unit;
        unit.kind = Unit::Word;
        unit.key = key_;
        unit.keyIndex = keyIndex_;
        const int pos = dataAreaEntry(station_, unit, address);
        if (list_) {
            if (size_t(i) < list_->size())
                (*list_)[size_t(i)] = pos;
            else if (size_t(i) == list_->size())
                list_->push_back(pos);
        }
        return pos;
    }

private:
    int station_;
    int keyIndex_;
    const QString& key_;
    std::vector<int>* list_ = nullptr;
    uint64_t generation_ = 0;
};

}  // namespace

void forgetReadBlockUnits() {
    blockUnits.clear();
    ++blockUnitsGeneration;
}

int analyzeFrameOfVal(QByteArray reply, int count, int offset, VARIABLE var) {
    return parseReadReply(reply, count, offset,
                          ParsedBlock{var.station, var.reg, var.address, var.length, var.data});
}

int parseReadReply(const QByteArray& reply, int count, int offset, const ParsedBlock& var) {
    const int index = getIndexFromRegName(var.reg);
    const kvreg::Traits& t = kvreg::traits(index);
    if (index < 0 || count <= 0) return 0;
    const Reply d{reinterpret_cast<const unsigned char*>(reply.constData()), reply.size(), offset};
    const RecipeRange recipe = recipeRange();
    // A copy: the change callback may register another recipe under us.
    const QVector<_RCP_VAR_PRO> recipeEntries = driver.rcpVarList;
    const int station = var.station;
    const uint32_t epoch = driver.initEpoch;
    auto interrupted = [epoch] { return driver.initEpoch != epoch; };

    if (t.transferBits == 1) {
        const bool contacts = t.kind == kvreg::Kind::Contact;
        BlockUnits units(station, index, index, var.address, count);
        for (int i = 0; i < count; ++i) {
            int address;
            if (!unitAddress(var.address, i, address)) break;
            // Relay bits come 16 to a word, high byte first.
            const unsigned char bit = contacts ? d.timerRecord(i).contact
                                               : (d[(i % 16) < 8 ? i / 8 + 1 : i / 8 - 1] >> (i % 8)) & 1;
            const int at = units.at(i, address);
            if (driver.dataArea[at].readValue[0] != bit) {
                driver.dataArea[at].writeValid = 0;
                reportUnitChange(at);
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

    const int keyIndex = t.keyRow;
    const bool bitName = t.kind == kvreg::Kind::BitInWord;

    if (t.transferBits == 16) {
        if (bitName && (driver.state == STATE_WRITE || driver.state == STATE_RECIPE_WRITE)) {
            patchBitWrite(d, count, var);
            return 0;
        }
        // A "_bit" block (recipe) carries a bit address: its words start at address / 16.
        if (bitName && var.address < 0) return 0;
        const long long base = bitName ? var.address / 16 : var.address;
        BlockUnits units(station, index, keyIndex, base, count);
        const QString& keyName = catalogueKeyName(keyIndex);
        // The whole field is there (the response check saw to it): read it directly.
        const unsigned char* field = offset >= 0 && offset + 2LL * count <= reply.size()
                                         ? reinterpret_cast<const unsigned char*>(reply.constData()) + offset
                                         : nullptr;
        for (int i = 0; i < count; ++i) {
            int address;
            if (!unitAddress(base, i, address)) break;
            const int at = units.at(i, address);
            const unsigned char high = field ? field[2 * i] : d[2LL * i];
            const unsigned char low = field ? field[2 * i + 1] : d[2LL * i + 1];
            const int fresh = high * 256 + low;
            _DATA_* entry = &driver.dataArea[at];
            const int old = entry->readValue[0] + entry->readValue[1] * 256;
            if (fresh != old) {
                if (writeViewMayDrop(*entry)) entry->writeValid = 0;
                bool reported = true;
                if (entry->monitorBits != 0)
                    wordDataChangeOf(&old, &fresh, at, 0, keyIndex);
                else if (entry->monitorFlags & 1u)
                    reportValueChange(entry->station, keyName, entry->address);
                else
                    reported = false;
                if (reported) {  // the runtime may have called back in
                    if (interrupted()) return 0;
                    entry = &driver.dataArea[at];
                }
            }
            entry->readValue[0] = low;
            entry->readValue[1] = high;
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

    if (t.transferBits != 32) return 0;
    auto valueAt = [&](long long i) -> uint32_t {
        if (t.kind == kvreg::Kind::TimerValue) return kvwire::timerField(d.timerRecord(i), t.field);
        return (uint32_t(d[4 * i]) << 24) | (uint32_t(d[4 * i + 1]) << 16) | (uint32_t(d[4 * i + 2]) << 8) |
               d[4 * i + 3];
    };
    BlockUnits units(station, index, keyIndex, var.address, count);
    for (int i = 0; i < count; ++i) {
        int address;
        if (!unitAddress(var.address, i, address)) break;
        const int at = units.at(i, address);
        const uint32_t v = valueAt(i);
        _DATA_& entry = driver.dataArea[at];
        const int fresh = static_cast<int>(v);
        const int old =
            uchar2int32(entry.readValue[0], entry.readValue[1], entry.readValue[2], entry.readValue[3]);
        if (fresh != old) {
            if (writeViewMayDrop(entry)) entry.writeValid = 0;
            reportUnitChange(at);
            if (interrupted()) return 0;
        }
        for (int b = 0; b < 4; ++b)
            driver.dataArea[at].readValue[b] = static_cast<unsigned char>(v >> (8 * b));
    }
    // Every value of a 32-bit entry: length / 2 values, two buffer words each.
    for (int k = recipe.first; k < recipe.last; ++k) {
        const _RCP_VAR_PRO e = recipeEntries.at(k);
        const long long values = e.length / 2;
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
