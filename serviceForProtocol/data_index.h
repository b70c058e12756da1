// The data area's index: from a unit's key to its position in the entries,
// in one flat table with open addressing and linear probing. A slot holds
// only a position (-1 when free); the key is read from the entry itself, so
// the table costs 4 bytes a slot and at most 8 a unit (it is kept at most
// half full). Its memory is mapped and unmapped by itself: tables freed by
// growing would otherwise stay in the heap, and make the heap keep every
// freed block of the data area too.
#ifndef KV3000_DATA_INDEX_H
#define KV3000_DATA_INDEX_H

#include <cstddef>
#include <cstdint>
#include <utility>

// Station, catalogue row of the register key, and unit address.
struct DataKey {
    int32_t station;
    int32_t regIndex;
    int32_t address;
};

inline uint32_t hashOf(const DataKey& k) {
    uint64_t h = static_cast<uint32_t>(k.address) | uint64_t(static_cast<uint32_t>(k.station)) << 32;
    h ^= uint64_t(static_cast<uint32_t>(k.regIndex)) * 0x9E3779B97F4A7C15ull;
    h *= 0xBF58476D1CE4E5B9ull;
    return static_cast<uint32_t>(h >> 32);
}

// Slots, -1 when free, in memory of their own.
class SlotTable {
public:
    SlotTable() = default;
    explicit SlotTable(size_t count);
    SlotTable(SlotTable&& o) noexcept : slots_(o.slots_), count_(o.count_) {
        o.slots_ = nullptr, o.count_ = 0;
    }
    SlotTable& operator=(SlotTable&& o) noexcept;
    SlotTable(const SlotTable&) = delete;
    SlotTable& operator=(const SlotTable&) = delete;
    ~SlotTable();

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    int32_t& operator[](size_t i) { return slots_[i]; }
    int32_t operator[](size_t i) const { return slots_[i]; }
    const int32_t* begin() const { return slots_; }
    const int32_t* end() const { return slots_ + count_; }

private:
    int32_t* slots_ = nullptr;
    size_t count_ = 0;
};

class DataIndex {
public:
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    void clear() {
        slots_ = SlotTable();
        count_ = 0;
    }

    // The position under hash h for which isKey(position) holds, or -1.
    template <typename IsKey>
    int find(uint32_t h, IsKey&& isKey) const {
        if (slots_.empty()) return -1;
        const size_t mask = slots_.size() - 1;
        for (size_t i = h & mask;; i = (i + 1) & mask) {
            const int32_t p = slots_[i];
            if (p < 0 || isKey(p)) return p;
        }
    }

    // Adds a position whose key is not in the table yet. Growing the table
    // hashes every position again with hashAt(position).
    template <typename HashAt>
    void insert(uint32_t h, int32_t position, HashAt&& hashAt) {
        if (2 * (count_ + 1) > slots_.size()) {
            SlotTable old = std::move(slots_);
            slots_ = SlotTable(old.empty() ? 64 : 2 * old.size());
            for (int32_t p : old)
                if (p >= 0) place(hashAt(p), p);
        }
        place(h, position);
        ++count_;
    }

private:
    void place(uint32_t h, int32_t position) {
        const size_t mask = slots_.size() - 1;
        size_t i = h & mask;
        while (slots_[i] >= 0) i = (i + 1) & mask;
        slots_[i] = position;
    }

    SlotTable slots_;
    size_t count_ = 0;
};

#endif
