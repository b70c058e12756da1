#include "gateway_requests.h"

#include <algorithm>
#include <memory>

namespace kvhost {

namespace {

uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

struct MappingFree {
    void operator()(modbus_mapping_t* m) const { modbus_mapping_free(m); }
};
using Mapping = std::unique_ptr<modbus_mapping_t, MappingFree>;

// A mapping of exactly the requested range of one table, for modbus_reply.
Mapping scratch(ModbusTable table, int address, int count) {
    switch (table) {
        case ModbusTable::Coils:
            return Mapping(modbus_mapping_new_start_address(address, count, 0, 0, 0, 0, 0, 0));
        case ModbusTable::DiscreteInputs:
            return Mapping(modbus_mapping_new_start_address(0, 0, address, count, 0, 0, 0, 0));
        case ModbusTable::HoldingRegisters:
            return Mapping(modbus_mapping_new_start_address(0, 0, 0, 0, address, count, 0, 0));
        case ModbusTable::InputRegisters:
            break;
    }
    return Mapping(modbus_mapping_new_start_address(0, 0, 0, 0, 0, 0, address, count));
}

}  // namespace

GatewayTables::GatewayTables(std::vector<GatewayMap> maps) : maps_(std::move(maps)) {
    for (int t = 0; t < kModbusTables; ++t) {
        int first = kModbusAddresses, end = 0;
        for (const GatewayMap& m : maps_) {
            if (static_cast<int>(m.table) != t) continue;
            first = std::min(first, m.start);
            end = std::max(end, m.end());
        }
        Table& table = tables_[static_cast<size_t>(t)];
        if (end <= first) continue;
        table.first = first;
        table.owners.assign(static_cast<size_t>(end - first), -1);
        table.values.assign(table.owners.size(), 0);
        table.known.assign(table.owners.size(), 0);
        for (size_t i = 0; i < maps_.size(); ++i)
            if (static_cast<int>(maps_[i].table) == t)
                std::fill(table.owners.begin() + (maps_[i].start - first),
                          table.owners.begin() + (maps_[i].end() - first), static_cast<int32_t>(i));
    }
}

void GatewayTables::store(size_t map, int unit, uint32_t value) {
    if (map >= maps_.size()) return;
    const GatewayMap& m = maps_[map];
    if (unit < 0 || unit >= m.address.count) return;
    Table& t = tables_[static_cast<size_t>(m.table)];
    const size_t at = static_cast<size_t>(m.start + unit * m.perUnit - t.first);
    std::lock_guard<std::mutex> lock(mutex_);
    if (m.perUnit == 2) {
        t.values[at] = static_cast<uint16_t>(value);  // low word first
        t.values[at + 1] = static_cast<uint16_t>(value >> 16);
        t.known[at] = t.known[at + 1] = 1;
    } else {
        t.values[at] = static_cast<uint16_t>(tableHoldsBits(m.table) ? value != 0 : value);
        t.known[at] = 1;
    }
}

int GatewayTables::owner(ModbusTable table, int address) const {
    const Table& t = tables_[static_cast<size_t>(table)];
    const int at = address - t.first;
    return at >= 0 && at < static_cast<int>(t.owners.size()) ? t.owners[static_cast<size_t>(at)] : -1;
}

bool GatewayTables::copy(ModbusTable table, int address, int count, uint16_t* out) const {
    const Table& t = tables_[static_cast<size_t>(table)];
    const int at = address - t.first;
    if (at < 0 || count < 0 || at + count > static_cast<int>(t.values.size())) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < count; ++i) {
        if (!t.known[static_cast<size_t>(at + i)]) return false;
        out[i] = t.values[static_cast<size_t>(at + i)];
    }
    return true;
}

GatewayRequests::GatewayRequests(GatewayTables& tables, GatewayWriter& writer, GatewayPolicy policy,
                                 GatewayCounters& counters, std::string peer)
    : tables_(tables), writer_(writer), policy_(policy), counters_(counters), peer_(std::move(peer)) {}

// The checks in the order Modbus servers make them: the function (1), the
// quantity and the request's own consistency (3), the addresses (2).
int GatewayRequests::decide(const uint8_t* pdu, int length, int& function, ModbusTable& table, int& address,
                            int& count) {
    function = pdu[0];
    bool write = false;
    int limit = 0;
    switch (function) {
        case MODBUS_FC_READ_COILS:
        case MODBUS_FC_READ_DISCRETE_INPUTS:
            table = function == MODBUS_FC_READ_COILS ? ModbusTable::Coils : ModbusTable::DiscreteInputs;
            limit = MODBUS_MAX_READ_BITS;
            break;
        case MODBUS_FC_READ_HOLDING_REGISTERS:
        case MODBUS_FC_READ_INPUT_REGISTERS:
            table = function == MODBUS_FC_READ_HOLDING_REGISTERS ? ModbusTable::HoldingRegisters
                                                                 : ModbusTable::InputRegisters;
            limit = MODBUS_MAX_READ_REGISTERS;
            break;
        case MODBUS_FC_WRITE_SINGLE_COIL:
        case MODBUS_FC_WRITE_MULTIPLE_COILS:
            table = ModbusTable::Coils;
            write = true;
            limit = MODBUS_MAX_WRITE_BITS;
            break;
        case MODBUS_FC_WRITE_SINGLE_REGISTER:
        case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
            table = ModbusTable::HoldingRegisters;
            write = true;
            limit = MODBUS_MAX_WRITE_REGISTERS;
            break;
        default:
            return kIllegalFunction;
    }
    if (write && !policy_.allowWrites) return kIllegalFunction;
    if (length < 5) return kIllegalValue;
    address = be16(pdu + 1);
    const bool single =
        function == MODBUS_FC_WRITE_SINGLE_COIL || function == MODBUS_FC_WRITE_SINGLE_REGISTER;
    count = single ? 1 : be16(pdu + 3);
    if (count < 1 || count > limit) return kIllegalValue;
    if (function == MODBUS_FC_WRITE_SINGLE_COIL && be16(pdu + 3) != 0xFF00 && be16(pdu + 3) != 0)
        return kIllegalValue;
    if (function == MODBUS_FC_WRITE_MULTIPLE_COILS || function == MODBUS_FC_WRITE_MULTIPLE_REGISTERS) {
        const int bytes = function == MODBUS_FC_WRITE_MULTIPLE_COILS ? (count + 7) / 8 : 2 * count;
        if (length < 6 || pdu[5] != bytes || length < 6 + bytes) return kIllegalValue;
    }
    if (address + count > kModbusAddresses) return kIllegalAddress;
    const std::vector<GatewayMap>& maps = tables_.maps();
    for (int i = 0; i < count;) {
        const int m = tables_.owner(table, address + i);
        if (m < 0) return kIllegalAddress;
        const GatewayMap& map = maps[static_cast<size_t>(m)];
        const int run = std::min(count - i, map.end() - (address + i));
        // A write names whole units of writable registers: never T or C, never half a 32-bit value.
        if (write && (!map.address.reg->writable() ||
                      (map.perUnit == 2 && ((address + i - map.start) % 2 != 0 || run % 2 != 0))))
            return kIllegalAddress;
        i += run;
    }
    return 0;
}

int GatewayRequests::writeUnits(ModbusTable table, int address, int count, const uint16_t* values) {
    const std::vector<GatewayMap>& maps = tables_.maps();
    std::vector<UnitWrite> writes;
    for (int i = 0; i < count;) {
        const int m = tables_.owner(table, address + i);
        const GatewayMap& map = maps[static_cast<size_t>(m)];
        const int run = std::min(count - i, map.end() - (address + i));
        UnitWrite w;
        w.map = static_cast<size_t>(m);
        w.firstUnit = (address + i - map.start) / map.perUnit;
        for (int k = 0; k + map.perUnit <= run; k += map.perUnit) {
            uint32_t v = values[i + k];
            if (map.perUnit == 2) v |= static_cast<uint32_t>(values[i + k + 1]) << 16;
            w.values.push_back(v);
        }
        writes.push_back(std::move(w));
        i += run;
    }
    return writer_.write(writes, peer_) ? 0 : kServerFailure;
}

int GatewayRequests::answer(modbus_t* ctx, const uint8_t* adu, int length) {
    const int header = modbus_get_header_length(ctx);
    if (header < 1 || length < header + 1) return -1;
    ++counters_.requests;
    auto exception = [&](int code) {
        ++counters_.exceptions[static_cast<size_t>(code)];
        return modbus_reply_exception(ctx, adu, static_cast<unsigned int>(code));
    };
    if (policy_.unit >= 0 && adu[header - 1] != policy_.unit) return exception(kGatewayPath);
    const uint8_t* pdu = adu + header;
    int function = 0, address = 0, count = 0;
    ModbusTable table = ModbusTable::Coils;
    if (const int code = decide(pdu, length - header, function, table, address, count))
        return exception(code);

    std::vector<uint16_t> values(static_cast<size_t>(count));
    const bool write =
        function == MODBUS_FC_WRITE_SINGLE_COIL || function == MODBUS_FC_WRITE_SINGLE_REGISTER ||
        function == MODBUS_FC_WRITE_MULTIPLE_COILS || function == MODBUS_FC_WRITE_MULTIPLE_REGISTERS;
    if (write) {
        if (function == MODBUS_FC_WRITE_SINGLE_COIL)
            values[0] = be16(pdu + 3) == 0xFF00;
        else if (function == MODBUS_FC_WRITE_SINGLE_REGISTER)
            values[0] = be16(pdu + 3);
        else if (function == MODBUS_FC_WRITE_MULTIPLE_COILS)
            for (int i = 0; i < count; ++i) values[static_cast<size_t>(i)] = (pdu[6 + i / 8] >> (i % 8)) & 1;
        else
            for (int i = 0; i < count; ++i) values[static_cast<size_t>(i)] = be16(pdu + 6 + 2 * i);
        if (const int code = writeUnits(table, address, count, values.data())) return exception(code);
        ++counters_.writes;
    } else {
        if (!tables_.copy(table, address, count, values.data())) return exception(kTargetFailed);
        ++counters_.reads;
    }
    Mapping m = scratch(table, address, count);
    if (!m) return exception(kServerFailure);
    for (int i = 0; i < count; ++i) {
        const uint16_t v = values[static_cast<size_t>(i)];
        switch (table) {
            case ModbusTable::Coils:
                m->tab_bits[i] = static_cast<uint8_t>(v);
                break;
            case ModbusTable::DiscreteInputs:
                m->tab_input_bits[i] = static_cast<uint8_t>(v);
                break;
            case ModbusTable::HoldingRegisters:
                m->tab_registers[i] = v;
                break;
            case ModbusTable::InputRegisters:
                m->tab_input_registers[i] = v;
                break;
        }
    }
    return modbus_reply(ctx, adu, length, m.get());
}

}  // namespace kvhost
