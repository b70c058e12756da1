#include "sim_memory.h"

#include "kv3000_catalogue.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace kvsim {

namespace {

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
        r.traits = kvreg::traits(i);
        const bool wordBit = r.traits.notation == kvreg::Notation::WordBit;
        const bool hex = r.traits.notation == kvreg::Notation::Hex;
        r.min = parseInFormat(wordBit, hex, ADDRESS_RANGE_PRO[i][REG_COL_MIN]).value_or(0);
        r.max = parseInFormat(wordBit, hex, ADDRESS_RANGE_PRO[i][REG_COL_MAX]).value_or(0);
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
    return parseInFormat(reg.traits.notation == kvreg::Notation::WordBit,
                         reg.traits.notation == kvreg::Notation::Hex, text);
}

std::string formatAddress(const RegInfo& reg, uint32_t address) {
    char buf[32];
    if (reg.traits.notation == kvreg::Notation::WordBit) {
        std::snprintf(buf, sizeof buf, "%u.%02u", address / 16, address % 16);
    } else if (reg.traits.notation == kvreg::Notation::Hex) {
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
    if (!address)
        return fail(best->traits.notation == kvreg::Notation::WordBit ? "bad address (expected WORD.BIT)"
                                                                      : "bad address");
    if (*address < best->min || *address > best->max) return fail("address out of range");
    return UnitRef{best, *address};
}

Memory::Memory() {
    auto grow = [](auto& v, size_t n) {
        if (v.size() < n) v.resize(n);
    };
    for (const RegInfo& r : registers()) {
        const size_t n = static_cast<size_t>(r.max) + 1;
        switch (r.traits.kind) {
            case kvreg::Kind::RelayBit:
            case kvreg::Kind::BitInWord:
                grow(words_[r.area()], (n + 15) / 16);
                break;
            case kvreg::Kind::Word:
                grow(words_[r.area()], n);
                break;
            case kvreg::Kind::DWord:
                grow(dwords_[r.area()], n);
                break;
            case kvreg::Kind::Contact:
            case kvreg::Kind::TimerValue:
                grow(timers_[r.area()], n);
                break;
            case kvreg::Kind::None:
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
    const uint8_t a = reg.area();
    switch (reg.traits.kind) {
        case kvreg::Kind::RelayBit:
        case kvreg::Kind::BitInWord:
            if (address / 16 >= words_[a].size()) return std::nullopt;
            return (words_[a][address / 16] >> (address % 16)) & 1u;
        case kvreg::Kind::Word:
            if (address >= words_[a].size()) return std::nullopt;
            return words_[a][address];
        case kvreg::Kind::DWord:
            if (address >= dwords_[a].size()) return std::nullopt;
            return dwords_[a][address];
        case kvreg::Kind::Contact:
        case kvreg::Kind::TimerValue:
            if (address >= timers_[a].size()) return std::nullopt;
            return kvwire::timerField(timers_[a][address], reg.traits.field);
        case kvreg::Kind::None:
            break;
    }
    return std::nullopt;
}

bool Memory::set(const RegInfo& reg, uint32_t address, uint32_t value) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (address < reg.min || address > reg.max) return false;
    const uint8_t a = reg.area();
    switch (reg.traits.kind) {
        case kvreg::Kind::RelayBit:
        case kvreg::Kind::BitInWord: {
            if (address / 16 >= words_[a].size()) return false;
            const uint16_t mask = static_cast<uint16_t>(1u << (address % 16));
            uint16_t& w = words_[a][address / 16];
            w = value ? static_cast<uint16_t>(w | mask) : static_cast<uint16_t>(w & ~mask);
            return true;
        }
        case kvreg::Kind::Word:
            if (address >= words_[a].size()) return false;
            words_[a][address] = static_cast<uint16_t>(value);
            return true;
        case kvreg::Kind::DWord:
            if (address >= dwords_[a].size()) return false;
            dwords_[a][address] = value;
            return true;
        case kvreg::Kind::Contact:
        case kvreg::Kind::TimerValue: {
            if (address >= timers_[a].size()) return false;
            TimerRecord& t = timers_[a][address];
            switch (reg.traits.field) {
                case kvwire::TimerField::Contact:
                    t.contact = value != 0;
                    break;
                case kvwire::TimerField::Current:
                    t.current = value;
                    break;
                case kvwire::TimerField::Set:
                    t.set = value;
                    break;
                case kvwire::TimerField::None:
                    return false;
            }
            return true;
        }
        case kvreg::Kind::None:
            break;
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
