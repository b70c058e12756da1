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

// A block's data-area positions, and whether they follow one another (the
// entries were made in the order of the block's units).
struct PositionList {
    std::vector<int> at;
    bool consecutive = false;
};
std::unordered_map<BlockKey, PositionList, BlockKeyHash> blockUnits;
// Bumped when blockUnits is emptied, so a parse that a change report
// interrupted stops using a position list that went away.
uint64_t blockUnitsGeneration = 0;

// The data-area positions of a reply's units (those inside the int range
// from base). A cyclic read block keeps its list from one reply to the next:
// entries are never removed one by one, so a position stays right until the
// data area is emptied, which forgets every list; a list whose first or last
// unit no longer matches is looked up anew. A change report may register
// anew, which forgets the lists too: the units left are then looked up one
// by one.
class BlockUnits {
public:
    BlockUnits(int station, int row, int keyIndex, long long base, int count)
        : station_(station),
          keyIndex_(keyIndex),
          key_(catalogueKeyName(keyIndex)),
          base_(base),
          count_(static_cast<int>(std::max(0LL, std::min<long long>(count, INT_MAX - base + 1)))),
          generation_(blockUnitsGeneration) {
        if (count_ == 0) return;
        PositionList& list =
            driver.state == STATE_CYCLIC_READ ? blockUnits[BlockKey{station, row, base, count}] : scratch_;
        if (&list == &scratch_ || size_t(count_) != list.at.size() || !holds(0, list.at.front()) ||
            !holds(count_ - 1, list.at.back())) {
            list.at.resize(size_t(count_));
            list.consecutive = true;
            for (int i = 0; i < count_; ++i) {
                list.at[size_t(i)] = lookUp(i);
                list.consecutive = list.consecutive && list.at[size_t(i)] == list.at[0] + i;
            }
        }
        positions_ = list.at.data();
        consecutive_ = list.consecutive;
    }
    BlockUnits(const BlockUnits&) = delete;
    BlockUnits& operator=(const BlockUnits&) = delete;

    int size() const { return count_; }
    int address(int i) const { return static_cast<int>(base_ + i); }
    // The positions, until a change report registers anew (null then).
    const int* positions() const { return generation_ == blockUnitsGeneration ? positions_ : nullptr; }
    int at(int i) const { return generation_ == blockUnitsGeneration ? positions_[i] : lookUp(i); }
    // Position i is positions()[0] + i.
    bool consecutive() const { return consecutive_; }

private:
    int lookUp(int i) const {
        UnitRegister unit;
        unit.kind = Unit::Word;
        unit.key = key_;
        unit.keyIndex = keyIndex_;
        return dataAreaEntry(station_, unit, address(i));
    }
    bool holds(int i, int position) const {
        return position >= 0 && position < driver.dataArea.size() &&
               entryHasKey(driver.dataArea.at(position), station_, key_, address(i));
    }

    int station_;
    int keyIndex_;
    const QString& key_;
    long long base_;
    int count_;
    uint64_t generation_;
    const int* positions_ = nullptr;
    bool consecutive_ = false;
    PositionList scratch_;
};

// One changed word: the write view dropped when nothing holds it, the
// reports its monitor flags ask for. The value is stored by the caller,
// after the reports: a read-out from inside the callback shows the old one.
void reportWordChange(_DATA_& entry, int at, int old, int fresh, const QString& keyName, int keyIndex) {
    if (writeViewMayDrop(entry)) entry.writeValid = 0;
    if (entry.monitorBits != 0)
        wordDataChangeOf(&old, &fresh, at, 0, keyIndex);
    else if (entry.monitorFlags & 1u)
        reportValueChange(entry.station, keyName, entry.address);
}

// Stores word `fresh` of a reply as an entry's read value (low byte first).
void storeWord(_DATA_& entry, unsigned fresh) {
    entry.readValue[0] = static_cast<unsigned char>(fresh);
    entry.readValue[1] = static_cast<unsigned char>(fresh >> 8);
}

// The words of a reply into entries that follow one another from `first`
// on, as long as they are plain words (no bit monitored, no bit write
// pending): the hot path of the cyclic reads. Returns the word it stopped at
// (the first other entry, or the one after a report that changed the data
// area), count at the end, -1 when the driver was re-initialised. Few values
// live across the runtime's callback, so that they stay in registers.
int walkPlainRun(const unsigned char* field, int first, int count, const QString& keyName, uint32_t epoch) {
    _DATA_* const area = driver.dataArea.data();
    const uint64_t version = driver.dataAreaVersion;
    _DATA_* entry = area + first;
    const unsigned char* word = field;
    const unsigned char* const end = field + 2 * count;
    for (; word != end; word += 2, ++entry) {
        const unsigned fresh = word[0] << 8 | word[1];
        if (fresh == unsigned(entry->readValue[0] | entry->readValue[1] << 8)) continue;
        if ((entry->monitorBits | entry->bitWriteFlags) != 0) break;
        entry->writeValid = 0;
        if (entry->monitorFlags & 1u) {
            reportValueChange(entry->station, keyName, entry->address);
            if (driver.dataAreaVersion != version) {
                // The entries moved (or went away): this one is found again by its index.
                if (driver.initEpoch != epoch) return -1;
                const auto at =
                    (reinterpret_cast<uintptr_t>(entry) - reinterpret_cast<uintptr_t>(area)) / sizeof(_DATA_);
                storeWord(driver.dataArea[static_cast<int>(at)], fresh);
                return static_cast<int>((word - field) / 2) + 1;
            }
        }
        storeWord(*entry, fresh);
    }
    return static_cast<int>((word - field) / 2);
}

// The words of a read reply into the data area, each change reported as its
// monitor flags ask: runs of plain consecutive entries by walkPlainRun, the
// rest word by word, each position taken before the reports (a report may
// register anew, which forgets the positions, or add entries, which moves
// them). False when a report re-initialised the driver.
// Out of line: in its caller it would share registers with everything else.
__attribute__((noinline)) bool storeWords(const unsigned char* field, const BlockUnits& units, int keyIndex,
                                          uint32_t epoch) {
    const QString& keyName = catalogueKeyName(keyIndex);
    const int count = units.size();
    int i = 0;
    const int* positions = units.positions();
    if (positions && units.consecutive()) {
        i = walkPlainRun(field, positions[0], count, keyName, epoch);
        if (i < 0) return false;
    }
    for (; i < count; ++i) {
        const int at = units.at(i);  // looked up anew, which may add an entry, once the positions are gone
        const unsigned fresh = field[2 * i] << 8 | field[2 * i + 1];
        _DATA_& entry = driver.dataArea[at];
        const unsigned old = entry.readValue[0] | entry.readValue[1] << 8;
        if (fresh == old) continue;
        reportWordChange(entry, at, int(old), int(fresh), keyName, keyIndex);
        if (driver.initEpoch != epoch) return false;
        storeWord(driver.dataArea[at], fresh);
    }
    return true;
}

}  // namespace

void forgetReadBlockUnits() {
    blockUnits.clear();
    ++blockUnitsGeneration;
    ++driver.dataAreaVersion;
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
    const QVector<_RCP_VAR_PRO> recipeEntries =
        recipe.first < recipe.last ? driver.rcpVarList : QVector<_RCP_VAR_PRO>();
    const int station = var.station;
    const uint32_t epoch = driver.initEpoch;
    auto interrupted = [epoch] { return driver.initEpoch != epoch; };

    if (t.transferBits == 1) {
        const bool contacts = t.kind == kvreg::Kind::Contact;
        const BlockUnits units(station, index, index, var.address, count);
        for (int i = 0; i < units.size(); ++i) {
            // Relay bits come 16 to a word, high byte first.
            const unsigned char bit = contacts ? d.timerRecord(i).contact
                                               : (d[(i % 16) < 8 ? i / 8 + 1 : i / 8 - 1] >> (i % 8)) & 1;
            const int at = units.at(i);
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
                const int at = getIndexOfDataArea(station, catalogueKeyName(index),
                                                  int(var.address + element), driver.dataArea);
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
        const BlockUnits units(station, index, keyIndex, base, count);
        // The whole field is there (the response check saw to it); a short
        // one is read with its missing bytes as 0.
        std::vector<unsigned char> padded;
        const unsigned char* field = reinterpret_cast<const unsigned char*>(reply.constData()) + offset;
        if (offset < 0 || offset + 2LL * units.size() > reply.size()) {
            padded.resize(2 * size_t(units.size()));
            for (size_t k = 0; k < padded.size(); ++k) padded[k] = d[static_cast<long long>(k)];
            field = padded.data();
        }
        if (!storeWords(field, units, keyIndex, epoch)) return 0;
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
    const BlockUnits units(station, index, keyIndex, var.address, count);
    for (int i = 0; i < units.size(); ++i) {
        const int at = units.at(i);
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
