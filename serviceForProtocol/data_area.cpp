// The data area store: lookup, written values and change reports.
#include "serviceForProtocol/data_area.h"

#include "kv3000_catalogue.h"
#include "protocol.h"

#include <cstdint>
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

// Someone changed driver.dataArea behind the index: index it again from the
// list, the first of equal entries winning as in a linear scan.
void rebuildDataIndex() {
    driver.dataIndex.clear();
    unindexedEntries = 0;
    const QList<_DATA_>& list = driver.dataArea;
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& e = list.at(i);
        const int keyIndex = getIndexFromRegName(e.regKey);
        if (keyIndex < 0 || !driver.dataIndex.emplace(DataKey{e.station, keyIndex, e.address}, i).second)
            ++unindexedEntries;
    }
}

bool entryIs(int pos, int station, const QString& key, int address) {
    if (pos < 0 || pos >= driver.dataArea.size()) return false;
    const _DATA_& e = driver.dataArea.at(pos);
    return e.station == station && e.address == address && e.regKey == key;
}

int appendEntry(QList<_DATA_>& list, int station, const QString& key, int address) {
    _DATA_ e;
    e.station = station;
    e.regKey = key;
    e.address = address;
    list.append(e);
    return list.size() - 1;
}

int indexedEntry(int station, int keyIndex, const QString& key, int address) {
    const DataKey k{station, keyIndex, address};
    auto it = driver.dataIndex.find(k);
    const bool trusted =
        it != driver.dataIndex.end() ? entryIs(it->second, station, key, address) : indexInStep();
    if (!trusted) {
        rebuildDataIndex();
        it = driver.dataIndex.find(k);
    }
    if (it != driver.dataIndex.end()) return it->second;
    const int pos = appendEntry(driver.dataArea, station, key, address);
    driver.dataIndex.emplace(k, pos);
    return pos;
}

UnitKind kindOfRow(int row, const QString& reg) {
    if (row < 0) return UNIT_NONE;
    const int element = regElementBits(row);
    const int transfer = regTransferBits(row);
    const bool bitView = reg.contains(QLatin1String("_bit"));
    if (element == 16 && transfer == 16) return UNIT_WORD;
    if (element == 32 && transfer == 32) return UNIT_DWORD;
    if (element == 1 && !bitView && transfer == 1) return UNIT_BIT;
    if (element == 1 && bitView && transfer == 16) return UNIT_BIT_IN_WORD;
    return UNIT_NONE;
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

void saveWords(int station, const UnitRegister& r, int address, int len, const unsigned char* data) {
    // A callback that re-initialises the driver ends this store.
    const uint32_t epoch = driver.initEpoch;
    if (len > DATA_MAX_WORDS || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        const int idx = dataAreaEntry(station, r, address + i);
        const unsigned char b0 = data[2 * i];
        const unsigned char b1 = data[2 * i + 1];
        const unsigned char* shown = shownValue(driver.dataArea.at(idx));
        if (b0 != shown[0] || b1 != shown[1]) {
            int oldValue = uchar2int16(shown[0], shown[1]);
            int newValue = uchar2int16(b0, b1);
            _wordDataChange(&oldValue, &newValue, idx, 0);
            if (reinitialised(epoch)) return;
        }
        _DATA_* e = dataAreaAt(idx);
        if (!e) continue;
        e->writeValue[0] = b0;
        e->writeValue[1] = b1;
        e->writeValid = 1;
    }
}

void saveDwords(int station, const UnitRegister& r, int address, int len, const unsigned char* data) {
    // A callback that re-initialises the driver ends this store.
    const uint32_t epoch = driver.initEpoch;
    if (len > DATA_MAX_WORDS) return;
    const int units = len / 2;
    if (units <= 0 || !unitRangeFits(address, units)) return;
    for (int i = 0; i < units; ++i) {
        const int idx = dataAreaEntry(station, r, address + i);
        const unsigned char* in = data + 4 * i;
        const unsigned char* shown = shownValue(driver.dataArea.at(idx));
        int newValue = uchar2int32(in[0], in[1], in[2], in[3]);
        int oldValue = uchar2int32(shown[0], shown[1], shown[2], shown[3]);
        if (newValue != oldValue) {
            _dwordDataChange(&oldValue, &newValue, idx, 0);
            if (reinitialised(epoch)) return;
        }
        _DATA_* e = dataAreaAt(idx);
        if (!e) continue;
        for (int b = 0; b < 4; ++b) e->writeValue[b] = in[b];
        e->writeValid = 1;
    }
}

void saveBits(int station, const UnitRegister& r, int address, int len, const unsigned char* data) {
    // A callback that re-initialises the driver ends this store.
    const uint32_t epoch = driver.initEpoch;
    if (len > DATA_MAX_BITS || !unitRangeFits(address, len)) return;
    for (int i = 0; i < len; ++i) {
        const int idx = dataAreaEntry(station, r, address + i);
        // Bit units report every change of their own, monitored or not.
        if (data[i] != shownValue(driver.dataArea.at(idx))[0]) {
            reportValueChange(station, r.name, address + i);
            if (reinitialised(epoch)) return;
        }
        _DATA_* e = dataAreaAt(idx);
        if (!e) continue;
        e->writeValue[0] = data[i];
        e->writeValid = 1;
    }
}

void saveBitsInWords(int station, const UnitRegister& r, int address, int len, const unsigned char* data) {
    // A callback that re-initialises the driver ends this store.
    const uint32_t epoch = driver.initEpoch;
    if (len > DATA_MAX_BITS || address < 0 || !unitRangeFits(address, len)) return;
    int pendingCount = -1;
    for (int i = 0; i < len; ++i) {
        const int b = address + i;
        const int p = b % 16;
        const int k = p / 8;
        const int j = b % 8;
        const int idx = dataAreaEntry(station, r, b / 16);
        const unsigned char* shown = shownValue(driver.dataArea.at(idx));
        const unsigned char shownByte = shown[k];
        const unsigned char newByte = static_cast<unsigned char>(_setBitValue(shownByte, j, data[i] == 1));
        if (newByte != shownByte) {
            int oldValue = uchar2int16(shown[0], shown[1]);
            int newValue = k == 1 ? uchar2int16(shown[0], newByte) : uchar2int16(newByte, shown[1]);
            _wordDataChange(&oldValue, &newValue, idx, 0);
            if (reinitialised(epoch)) return;
        }
        _DATA_* e = dataAreaAt(idx);
        if (!e) continue;
        // The first bit written into a word takes the rest of the word from
        // the read value, so the shown word keeps its other bits.
        if (e->writeValid == 0) e->writeValue[1 - k] = e->readValue[1 - k];
        e->writeValue[k] = newByte;
        e->writeValid = 1;

        const int q = 2 * p;
        if (((e->bitWriteFlags >> q) & 1u) == 0) {
            e->bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e->bitWriteFlags), q, 1));
            continue;
        }
        if (pendingCount < 0) pendingCount = countPendingWrites(station, r.name, address, len);
        if (pendingCount == 2)
            e->bitWriteFlags = static_cast<uint32_t>(_setBitValue(int(e->bitWriteFlags), q + 1, 1));
    }
}

}  // namespace

void clearDataArea() {
    driver.dataArea.clear();
    driver.dataIndex.clear();
    unindexedEntries = 0;
}

UnitKind unitKindOf(const QString& reg) {
    return kindOfRow(getIndexFromRegName(reg), reg);
}

QString regKeyOf(const QString& reg) {
    const int cut = reg.indexOf(QLatin1Char('_'));
    return cut < 0 ? reg : reg.left(cut);
}

bool resolveUnitRegister(const QString& reg, UnitRegister& out) {
    out = UnitRegister();
    out.kind = kindOfRow(getIndexFromRegName(reg), reg);
    if (out.kind == UNIT_NONE) return false;
    out.name = reg;
    out.key = regKeyOf(reg);
    out.keyIndex = getIndexFromRegName(out.key);
    return true;
}

bool unitRangeFits(int address, long long count) {
    return count >= 1 && static_cast<long long>(address) + count - 1 <= std::numeric_limits<int32_t>::max();
}

_DATA_* dataAreaAt(int index) {
    if (index < 0 || index >= driver.dataArea.size()) return nullptr;
    return &driver.dataArea[index];
}

int getIndexOfDataArea(int station, QString regKey, int address, QList<_DATA_>& list) {
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
    switch (r.kind) {
        case UNIT_WORD:
            saveWords(station, r, address, len, data);
            break;
        case UNIT_DWORD:
            saveDwords(station, r, address, len, data);
            break;
        case UNIT_BIT:
            saveBits(station, r, address, len, data);
            break;
        case UNIT_BIT_IN_WORD:
            saveBitsInWords(station, r, address, len, data);
            break;
        case UNIT_NONE:
            break;
    }
}

void _wordDataChange(int* oldValue, int* newValue, int index, int skipBits) {
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorBits == 0 && (e->monitorFlags & 1u) == 0)) return;
    // Copies: the callback may call back into the driver and change the list.
    const uint32_t monitorBits = e->monitorBits;
    const uint32_t monitorFlags = e->monitorFlags;
    const int station = e->station;
    const int address = e->address;
    const QString key = e->regKey;

    if (skipBits == 0 && monitorBits != 0) {
        const QString bitName = key + QLatin1String("_bit");
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
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorFlags & 1u) == 0) return;
    const int station = e->station;
    const int address = e->address;
    const QString key = e->regKey;
    reportValueChange(station, key, address);
}

void _bitDataChange(int index) {
    const _DATA_* e = dataAreaAt(index);
    if (!e || (e->monitorFlags & 1u) == 0) return;
    const int station = e->station;
    const int address = e->address;
    const QString key = e->regKey;
    reportValueChange(station, key, address);
}

void reportValueChange(int station, const QString& name, int address) {
    const ValueChangeCallBack callback = driver.valueChangeCallBack;
    if (!callback) return;
    const QString copy = name;
    callback(driver.protocolId, station, copy, address);
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
