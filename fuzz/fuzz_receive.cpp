// The receive path: the input decides the parameters, the monitored and
// recipe addresses, writes, condition reads, recipe requests and, above all,
// the reply bytes handed to intf_dealRcvFrame for every frame the driver
// sends (the simulated controller's true answer, a damaged one, or raw bytes).
#include "fuzz_input.h"
#include "fuzz_runtime.h"
#include "kv3000_catalogue.h"
#include "kv3000_wire.h"
#include "sim_protocol.h"

#include <QList>
#include <QVector>

#include <algorithm>

using namespace kvfuzz;

namespace {

kvsim::Memory& plc() {
    static kvsim::Memory* m = new kvsim::Memory;
    return *m;
}

int bytesPerElement(const QString& reg) {
    const int row = getIndexFromRegName(reg);
    return row >= 0 && regElementBits(row) == 1 ? 1 : 2;
}

KEY_ADDRESS readKey(Reader& in) {
    KEY_ADDRESS key;
    key.station = in.u8() % 3;
    key.reg = in.regName();
    key.address = in.number(70000);
    key.length = in.number(300);
    key.dataType = (in.u8() & 1) ? -1 : 0;
    return key;
}

void registerKeys(Reader& in, int most) {
    QList<KEY_ADDRESS> keys;
    const int n = in.u8() % (most + 1);
    for (int i = 0; i < n; ++i) keys.append(readKey(in));
    intf_addrMerge(keys);
}

void registerRecipe(Reader& in) {
    QVector<_RCP_VAR_PRO> entries;
    const int n = in.u8() % 5;
    for (int i = 0; i < n; ++i) {
        _RCP_VAR_PRO e;
        e.protocolId = (in.u8() & 7) ? 1 : 2;
        e.station = in.u8() % 3;
        e.reg = in.regName();
        e.address = in.number(70000);
        // The runtime keeps its entries inside its own buffer: at most two
        // words per unit.
        e.length = 1 + in.u8() % 200;
        e.bufferOffset = in.u16() % (RECIPE_WORDS - 2 * 200 - 2);
        entries.append(e);
    }
    intf_setRcpAddress(entries);
}

void write(Reader& in) {
    int station = in.u8() % 3;
    QString reg = in.regName();
    const int address = in.number(70000);
    const int length = in.number(600);
    // The runtime's buffer holds exactly what length promises.
    const long long wanted = static_cast<long long>(std::max(length, 1)) * bytesPerElement(reg);
    std::vector<uint8_t> data(static_cast<size_t>(std::min<long long>(wanted, 4096)));
    const std::vector<uint8_t> given = in.blob16();
    std::copy_n(given.begin(), std::min(given.size(), data.size()), data.begin());
    intf_setData(station, &reg, address, length, data.data(), in.u8());
}

void conditionRead(Reader& in) {
    const KEY_ADDRESS key = readKey(in);
    intf_addConditionRead(key, in.u8());
}

void transaction(Reader& in) {
    FRAME_PRO f;
    if (intf_getSendFrame(&f) == 0) return;
    checkFrame(f);
    const std::vector<uint8_t> truth = kvsim::answer(plc(), f.frame, static_cast<size_t>(f.sendLength));
    QByteArray reply;
    switch (in.u8() % 8) {
        case 0:
        case 1:
        case 2:
        case 3:
            reply = QByteArray(reinterpret_cast<const char*>(truth.data()), static_cast<int>(truth.size()));
            break;
        case 4: {
            reply = QByteArray(reinterpret_cast<const char*>(truth.data()), static_cast<int>(truth.size()));
            const int at = in.u16();
            if (!reply.isEmpty())
                reply[at % reply.size()] = static_cast<char>(reply[at % reply.size()] ^ in.u8());
            break;
        }
        case 5: {
            const std::vector<uint8_t> raw = in.blob16();
            reply = QByteArray(reinterpret_cast<const char*>(raw.data()), static_cast<int>(raw.size()));
            break;
        }
        case 6:
            reply = QByteArray(reinterpret_cast<const char*>(truth.data()), static_cast<int>(truth.size()));
            reply.truncate(in.u16() % (reply.size() + 1));
            break;
        default: {
            reply = QByteArray(reinterpret_cast<const char*>(truth.data()), static_cast<int>(truth.size()));
            const std::vector<uint8_t> more = in.blob();
            reply.append(reinterpret_cast<const char*>(more.data()), static_cast<int>(more.size()));
            break;
        }
    }
    QString message;
    const int result = intf_dealRcvFrame(&reply, &message);
    KV_FUZZ_ASSERT(result == 0 || result == 1 || result == 2 || result == 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const int retries = in.u8() % 5;
    const int gap = in.u8() % 131;
    const int localOnly = (in.u8() & 7) == 7 ? 1 : 0;
    const int callbackMode = in.u8() % 4;
    resetDriver(QStringLiteral("1#%1#0#%2#%3").arg(localOnly).arg(retries).arg(gap).toLatin1(), callbackMode);
    plc().clear();

    registerKeys(in, 8);
    registerRecipe(in);
    for (int step = 0; step < 512 && !in.empty(); ++step) {
        switch (in.u8() % 12) {
            case 0:
                write(in);
                break;
            case 1:
                conditionRead(in);
                break;
            case 2: {
                const unsigned char which = in.u8();
                setShareByte((which & 1) ? kvwire::SHM_RECIPE_READ : kvwire::SHM_RECIPE_WRITE,
                             (which >> 1) & 1);
                break;
            }
            case 3:
                registerKeys(in, 4);
                break;
            case 4:
                registerRecipe(in);
                break;
            default:
                transaction(in);
                break;
        }
    }
    return 0;
}
