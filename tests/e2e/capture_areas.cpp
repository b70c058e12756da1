// kv3000_capture_areas OUT.pcap: reads of every area and writes of every timer/counter value area with the
// simulator's replies; prints what the dissector must decode from them (as kv3000_traits.h names them).
#include "capture_file.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "sim_protocol.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::string addressText(const kvreg::Traits& t, uint32_t frameAddress) {
    char buf[32];
    if (t.notation == kvreg::Notation::WordBit)
        std::snprintf(buf, sizeof buf, "%u.%02u", frameAddress / 16, frameAddress % 16);
    else if (t.notation == kvreg::Notation::Hex)
        std::snprintf(buf, sizeof buf, "%X", frameAddress);
    else
        std::snprintf(buf, sizeof buf, "%u", t.relayWord ? frameAddress / 16 : frameAddress);
    return buf;
}

Bytes request(std::initializer_list<uint8_t> command) {
    const int L = static_cast<int>(command.size());
    Bytes f = {kvwire::ACK, kvwire::SOF, kvwire::HDR2, kvwire::HDR3, static_cast<uint8_t>(L)};
    for (uint8_t c : command) f.push_back(c);
    f.push_back(static_cast<uint8_t>(kvwire::checkSum(f.data() + 3, L + 2)));
    f.push_back(kvwire::EOT);
    return f;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUT.pcap\n", argv[0]);
        return 2;
    }
    kvcapture::Writer out;
    std::string why;
    if (!out.open(argv[1], &why)) {
        std::fprintf(stderr, "%s\n", why.c_str());
        return 1;
    }
    kvsim::Memory plc;
    const auto now = std::chrono::system_clock::now();
    auto exchange = [&](const Bytes& req) {
        const Bytes reply = kvsim::answer(plc, req.data(), req.size());
        out.write(kvcapture::TO_CONTROLLER, req.data(), req.size(), now);
        out.write(kvcapture::TO_HOST, reply.data(), reply.size(), now);
    };

    bool seen[256] = {};
    for (int row = 0; row < REG_COUNT; ++row) {
        const kvreg::Traits& t = kvreg::traits(row);
        if (t.keyRow != row || seen[t.readArea]) continue;  // the first row of an area names it
        seen[t.readArea] = true;
        const bool bitScaled = t.kind == kvreg::Kind::RelayBit || t.relayWord;
        const int base = t.notation == kvreg::Notation::Hex ? 16 : 10;
        const uint32_t highest =
            static_cast<uint32_t>(std::strtoul(ADDRESS_RANGE_PRO[row][REG_COL_MAX], nullptr, base));
        const uint32_t start = bitScaled ? 32 : std::min<uint32_t>(10, highest - 1);
        exchange(request({kvwire::CMD_WORD, kvwire::CMD_WORD_READ, 0, t.readArea, 0, 0, 0, 2, 0, 0, 0,
                          static_cast<uint8_t>(start)}));
        std::string items;
        for (uint32_t i = 0; i < 2; ++i) {
            const uint32_t at = bitScaled ? start + 16 * i : start + i;
            std::string value = "0";
            if (t.kind == kvreg::Kind::RelayBit) value = "0x0000";
            if (t.kind == kvreg::Kind::Contact) value = "contact 0 current 0 set 0";
            items += (i ? "," : "") + std::string(REG_LIST[row]) + addressText(t, at) + "=" + value;
        }
        const std::string head =
            std::string("read\t") + REG_LIST[row] + "\t" + addressText(t, start) + "\t2\t";
        std::printf("%s\n%s%s\n", head.c_str(), head.c_str(), items.c_str());
    }
    for (int row = 0; row < REG_COUNT; ++row) {
        const kvreg::Traits& t = kvreg::traits(row);
        if (t.kind != kvreg::Kind::TimerValue) continue;
        exchange(request({kvwire::CMD_VALUE_WRITE, 0, 1, t.valueWriteArea, 0, 10, 0, 0, 0, 5}));
        std::printf("value write\t%s\t10\t\t%s10=5\nvalue write\t%s\t\t\t\n", REG_LIST[row], REG_LIST[row],
                    REG_LIST[row]);
    }
    return out.failure().empty() ? 0 : 1;
}
