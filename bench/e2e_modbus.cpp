// e2e_modbus: the peer library's figure for the end-to-end benchmark, a
// libmodbus TCP client reading 125 holding registers from a libmodbus server.
//
//   e2e_modbus server               prints "port N", answers one connection
//   e2e_modbus client PORT SECONDS  prints "modbus <reads per second>"
#include "e2e_net.h"

#include <modbus.h>

namespace {
constexpr int kRegisters = 125;
}

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "server") == 0) {
        modbus_t* ctx = modbus_new_tcp("127.0.0.1", 0);
        modbus_mapping_t* map = modbus_mapping_new(0, 0, kRegisters, 0);
        if (!ctx || !map) e2e::die("modbus");
        int listener = modbus_tcp_listen(ctx, 1);
        if (listener < 0) e2e::die("modbus_tcp_listen");
        sockaddr_in a{};
        socklen_t len = sizeof a;
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
        std::printf("port %u\n", unsigned(ntohs(a.sin_port)));
        std::fflush(stdout);
        if (modbus_tcp_accept(ctx, &listener) < 0) e2e::die("modbus_tcp_accept");
        uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
        unsigned seed = 0;
        for (;;) {
            const int n = modbus_receive(ctx, query);
            if (n < 0) break;
            if (n == 0) continue;
            ++seed;  // new values in every reply, as the controller's
            for (int i = 0; i < kRegisters; ++i) map->tab_registers[i] = uint16_t(seed * 977u + unsigned(i));
            if (modbus_reply(ctx, query, n, map) < 0) break;
        }
        modbus_mapping_free(map);
        modbus_close(ctx);
        modbus_free(ctx);
        return 0;
    }
    if (argc < 4 || std::strcmp(argv[1], "client") != 0) {
        std::fprintf(stderr, "usage: e2e_modbus server | client PORT SECONDS\n");
        return 2;
    }
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", std::atoi(argv[2]));
    if (!ctx || modbus_connect(ctx) != 0) e2e::die("modbus_connect");
    uint16_t regs[kRegisters];
    const int rc = e2e::timedLoop("modbus", std::atof(argv[3]), [&] {
        return modbus_read_registers(ctx, 0, kRegisters, regs) == kRegisters;
    });
    modbus_close(ctx);
    modbus_free(ctx);
    return rc;
}
