// The data area store: lookup, written values and change reports.
#include "serviceForProtocol/data_area.h"

#include "kv3000_catalogue.h"
#include "protocol.h"
#include "serviceForProtocol/value_parser.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>

namespace {

// Entries of driver.dataArea that driver.dataIndex does not hold (a key outside
// the catalogue, or a duplicate found while rebuilding). The index is in step
// with the list while dataIndex.size() + unindexedEntries == dataArea.size().
size_t unindexedEntries = 0;

bool indexInStep() {
    return driver.dataIndex.size() + unindexedEntries == size_t(driver.dataArea.size());
}

uint32_t hashAt(int position) {
    const _DATA_& e = driver.dataArea.at(position);
    return hashOf(DataKey{e.station, getIndexFromRegName(e.regKey), e.address});
}

// The indexed position of (station, key, address), or -1.
int findIndexed(uint32_t h, int station, const QString& key, int address) {
    const _DATA_* area = driver.dataArea.constData();
    const int size = driver.dataArea.size();
    return driver.dataIndex.find(
        h, [&](int p) { return p < size && entryHasKey(area[p], station, key, address); });
}

// Someone changed driver.dataArea behind the index: index it again from the
// list, the first of equal entries winning as in a linear scan.
void rebuildDataIndex() {
    driver.dataIndex.clear();
    unindexedEntries = 0;
    const QVector<_DATA_>& list = driver.dataArea;
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& e = list.at(i);
        const int keyIndex = getIndexFromRegName(e.regKey);
        const uint32_t h = hashOf(DataKey{e.station, keyIndex, e.address});
        if (keyIndex < 0 || findIndexed(h, e.station, e.regKey, e.address) >= 0)
            ++unindexedEntries;
        else
            driver.dataIndex.insert(h, i, hashAt);
    }
}

int appendEntry(QVector<_DATA_>& list, int station, const QString& key, int address) {
    _DATA_ e;
    e.station = station;
    e.regKey = key;
    e.address = address;
    list.append(std::move(e));
    ++driver.dataAreaVersion;
    return list.size() - 1;
}

int indexedEntry(int station, int keyIndex, const QString& key, int address) {
    const uint32_t h = hashOf(DataKey{station, keyIndex, address});
    if (!indexInStep()) rebuildDataIndex();
    const int found = findIndexed(h, station, key, address);
    if (found >= 0) return found;
    // Entries of one register share the catalogue's copy of its name, so
    // that comparing keys mostly compares one pointer.
    const int pos = appendEntry(driver.dataArea, station, catalogueKeyName(keyIndex), address);
    driver.dataIndex.insert(h, pos, hashAt);
    return pos;
}

// Write requests in writeList equal to this one; 2 means an identical write is
// on the wire and this one waits behind it.
int countPendingWrites(int station, const QString& reg, int address, int len) {
    std::lock_guard<std::mutex> lock(driver.mutex);
    int count = 0;
    for (const VARIABLE& v : driver.writeList) {
        if (v.station == station && v.address == address && v.length == len && v.reg == reg) ++count;
    }
    return count;
}

bool reinitialised(uint32_t epoch) {
    return driver.initEpoch != epoch;
}

// Stores the written values of one unit, reporting a change of what it shows.
// False when a report re-initialised the driver: the store ends there.
bool saveUnit(const UnitRegister& r, const UnitStep& u, const unsigned char* data, uint32_t epoch,
              int& pendingCount, int address, int len) {
    const unsigned char* shown = shownValue(driver.dataArea.at(u.entry));
    switch (r.kind) {
        case Unit::Word:
        case Unit::DWord: {
            const bool word = r.kind == Unit::Word;
            const size_t n = word ? 2 : 4;
            const unsigned char* in = data + n * u.i;
            if (std::memcmp(in, shown, n) != 0) {
                if (word) {
                    int oldValue = uchar2int16(shown[0], shown[1]);
                    int newValue = uchar2int16(in[0], in[1]);
                    _wordDataChange(&oldValue, &newValue, u.entry, 0);
                } else {
                    int oldValue = uchar2int32(shown[0], shown[1], shown[2], shown[3]);
                    int newValue = uchar2int32(in[0], in[1], in[2], in[3]);
                    _dwordDataChange(&oldValue, &newValue, u.entry, 0);
                }
                if (reinitialised(epoch)) return false;
            }
            _DATA_& e = driver.dataArea[u.entry];
            std::memcpy(e.writeValue, in, n);
            e.writeValid = 1;
            return true;
        }
        case Unit::Bit: {
            // Bit units report every change of their own, monitored or not.
            if (data[u.i] != shown[0]) {
                reportValueChange(driver.dataArea.at(u.entry).station, r.name, address + u.i);
                if (reinitialised(epoch)) return false;
            }
            _DATA_& e = driver.dataArea[u.entry];
            e.writeValue[0] = data[u.i];
            e.writeValid = 1;
            return true;
        }
        case Unit::BitInWord: {
            const int k = u.byte;
            const unsigned char shownByte = shown[k];
            const unsigned char newByte =
                static_cast<unsigned char>(_setBitValue(shownByte, u.bit, data[u.i] == 1));
            if (newByte != shownByte) {
                int oldValue = uchar2int16(shown[0], shown[1]);
                int newValue = k == 1 ? uchar2int16(shown[0], newByte) : uchar2int16(newByte, shown[1]);
                _wordDataChange(&oldValue, &newValue, u.entry, 0);
                if (reinitialised(epoch)) return false;
            }
            _DATA_& e = driver.dataArea[u.entry];
            // The first bit written into a word takes the rest of the word from
            // the read value, so the shown word keeps its other bits.
            if (e.writeValid == 0) e.writeValue[1 - k] = e.readValue[1 - k];
            e.writeValue[k] = newByte;
            e.writeValid = 1;

            const int q = 2 * (8 * k + u.bit);
            if (((e.bitWriteFlags >> q) & 1u) == 0) {
                e.bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e.bitWriteFlags), q, 1));
                return true;
            }
            if (pendingCount < 0) pendingCount = countPendingWrites(e.station, r.name, address, len);
            if (pendingCount == 2)
                e.bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e.bitWriteFlags), q + 1, 1));
            return true;
        }
        case Unit::None:
            break;
    }
    return false;
}

}  // namespace

void clearDataArea() {
    forgetReadBlockUnits();
    driver.dataArea.clear();
    driver.dataIndex.clear();
    unindexedEntries = 0;
    ++driver.dataAreaVersion;
}

namespace {

struct CatalogueNames {
    QString name[REG_COUNT];     // the catalogue's names
    QString bitName[REG_COUNT];  // name + "_bit", as bit reports name a word's bits
    CatalogueNames() {
        for (int i = 0; i < REG_COUNT; ++i) {
            name[i] = QString::fromLatin1(REG_LIST[i]);
            bitName[i] = name[i] + QLatin1String("_bit");
        }
    }
};

const CatalogueNames& catalogueNames() {
    static const CatalogueNames names;
    return names;
}

}  // namespace

const QString& catalogueKeyName(int keyIndex) {
    return catalogueNames().name[keyIndex];
}

const QString& catalogueBitName(int keyIndex) {
    return catalogueNames().bitName[keyIndex];
}

bool resolveUnitRegister(const QString& reg, UnitRegister& out) {
    out = UnitRegister();
    const kvreg::Traits& t = kvreg::traits(getIndexFromRegName(reg));
    if (t.unit() == Unit::None) return false;
    out.kind = t.unit();
    out.name = reg;
    out.keyIndex = t.keyRow;
    out.key = catalogueKeyName(t.keyRow);
    return true;
}

bool unitRangeFits(int address, long long count) {
    return count >= 1 && static_cast<long long>(address) + count - 1 <= std::numeric_limits<int32_t>::max();
}

long long bufferUnits(Unit kind, int len) {
    switch (kind) {
        case Unit::Word:
            return len <= DATA_MAX_WORDS ? len : 0;
        case Unit::DWord:
            return len <= DATA_MAX_WORDS ? len / 2 : 0;
        case Unit::Bit:
        case Unit::BitInWord:
            return len <= DATA_MAX_BITS ? len : 0;
        case Unit::None:
            break;
    }
    return 0;
}

_DATA_* dataAreaAt(int index) {
    if (index < 0 || index >= driver.dataArea.size()) return nullptr;
    return &driver.dataArea[index];
}

int getIndexOfDataArea(int station, QString regKey, int address, QVector<_DATA_>& list) {
    const bool mainArea = &list == &driver.dataArea;
    if (mainArea) {
        const int keyIndex = getIndexFromRegName(regKey);
        if (keyIndex >= 0) return indexedEntry(station, keyIndex, regKey, address);
    }
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& e = list.at(i);
        if (e.station == station && e.address == address && e.regKey == regKey) return i;
    }
    if (mainArea) ++unindexedEntries;
    return appendEntry(list, station, regKey, address);
}

int dataAreaEntry(int station, const UnitRegister& r, int address) {
    if (r.keyIndex < 0) return getIndexOfDataArea(station, r.key, address, driver.dataArea);
    return indexedEntry(station, r.keyIndex, r.key, address);
}

void write_saveDataToArea(int station, QString reg, int address, int len, unsigned char* data) {
    UnitRegister r;
    if (!resolveUnitRegister(reg, r) || len <= 0 || !data) return;
    // A callback that re-initialises the driver ends this store.
    const uint32_t epoch = driver.initEpoch;
    int pendingCount = -1;
    walkUnits(station, r, address, bufferUnits(r.kind, len),
              [&](const UnitStep& u) { return saveUnit(r, u, data, epoch, pendingCount, address, len); });
}

void _wordDataChange(int* oldValue, int* newValue, int index, int skipBits) {
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorBits == 0 && (e->monitorFlags & 1u) == 0)) return;
    wordDataChangeOf(oldValue, newValue, index, skipBits, getIndexFromRegName(e->regKey));
}

void wordDataChangeOf(const int* oldValue, const int* newValue, int index, int skipBits, int keyIndex) {
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorBits == 0 && (e->monitorFlags & 1u) == 0)) return;
    // Copies: the callback may call back into the driver and change the list.
    const uint32_t monitorBits = e->monitorBits;
    const uint32_t monitorFlags = e->monitorFlags;
    const int station = e->station;
    const int address = e->address;
    // The names handed to the runtime must outlive the entry: the catalogue's
    // own strings do, any other key is copied.
    const bool catalogueKey = keyIndex >= 0 && keyIndex < REG_COUNT;
    const QString ownKey = catalogueKey ? QString() : e->regKey;
    const QString& key = catalogueKey ? catalogueKeyName(keyIndex) : ownKey;

    if (skipBits == 0 && monitorBits != 0) {
        const QString ownBitName = catalogueKey ? QString() : key + QLatin1String("_bit");
        const QString& bitName = catalogueKey ? catalogueBitName(keyIndex) : ownBitName;
        const bool everyBit = !oldValue || !newValue;
        const uint32_t changed =
            everyBit ? 0xFFFFu : static_cast<uint32_t>(*oldValue) ^ static_cast<uint32_t>(*newValue);
        for (int p = 0; p < 16; ++p) {
            if (((monitorBits & changed) >> p & 1u) == 0) continue;
            const long long bitAddress = static_cast<long long>(address) * 16 + p;
            if (bitAddress < std::numeric_limits<int32_t>::min() ||
                bitAddress > std::numeric_limits<int32_t>::max())
                continue;
            reportValueChange(station, bitName, static_cast<int>(bitAddress));
        }
    }
    if (monitorFlags & 1u) reportValueChange(station, key, address);
}

void _dwordDataChange(int* oldValue, int* newValue, int index, int skipBits) {
    // No catalogue register watches single bits of a double word.
    (void)oldValue;
    (void)newValue;
    (void)skipBits;
    reportUnitChange(index);
}

void _bitDataChange(int index) {
    reportUnitChange(index);
}

void reportUnitChange(int index) {
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorFlags & 1u) == 0) return;
    const int station = e->station;
    const int address = e->address;
    const int keyIndex = getIndexFromRegName(e->regKey);
    if (keyIndex >= 0) return reportValueChange(station, catalogueKeyName(keyIndex), address);
    const QString key = e->regKey;
    reportValueChange(station, key, address);
}

int _setBitValue(int value, int bit, int on) {
    if (bit < 0 || bit > 31) return value;
    const uint32_t mask = 1u << bit;
    const uint32_t v = static_cast<uint32_t>(value);
    return static_cast<int>(on ? v | mask : v & ~mask);
}

int uchar2int16(unsigned char b0, unsigned char b1) {
    return b0 + b1 * 256;
}

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3) {
    return static_cast<int>(uint32_t(b0) | uint32_t(b1) << 8 | uint32_t(b2) << 16 | uint32_t(b3) << 24);
}

namespace {
int hexDigit(const QByteArray& text, long long pos) {
    if (pos < 0 || pos >= text.size()) return 0;
    const int c = static_cast<unsigned char>(text.at(static_cast<int>(pos)));
    if (c >= 48 && c <= 63) return c - 48;
    if (c > 64) return (c - 55) % 16;
    return 0;
}
}  // namespace

int asc2hex(QByteArray text, int pos) {
    return hexDigit(text, pos) * 16 + hexDigit(text, static_cast<long long>(pos) + 1);
}
