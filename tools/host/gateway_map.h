// The maps of kv3000-host gateway: "DM0:100=hr0" serves DM0 to DM99 as the
// holding registers 0 to 99. Checked before anything starts.
#ifndef KV3000_HOST_GATEWAY_MAP_H
#define KV3000_HOST_GATEWAY_MAP_H

#include "address.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace kvhost {

// The four Modbus tables.
enum class ModbusTable : uint8_t { Coils, DiscreteInputs, HoldingRegisters, InputRegisters };
constexpr int kModbusTables = 4;
constexpr int kModbusAddresses = 65536;

const char* tableName(ModbusTable t);  // "co", "di", "hr", "ir"
inline bool tableHoldsBits(ModbusTable t) {
    return t == ModbusTable::Coils || t == ModbusTable::DiscreteInputs;
}

struct GatewayMap {
    QString text;     // as typed, "DM0:100=hr0"
    Address address;  // the controller's units: register, first unit, count (up to 65536)
    ModbusTable table = ModbusTable::HoldingRegisters;
    int start = 0;    // the first Modbus address
    int perUnit = 1;  // Modbus addresses per unit: 2 for a 32-bit value, low word first

    int span() const { return address.count * perUnit; }
    int end() const { return start + span(); }  // one past the last Modbus address
};

// Parses "ADDR[:COUNT]=TABLE START" (TABLE is hr, ir, co or di). false with
// a sentence naming the map and what is wrong: the address, the count, a
// bit register on a register table or the other way round, a range past
// the register's last address or past Modbus address 65535.
bool parseGatewayMap(const Catalogue& catalogue, const DriverApi& api, const QString& text, GatewayMap& out,
                     QString* error);

// false naming the first two maps whose Modbus addresses overlap.
bool checkGatewayMaps(const std::vector<GatewayMap>& maps, QString* error);

}  // namespace kvhost

#endif
