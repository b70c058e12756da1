// e2e_kvloop: the runtime's communication loop over loopback TCP against
// e2e_kvserver, for one 128-word "DM" block whose words are all monitored.
//
//   e2e_kvloop driver PORT SECONDS LIB   the loop through the driver (LIB = libkv_3000.so)
//   e2e_kvloop replay PORT SECONDS       the same request bytes sent and the
//                                        reply read, without the driver
//
// Both print "request: <hex>" on stderr, so a caller can check that they send
// the same bytes, and "<mode> <transactions per second>" on stdout.
#include "e2e_net.h"
#include "kv3000_intf.h"
#include "kv3000_wire.h"

#include <QByteArray>
#include <QMutex>
#include <QString>

#include <dlfcn.h>

namespace {

constexpr int kBlock = 128;
constexpr int kAddress = 1000;

long long reports = 0;
void countChange(int, int, const QString&, int) {
    ++reports;
}
void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

template <class F>
F resolve(void* lib, const char* name) {
    void* p = dlsym(lib, name);
    if (!p) {
        std::fprintf(stderr, "e2e_kvloop: %s missing\n", name);
        std::exit(1);
    }
    return reinterpret_cast<F>(p);
}

int runDriver(int fd, double duration, const char* libPath) {
    void* lib = dlopen(libPath, RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "e2e_kvloop: %s\n", dlerror());
        return 1;
    }
    auto initProperty = resolve<decltype(&intf_initProperty)>(lib, "intf_initProperty");
    auto setCallBack =
        resolve<decltype(&intf_setAddrValueChangeCallBack)>(lib, "intf_setAddrValueChangeCallBack");
    auto addrMerge = resolve<decltype(&intf_addrMerge)>(lib, "intf_addrMerge");
    auto getSendFrame = resolve<decltype(&intf_getSendFrame)>(lib, "intf_getSendFrame");
    auto dealRcvFrame = resolve<decltype(&intf_dealRcvFrame)>(lib, "intf_dealRcvFrame");

    static unsigned char shm[kvwire::SHM_MIN_SIZE] = {};
    static unsigned short recipe[1024] = {};
    int status = 0;
    static QMutex shareMutex;
    initProperty(shm, nullptr, recipe, &status, "1#0#0#3#10", &shareMutex);
    setCallBack(countChange);
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < kBlock; ++i) {
        KEY_ADDRESS k;
        k.station = 1;
        k.reg = QStringLiteral("DM");
        k.address = kAddress + i;
        k.length = 1;
        keys.append(k);
    }
    const QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    const int blocks = addrMerge(keys);
    qInstallMessageHandler(previous);
    if (blocks != 1) {
        std::fprintf(stderr, "e2e_kvloop: %d blocks\n", blocks);
        return 1;
    }

    FRAME_PRO frame;
    QByteArray reply;
    QString message;
    bool shown = false;
    long long reads = 0;
    // One cyclic read per call; the handshake frames before the first go by in the warm-up.
    auto once = [&]() -> bool {
        for (;;) {
            if (!getSendFrame(&frame)) return false;
            if (frame.sendLength > 0 && !e2e::sendAll(fd, frame.frame, size_t(frame.sendLength)))
                return false;
            reply.resize(frame.replyLength);
            if (frame.replyLength > 0 && !e2e::recvExact(fd, reply.data(), size_t(frame.replyLength)))
                return false;
            const int result = dealRcvFrame(&reply, &message);
            if (result != 1) {
                std::fprintf(stderr, "e2e_kvloop: reply refused (%d) %s\n", result, qPrintable(message));
                return false;
            }
            if (frame.elementCount == kBlock) {
                if (!shown) {
                    std::fprintf(stderr, "request: %s\n", e2e::hex(frame.frame, frame.sendLength).c_str());
                    shown = true;
                }
                ++reads;
                return true;
            }
        }
    };
    const long long before = reports;
    const int rc = e2e::timedLoop("driver", duration, once);
    if (rc == 0) std::fprintf(stderr, "reports per read: %.2f\n", double(reports - before) / double(reads));
    setCallBack(nullptr);
    return rc;
}

int runReplay(int fd, double duration) {
    // 06 01 00 FF 0C 1E 00 00 area 00 00 count(2) start(4) check 04
    unsigned char request[kvwire::READ_FRAME_LEN] = {kvwire::ACK,
                                                     kvwire::SOF,
                                                     kvwire::HDR2,
                                                     kvwire::HDR3,
                                                     kvwire::READ_CMD_LEN,
                                                     kvwire::CMD_WORD,
                                                     0x00,
                                                     0x00,
                                                     kvwire::AREA_DM,
                                                     0x00,
                                                     0x00,
                                                     0x00,
                                                     kBlock,
                                                     0x00,
                                                     0x00,
                                                     kAddress >> 8,
                                                     kAddress & 0xFF};
    request[17] = static_cast<unsigned char>(kvwire::checkSum(request + 3, 14));
    request[18] = kvwire::EOT;
    std::fprintf(stderr, "request: %s\n", e2e::hex(request, sizeof request).c_str());
    unsigned char reply[kvwire::READ_REPLY_OVERHEAD + 2 * kBlock];
    return e2e::timedLoop("replay", duration, [&] {
        return e2e::sendAll(fd, request, sizeof request) && e2e::recvExact(fd, reply, sizeof reply);
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || (std::strcmp(argv[1], "driver") == 0 && argc < 5)) {
        std::fprintf(stderr, "usage: e2e_kvloop driver PORT SECONDS LIB | replay PORT SECONDS\n");
        return 2;
    }
    const int fd = e2e::connectTo(std::atoi(argv[2]));
    const double duration = std::atof(argv[3]);
    const int rc =
        std::strcmp(argv[1], "driver") == 0 ? runDriver(fd, duration, argv[4]) : runReplay(fd, duration);
    close(fd);
    return rc;
}
