#include "sim_console.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

namespace kvsim {

namespace {

constexpr uint32_t kMaxUnitsPerCommand = 4096;

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    std::string w;
    while (in >> w) out.push_back(w);
    return out;
}

std::string error(const std::string& what) {
    return "error: " + what + "\n";
}

// User text quoted in an error line, cut short so a line stays a line.
std::string quoted(const std::string& text) {
    return "'" + (text.size() > 40 ? text.substr(0, 40) + "..." : text) + "'";
}

// Decimal, optionally negative, or 0x hexadecimal; checked against the unit's width.
bool parseValue(const std::string& text, const RegInfo& reg, uint32_t& out) {
    if (text.empty() || text.size() > 24) return false;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* start = text.c_str() + (hex ? 2 : 0);
    if (*start == '+' || std::isspace(static_cast<unsigned char>(*start)) || (hex && *start == '-'))
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(start, &end, hex ? 16 : 10);
    if (errno != 0 || end == start || *end != '\0') return false;
    long long lo = 0;
    long long hi = 1;
    if (!reg.isBit()) {
        lo = reg.isWide() ? -2147483648LL : -32768LL;
        hi = reg.isWide() ? 4294967295LL : 65535LL;
    }
    if (v < lo || v > hi) return false;
    out = static_cast<uint32_t>(v);
    if (!reg.isWide()) out &= 0xFFFFu;
    return true;
}

}  // namespace

Console::Console(Memory& mem, std::function<Stats()> stats) : mem_(mem), stats_(std::move(stats)) {}

const char* Console::help() {
    return "get ADDR[:N]       print N units (default 1) from ADDR, one 'ADDR VALUE' line each\n"
           "set ADDR VALUE...  set consecutive units from ADDR (decimal, negative or 0x hex)\n"
           "stats              print the request and fault counters\n"
           "help               print this list\n"
           "quit               stop the simulator\n"
           "ADDR is a register name and its address in its own notation: DM100, R5.03, B3FF,\n"
           "W1F, MR_bit10.05, DM_bit100.15, T5 (contact), TC5 (current), TS5 (set), Z3, TRM0.\n";
}

std::string Console::execute(const std::string& line, bool* quit) {
    const std::vector<std::string> w = words(line);
    if (w.empty()) return "";
    const std::string& cmd = w[0];
    if (cmd == "quit" || cmd == "exit") {
        if (w.size() != 1) return error(cmd + " takes no arguments");
        if (quit) *quit = true;
        return "";
    }
    if (cmd == "help") return help();
    if (cmd == "stats") {
        if (w.size() != 1) return error("stats takes no arguments");
        return stats_ ? formatStats(stats_()) : formatStats(Stats());
    }
    if (cmd == "get") {
        if (w.size() != 2) return error("usage: get ADDR[:N]");
        std::string addr = w[1];
        uint32_t count = 1;
        const size_t colon = addr.find(':');
        if (colon != std::string::npos) {
            const std::string n = addr.substr(colon + 1);
            char* end = nullptr;
            errno = 0;
            const unsigned long v = std::strtoul(n.c_str(), &end, 10);
            if (n.empty() || n[0] == '-' || n[0] == '+' || errno != 0 || *end != '\0' || v == 0 ||
                v > kMaxUnitsPerCommand)
                return error("bad count " + quoted(n) + " (1 to " + std::to_string(kMaxUnitsPerCommand) +
                             ")");
            count = static_cast<uint32_t>(v);
            addr = addr.substr(0, colon);
        }
        std::string why;
        const auto unit = parseUnit(addr, &why);
        if (!unit) return error(why);
        if (static_cast<uint64_t>(unit->address) + count - 1 > unit->reg->max)
            return error(std::to_string(count) + " units from " + addr + " run past " +
                         formatAddress(*unit->reg, unit->reg->max));
        std::string out;
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t a = unit->address + i;
            out += formatAddress(*unit->reg, a) + " " + std::to_string(mem_.get(*unit->reg, a).value_or(0)) +
                   "\n";
        }
        return out;
    }
    if (cmd == "set") {
        if (w.size() < 3) return error("usage: set ADDR VALUE...");
        std::string why;
        const auto unit = parseUnit(w[1], &why);
        if (!unit) return error(why);
        const uint32_t count = static_cast<uint32_t>(w.size() - 2);
        if (count > kMaxUnitsPerCommand || static_cast<uint64_t>(unit->address) + count - 1 > unit->reg->max)
            return error(std::to_string(count) + " values from " + w[1] + " run past " +
                         formatAddress(*unit->reg, unit->reg->max));
        std::vector<uint32_t> values(count);
        for (uint32_t i = 0; i < count; ++i) {
            if (!parseValue(w[2 + i], *unit->reg, values[i]))
                return error("bad value " + quoted(w[2 + i]) + " for " + unit->reg->name +
                             (unit->reg->isBit() ? " (0 or 1)" : ""));
        }
        for (uint32_t i = 0; i < count; ++i) mem_.set(*unit->reg, unit->address + i, values[i]);
        return "ok\n";
    }
    return error("unknown command " + quoted(cmd) + " (help lists the commands)");
}

}  // namespace kvsim
