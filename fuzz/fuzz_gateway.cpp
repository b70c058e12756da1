// kv3000-host gateway's answer to whatever a Modbus client sends: the bytes
// arrive on a socket pair and libmodbus frames them as it does for a real
// client. Every request gets one answer, a reply to its own function or an
// exception the gateway gives; a write reaches the driver side only as whole,
// writable units inside one map; nothing is read or written outside a buffer.
#include "driver_loader.h"
#include "fuzz_input.h"
#include "gateway_requests.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>

using namespace kvfuzz;
using namespace kvhost;

namespace {

// The first input byte: bit 0 writes allowed, bit 1 only unit 1 answered, bit 2 writes succeed.
class CheckingWriter : public GatewayWriter {
public:
    explicit CheckingWriter(const std::vector<GatewayMap>& maps) : maps_(maps) {}
    bool succeed = true;
    bool write(const std::vector<UnitWrite>& writes, const std::string&) override {
        KV_FUZZ_ASSERT(!writes.empty());
        for (const UnitWrite& w : writes) {
            KV_FUZZ_ASSERT(w.map < maps_.size());
            const GatewayMap& m = maps_[w.map];
            KV_FUZZ_ASSERT(m.address.reg->writable() && !w.values.empty() && w.firstUnit >= 0);
            KV_FUZZ_ASSERT(w.firstUnit + static_cast<int>(w.values.size()) <= m.address.count);
            for (uint32_t v : w.values)
                KV_FUZZ_ASSERT(m.address.reg->isBit() ? v <= 1 : m.perUnit == 2 || v <= 0xFFFF);
        }
        return succeed;
    }

private:
    const std::vector<GatewayMap>& maps_;
};

struct Gateway {
    DriverApi api;
    std::unique_ptr<Catalogue> catalogue;
    std::unique_ptr<GatewayTables> tables;
    GatewayCounters counters;

    Gateway() {
        api.getRegListByType = &intf_getRegListByType;
        api.getRegDiscription = &intf_getRegDiscription;
        api.checkAddr = &intf_checkAddr;
        catalogue = std::make_unique<Catalogue>(api);
        std::vector<GatewayMap> maps;
        // Every kind, edges of the tables, and DM200:10 never read.
        for (const char* text :
             {"DM0:100=hr0", "Z0:4=hr100", "TS0:1=hr65534", "T0:16=co100", "MR_bit10.00:32=co0",
              "B0:8=co65528", "R0.00:16=di100", "TC0:3=ir0", "DM200:10=ir10"}) {
            GatewayMap m;
            QString why;
            KV_FUZZ_ASSERT(parseGatewayMap(*catalogue, api, QLatin1String(text), m, &why));
            maps.push_back(m);
        }
        KV_FUZZ_ASSERT(checkGatewayMaps(maps, nullptr));
        tables = std::make_unique<GatewayTables>(maps);
        for (size_t i = 0; i + 1 < maps.size(); ++i)
            for (int u = 0; u < maps[i].address.count; ++u)
                tables->store(i, u, static_cast<uint32_t>(0x9E3779B9u * (i * 131 + static_cast<size_t>(u))));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Gateway* g = new Gateway;
    Reader in(data, size);
    const uint8_t flags = in.u8();
    const std::vector<uint8_t> sent = in.bytes(in.left());
    int pair[2];
    KV_FUZZ_ASSERT(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
    if (!sent.empty())
        KV_FUZZ_ASSERT(write(pair[1], sent.data(), sent.size()) == static_cast<ssize_t>(sent.size()));
    shutdown(pair[1], SHUT_WR);

    CheckingWriter writer(g->tables->maps());
    writer.succeed = flags & 4;
    GatewayRequests requests(*g->tables, writer, GatewayPolicy{(flags & 1) != 0, flags & 2 ? 1 : -1},
                             g->counters, "fuzz");
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", 502);
    modbus_set_socket(ctx, pair[0]);
    uint8_t adu[MODBUS_TCP_MAX_ADU_LENGTH];
    for (int i = 0; i < 32; ++i) {
        const int n = modbus_receive(ctx, adu);
        if (n <= 0) break;
        KV_FUZZ_ASSERT(n <= MODBUS_TCP_MAX_ADU_LENGTH);
        KV_FUZZ_ASSERT(requests.answer(ctx, adu, n) > 0);
        uint8_t reply[MODBUS_TCP_MAX_ADU_LENGTH + 1];
        const ssize_t r = recv(pair[1], reply, sizeof reply, MSG_DONTWAIT);
        // The request's transaction and unit, a length that counts what follows, its function or an
        // exception.
        KV_FUZZ_ASSERT(r >= 9 && r <= MODBUS_TCP_MAX_ADU_LENGTH);
        KV_FUZZ_ASSERT(reply[0] == adu[0] && reply[1] == adu[1] && reply[6] == adu[6]);
        KV_FUZZ_ASSERT((reply[4] << 8 | reply[5]) == r - 6);
        if (reply[7] != adu[7]) {
            // libmodbus adds 0x80 to the function (a request's function is below 0x80).
            KV_FUZZ_ASSERT(reply[7] == static_cast<uint8_t>(adu[7] + 0x80) && r == 9);
            const uint8_t code = reply[8];
            KV_FUZZ_ASSERT((code >= kIllegalFunction && code <= kServerFailure) || code == kGatewayPath ||
                           code == kTargetFailed);
        }
    }
    modbus_free(ctx);
    close(pair[0]);
    close(pair[1]);
    return 0;
}
