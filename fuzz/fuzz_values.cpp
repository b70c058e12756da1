// The screens' value exports with any register name, address, length and
// data: intf_setData, intf_getData and intf_addConditionRead, between cyclic
// transactions answered by the simulated controller. A write the driver
// accepts must show at once: reading the same range back gives what was
// written.
#include "fuzz_input.h"
#include "fuzz_runtime.h"
#include "kv3000_catalogue.h"
#include "kv3000_traits.h"
#include "sim_protocol.h"

#include <QList>

#include <algorithm>
#include <climits>

using namespace kvfuzz;

namespace {

kvsim::Memory& plc() {
    static kvsim::Memory* m = new kvsim::Memory;
    return *m;
}

int elementBytes(int row) {
    return row >= 0 && kvreg::traits(row).countsBits() ? 1 : 2;
}

// The runtime's buffer for len elements of reg: exactly that many bytes,
// so that any access beyond them is caught.
std::vector<uint8_t> buffer(const QString& reg, int len) {
    const long long n = static_cast<long long>(std::max(len, 1)) * elementBytes(getIndexFromRegName(reg));
    return std::vector<uint8_t>(static_cast<size_t>(std::min<long long>(n, 8192)));
}

// What a write of these arguments is promised to show, byte by byte, in a
// read-back of the same range; false when the write is one the driver refuses
// or withdraws.
bool expectedShow(const QString& reg, int address, int length, int gap, bool localOnly,
                  const std::vector<uint8_t>& data, std::vector<uint8_t>& shown) {
    const int row = getIndexFromRegName(reg);
    if (row < 0 || length < 1 || address < 0 || static_cast<long long>(address) + length > INT_MAX)
        return false;
    const kvreg::Traits& t = kvreg::traits(row);
    if (static_cast<long long>(length) * elementBytes(row) > KV_BUFFER_SIZE) return false;
    if (t.readOnly) return false;
    if (!localOnly && gap <= 0) return false;
    shown.assign(data.begin(), data.end());
    if (t.kind == kvreg::Kind::BitInWord) {
        for (auto& b : shown) b = b == 1 ? 1 : 0;  // a bit inside a word is set by exactly 1
    } else if (t.elementBits == 32) {
        shown.resize(static_cast<size_t>(length / 2) * 4);  // whole double words only
    }
    return true;
}

void checkShown(int station, QString reg, int address, int length, const std::vector<uint8_t>& shown) {
    std::vector<uint8_t> back = buffer(reg, length);
    intf_getData(station, reg, address, length, back.data());
    KV_FUZZ_ASSERT(std::equal(shown.begin(), shown.end(), back.begin()));
}

void transactions(Reader& in) {
    const int n = in.u8() % 16;
    for (int i = 0; i < n; ++i) {
        FRAME_PRO f;
        if (intf_getSendFrame(&f) == 0) return;
        checkFrame(f);
        const std::vector<uint8_t> truth = kvsim::answer(plc(), f.frame, static_cast<size_t>(f.sendLength));
        QByteArray reply(reinterpret_cast<const char*>(truth.data()), static_cast<int>(truth.size()));
        QString message;
        intf_dealRcvFrame(&reply, &message);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const int gap = in.u8() % 131;
    const bool localOnly = (in.u8() & 3) == 3;
    resetDriver(QStringLiteral("1#%1#0#2#%2").arg(localOnly ? 1 : 0).arg(gap).toLatin1(), 1);
    plc().clear();

    QList<KEY_ADDRESS> monitored;
    for (int i = in.u8() % 4; i > 0; --i) {
        KEY_ADDRESS key;
        key.station = in.u8() % 2;
        key.reg = in.regName();
        key.address = in.number(70000);
        key.length = in.number(200);
        monitored.append(key);
    }
    intf_addrMerge(monitored);

    for (int step = 0; step < 256 && !in.empty(); ++step) {
        const uint8_t op = in.u8() % 4;
        const int station = in.u8() % 2;
        QString reg = in.regName();
        const int address = in.number(70000);
        const int length = in.number(600);
        switch (op) {
            case 0: {
                std::vector<uint8_t> values = buffer(reg, length);
                const std::vector<uint8_t> given = in.blob16();
                std::copy_n(given.begin(), std::min(given.size(), values.size()), values.begin());
                KV_FUZZ_ASSERT(intf_setData(station, &reg, address, length, values.data(), in.u8()) == 1);
                std::vector<uint8_t> shown;
                if (expectedShow(reg, address, length, gap, localOnly, values, shown))
                    checkShown(station, reg, address, length, shown);
                break;
            }
            case 1: {
                std::vector<uint8_t> back = buffer(reg, length);
                KV_FUZZ_ASSERT(intf_getData(station, reg, address, length, back.data()) == 1);
                break;
            }
            case 2: {
                KEY_ADDRESS key;
                key.station = station;
                key.reg = reg;
                key.address = address;
                key.length = length;
                key.dataType = (in.u8() & 1) ? -1 : 0;
                KV_FUZZ_ASSERT(intf_addConditionRead(key, in.u8()) == 1);
                break;
            }
            default:
                transactions(in);
                break;
        }
    }
    return 0;
}
