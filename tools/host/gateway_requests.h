// How kv3000-host gateway answers one Modbus request: the values it serves,
// Modbus address by Modbus address, and the decision between a reply, a
// write through the driver, and an exception. Free of sockets and threads of
// its own, so that a fuzzer drives it with a libmodbus context over a
// socket pair.
#ifndef KV3000_HOST_GATEWAY_REQUESTS_H
#define KV3000_HOST_GATEWAY_REQUESTS_H

#include "gateway_map.h"

#include <modbus.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kvhost {

// The exceptions the gateway answers with.
enum GatewayException : uint8_t {
    kIllegalFunction = MODBUS_EXCEPTION_ILLEGAL_FUNCTION,       // 1
    kIllegalAddress = MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS,    // 2
    kIllegalValue = MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE,        // 3
    kServerFailure = MODBUS_EXCEPTION_SLAVE_OR_SERVER_FAILURE,  // 4
    kGatewayPath = MODBUS_EXCEPTION_GATEWAY_PATH,               // 10: no such unit here
    kTargetFailed = MODBUS_EXCEPTION_GATEWAY_TARGET,            // 11: not read from the controller yet
};

// The values served. The loop thread stores what the driver reports; the
// client threads copy ranges out. Which map owns an address never changes.
class GatewayTables {
public:
    explicit GatewayTables(std::vector<GatewayMap> maps);
    const std::vector<GatewayMap>& maps() const { return maps_; }

    // Unit `unit` of map `map` holds value now (and has been read).
    void store(size_t map, int unit, uint32_t value);
    // The map that owns a Modbus address, or -1.
    int owner(ModbusTable table, int address) const;
    // Copies count values from address on (0 or 1 per bit, a word per
    // register). false when one of them has not been read yet.
    bool copy(ModbusTable table, int address, int count, uint16_t* out) const;

private:
    struct Table {
        int first = 0;                // lowest Modbus address mapped
        std::vector<int32_t> owners;  // map index per address from first on, -1 unmapped
        std::vector<uint16_t> values;
        std::vector<uint8_t> known;
    };
    std::vector<GatewayMap> maps_;
    std::array<Table, kModbusTables> tables_;
    mutable std::mutex mutex_;
};

// Units of one map to write: values[i] for unit firstUnit + i.
struct UnitWrite {
    size_t map = 0;
    int firstUnit = 0;
    std::vector<uint32_t> values;
};

// Carries writes out through the driver.
class GatewayWriter {
public:
    virtual ~GatewayWriter() = default;
    // true when the driver settled every unit as written. peer: the client, "127.0.0.1:40312".
    virtual bool write(const std::vector<UnitWrite>& writes, const std::string& peer) = 0;
};

struct GatewayPolicy {
    bool allowWrites = false;
    int unit = -1;  // the only unit id answered; -1 answers every one
};

// Requests served, and exceptions by code; updated from every client thread.
struct GatewayCounters {
    std::atomic<uint64_t> requests{0}, reads{0}, writes{0};
    std::array<std::atomic<uint64_t>, 12> exceptions{};  // by code, 1 to 11
};

class GatewayRequests {
public:
    // One per client.
    GatewayRequests(GatewayTables& tables, GatewayWriter& writer, GatewayPolicy policy,
                    GatewayCounters& counters, std::string peer);
    // Answers one request as modbus_receive returned it on ctx (a complete
    // ADU of length bytes). Returns what modbus_reply or
    // modbus_reply_exception returned: -1 when the answer could not be sent.
    int answer(modbus_t* ctx, const uint8_t* adu, int length);

private:
    int decide(const uint8_t* pdu, int length, int& function, ModbusTable& table, int& address, int& count);
    int writeUnits(ModbusTable table, int address, int count, const uint16_t* values);

    GatewayTables& tables_;
    GatewayWriter& writer_;
    GatewayPolicy policy_;
    GatewayCounters& counters_;
    std::string peer_;
};

}  // namespace kvhost

#endif
