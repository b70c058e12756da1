#include "sim_memory.h"

#include "kv3000_catalogue.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace kvsim {

namespace {

struct StoreName {
    const char* name;
    Store store;
};

const StoreName kStores[] = {
    {"R", Store::R},   {"B", Store::B},   {"CR", Store::CR}, {"MR", Store::MR},
    {"LR", Store::LR}, {"T", Store::T},   {"C", Store::C},   {"DM", Store::DM},
    {"TM", Store::TM}, {"CM", Store::CM}, {"EM", Store::EM}, {"FM", Store::FM},
    {"W", Store::W},   {"ZF", Store::ZF}, {"Z", Store::Z},   {"TRM", Store::TRM},
};

bool storeByName(const std::string& name, Store& out) {
    for (const StoreName& s : kStores) {
        if (name == s.name) {
            out = s.store;
            return true;
        }
    }
    return false;
}

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return 99;
}

// At most 9 decimal or 8 hexadecimal digits: the value stays inside 32 bits.
std::optional<uint32_t> parseNumber(std::string_view text, unsigned base) {
    const size_t maxDigits = base == 16 ? 8 : 9;
    if (text.empty() || text.size() > maxDigits) return std::nullopt;
    uint32_t value = 0;
    for (char c : text) {
        const int d = digitValue(c);
        if (d >= static_cast<int>(base)) return std::nullopt;
        value = value * base + static_cast<uint32_t>(d);
    }
    return value;
}

std::optional<uint32_t> parseInFormat(bool wordBit, bool hex, std::string_view text) {
    if (!wordBit) return parseNumber(text, hex ? 16 : 10);
    const size_t dot = text.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const std::string_view bitText = text.substr(dot + 1);
    if (bitText.empty() || bitText.size() > 2) return std::nullopt;
    const auto word = parseNumber(text.substr(0, dot), 10);
    const auto bit = parseNumber(bitText, 10);
    if (!word || !bit || *bit > 15 || *word > 0x0FFFFFFFu) return std::nullopt;
    return *word * 16 + *bit;
}

std::vector<RegInfo> buildRegisters() {
    std::vector<RegInfo> out;
    for (int i = 0; i < REG_COUNT; ++i) {
        RegInfo r;
        r.name = REG_LIST[i];
        r.index = i;
        const std::string format = ADDRESS_RANGE_PRO[i][REG_COL_FORMAT];
        r.wordBit = format.find('.') != std::string::npos;
        r.hex = format.find('H') != std::string::npos;
        r.min = parseInFormat(r.wordBit, r.hex, ADDRESS_RANGE_PRO[i][REG_COL_MIN]).value_or(0);
        r.max = parseInFormat(r.wordBit, r.hex, ADDRESS_RANGE_PRO[i][REG_COL_MAX]).value_or(0);
        r.writable = std::strcmp(ADDRESS_RANGE_PRO[i][REG_COL_ACCESS], "RW") == 0;
        const std::string element = ADDRESS_RANGE_PRO[i][REG_COL_ELEMENT];
        const std::string transfer = ADDRESS_RANGE_PRO[i][REG_COL_TRANSFER];
        std::string base = r.name.substr(0, r.name.find('_'));
        if (r.name == "TC" || r.name == "TS") base = "T";
        if (r.name == "CC" || r.name == "CS") base = "C";
        if (!storeByName(base, r.store)) continue;
        if (r.name.find("_bit") != std::string::npos) {
            r.kind = UnitKind::WordBit;
        } else if (r.name == "T" || r.name == "C") {
            r.kind = UnitKind::Contact;
        } else if (element == "1") {
            r.kind = UnitKind::Bit;
        } else if (r.name == "TC" || r.name == "CC") {
            r.kind = UnitKind::Current;
        } else if (r.name == "TS" || r.name == "CS") {
            r.kind = UnitKind::Set;
        } else if (transfer == "32") {
            r.kind = UnitKind::Dword;
        } else {
            r.kind = UnitKind::Word;
        }
        out.push_back(r);
    }
    return out;
}

bool equalNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

}  // namespace

const std::vector<RegInfo>& registers() {
    static const std::vector<RegInfo> table = buildRegisters();
    return table;
}

const RegInfo* findRegister(std::string_view name) {
    for (const RegInfo& r : registers()) {
        if (r.name == name) return &r;
    }
    return nullptr;
}

std::optional<uint32_t> parseAddressText(const RegInfo& reg, std::string_view text) {
    return parseInFormat(reg.wordBit, reg.hex, text);
}

std::string formatAddress(const RegInfo& reg, uint32_t address) {
    char buf[32];
    if (reg.wordBit) {
        std::snprintf(buf, sizeof buf, "%u.%02u", address / 16, address % 16);
    } else if (reg.hex) {
        std::snprintf(buf, sizeof buf, "%X", address);
    } else {
        std::snprintf(buf, sizeof buf, "%u", address);
    }
    return reg.name + buf;
}

std::optional<UnitRef> parseUnit(std::string_view text, std::string* error) {
    const RegInfo* best = nullptr;
    for (const RegInfo& r : registers()) {
        if (text.size() > r.name.size() && equalNoCase(text.substr(0, r.name.size()), r.name) &&
            (!best || r.name.size() > best->name.size()))
            best = &r;
    }
    auto fail = [&](const char* what) -> std::optional<UnitRef> {
        const std::string shown =
            text.size() > 40 ? std::string(text.substr(0, 40)) + "..." : std::string(text);
        if (error) *error = std::string(what) + " '" + shown + "'";
        return std::nullopt;
    };
    if (!best) return fail("unknown register or missing address in");
    const auto address = parseAddressText(*best, text.substr(best->name.size()));
    if (!address) return fail(best->wordBit ? "bad address (expected WORD.BIT)" : "bad address");
    if (*address < best->min || *address > best->max) return fail("address out of range");
    return UnitRef{best, *address};
}

Memory::Memory() {
    auto grow = [](auto& v, size_t n) {
        if (v.size() < n) v.resize(n);
    };
    for (const RegInfo& r : registers()) {
        const int s = static_cast<int>(r.store);
        const size_t n = static_cast<size_t>(r.max) + 1;
        switch (r.kind) {
            case UnitKind::Bit:
            case UnitKind::WordBit:
                grow(words_[s], (n + 15) / 16);
                break;
            case UnitKind::Word:
                grow(words_[s], n);
                break;
            case UnitKind::Dword:
                grow(dwords_[s], n);
                break;
            case UnitKind::Contact:
            case UnitKind::Current:
            case UnitKind::Set:
                grow(timers_[s], n);
                break;
        }
    }
}

std::optional<uint32_t> Memory::get(std::string_view reg, uint32_t address) const {
    const RegInfo* r = findRegister(reg);
    if (!r) return std::nullopt;
    return get(*r, address);
}

bool Memory::set(std::string_view reg, uint32_t address, uint32_t value) {
    const RegInfo* r = findRegister(reg);
    return r && set(*r, address, value);
}

std::optional<uint32_t> Memory::get(const RegInfo& reg, uint32_t address) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return getLocked(reg, address);
}

std::optional<uint32_t> Memory::getLocked(const RegInfo& reg, uint32_t address) const {
    if (address < reg.min || address > reg.max) return std::nullopt;
    const int s = static_cast<int>(reg.store);
    switch (reg.kind) {
        case UnitKind::Bit:
        case UnitKind::WordBit:
            if (address / 16 >= words_[s].size()) return std::nullopt;
            return (words_[s][address / 16] >> (address % 16)) & 1u;
        case UnitKind::Word:
            if (address >= words_[s].size()) return std::nullopt;
            return words_[s][address];
        case UnitKind::Dword:
            if (address >= dwords_[s].size()) return std::nullopt;
            return dwords_[s][address];
        case UnitKind::Contact:
        case UnitKind::Current:
        case UnitKind::Set: {
            if (address >= timers_[s].size()) return std::nullopt;
            const TimerRecord& t = timers_[s][address];
            if (reg.kind == UnitKind::Contact) return t.contact ? 1u : 0u;
            return reg.kind == UnitKind::Current ? t.current : t.set;
        }
    }
    return std::nullopt;
}

bool Memory::set(const RegInfo& reg, uint32_t address, uint32_t value) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (address < reg.min || address > reg.max) return false;
    const int s = static_cast<int>(reg.store);
    switch (reg.kind) {
        case UnitKind::Bit:
        case UnitKind::WordBit: {
            if (address / 16 >= words_[s].size()) return false;
            const uint16_t mask = static_cast<uint16_t>(1u << (address % 16));
            uint16_t& w = words_[s][address / 16];
            w = value ? static_cast<uint16_t>(w | mask) : static_cast<uint16_t>(w & ~mask);
            return true;
        }
        case UnitKind::Word:
            if (address >= words_[s].size()) return false;
            words_[s][address] = static_cast<uint16_t>(value);
            return true;
        case UnitKind::Dword:
            if (address >= dwords_[s].size()) return false;
            dwords_[s][address] = value;
            return true;
        case UnitKind::Contact:
        case UnitKind::Current:
        case UnitKind::Set: {
            if (address >= timers_[s].size()) return false;
            TimerRecord& t = timers_[s][address];
            if (reg.kind == UnitKind::Contact) t.contact = value != 0;
            if (reg.kind == UnitKind::Current) t.current = value;
            if (reg.kind == UnitKind::Set) t.set = value;
            return true;
        }
    }
    return false;
}

void Memory::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto& v : words_) std::fill(v.begin(), v.end(), 0);
    for (auto& v : dwords_) std::fill(v.begin(), v.end(), 0);
    for (auto& v : timers_) std::fill(v.begin(), v.end(), TimerRecord{});
}

}  // namespace kvsim
