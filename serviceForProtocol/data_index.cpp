#include "serviceForProtocol/data_index.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

SlotTable::SlotTable(size_t count) {
    void* p =
        ::mmap(nullptr, count * sizeof(int32_t), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    slots_ = static_cast<int32_t*>(p);
    count_ = count;
    std::fill(slots_, slots_ + count_, -1);
}

SlotTable& SlotTable::operator=(SlotTable&& o) noexcept {
    if (this != &o) {
        this->~SlotTable();
        slots_ = o.slots_;
        count_ = o.count_;
        o.slots_ = nullptr;
        o.count_ = 0;
    }
    return *this;
}

SlotTable::~SlotTable() {
    if (slots_) ::munmap(slots_, count_ * sizeof(int32_t));
}
