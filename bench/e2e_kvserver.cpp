// e2e_kvserver: a minimal KV-3000 controller on loopback TCP for the
// end-to-end benchmark. It answers the handshake and word reads, and every
// read reply carries new values in every word. One connection, then it exits.
//
// Frames arrive as a stream: lone acknowledge bytes (06) are skipped, a
// request is 01 00 FF L, L command bytes, check, 04.
#include "e2e_net.h"
#include "kv3000_wire.h"

#include <vector>

namespace {

uint32_t be(const unsigned char* p, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

// 06 then the bytes given, check byte over positions 3 .. end, 04.
void finish(std::vector<unsigned char>& out) {
    out.push_back(static_cast<unsigned char>(kvwire::checkSum(out.data() + 3, int(out.size()) - 3)));
    out.push_back(kvwire::EOT);
}

}  // namespace

int main() {
    const int fd = e2e::serveOne();
    std::vector<unsigned char> in;
    std::vector<unsigned char> out;
    unsigned seed = 0;
    unsigned char buf[4096];
    for (;;) {
        const ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        in.insert(in.end(), buf, buf + r);
        size_t at = 0;
        for (;;) {
            while (at < in.size() && in[at] == kvwire::ACK) ++at;
            if (in.size() - at < 5) break;
            const size_t size = 4 + in[at + 3] + 2u;
            if (in.size() - at < size) break;
            const unsigned char* f = in.data() + at;  // 01 00 FF L cmd ...
            at += size;
            out.assign({kvwire::ACK, 0x01, 0x00, 0xFF});
            if (f[4] == kvwire::CMD_HANDSHAKE_1) {
                out.insert(out.end(), {0x02, 0x07, 0x01});
            } else if (f[4] == kvwire::CMD_HANDSHAKE_2) {
                out.insert(out.end(), {0x03, 0x20, 0x00, 0x01});
            } else if (f[4] == kvwire::CMD_WORD && f[5] == kvwire::CMD_WORD_READ && size == 18) {
                const int count = int(be(f + 10, 2));
                out.insert(out.end(), {0x00, kvwire::CMD_WORD, 0x00, 0x00, 0x00});
                ++seed;
                for (int i = 0; i < count; ++i) {
                    const unsigned v = (seed * 977u + unsigned(i)) & 0xFFFFu;
                    out.push_back(static_cast<unsigned char>(v >> 8));
                    out.push_back(static_cast<unsigned char>(v));
                }
                out[4] = static_cast<unsigned char>(out.size() - 4);
            } else {
                out.assign({kvwire::ACK, 0x01, 0x00, 0xFF, 0x01, 0x15});
            }
            finish(out);
            if (!e2e::sendAll(fd, out.data(), out.size())) return 0;
        }
        in.erase(in.begin(), in.begin() + long(at));
    }
    return 0;
}
