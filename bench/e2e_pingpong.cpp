// e2e_pingpong: the floor of the end-to-end benchmark, a raw socket round
// trip of a 19-byte request and a 267-byte reply, the sizes of a 128-word read.
//
//   e2e_pingpong server               prints "port N", answers one connection
//   e2e_pingpong client PORT SECONDS  prints "pingpong <round trips per second>"
#include "e2e_net.h"

namespace {
constexpr int kRequest = 19;
constexpr int kReply = 267;
}  // namespace

int main(int argc, char** argv) {
    unsigned char request[kRequest] = {};
    unsigned char reply[kReply] = {};
    if (argc >= 2 && std::strcmp(argv[1], "server") == 0) {
        const int fd = e2e::serveOne();
        while (e2e::recvExact(fd, request, sizeof request) && e2e::sendAll(fd, reply, sizeof reply)) {
        }
        return 0;
    }
    if (argc < 4 || std::strcmp(argv[1], "client") != 0) {
        std::fprintf(stderr, "usage: e2e_pingpong server | client PORT SECONDS\n");
        return 2;
    }
    const int fd = e2e::connectTo(std::atoi(argv[2]));
    const int rc = e2e::timedLoop("pingpong", std::atof(argv[3]), [&] {
        return e2e::sendAll(fd, request, sizeof request) && e2e::recvExact(fd, reply, sizeof reply);
    });
    close(fd);
    return rc;
}
