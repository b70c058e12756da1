// Writes the seed corpus of every harness into <dir>/<harness>/: inputs built
// from the frames the driver sends and the replies the simulated controller
// gives in the everyday cases (cyclic reads of every unit kind, writes,
// condition reads, recipe transfers), the address texts the codec sees, and
// Modbus requests of every function the gateway serves.
//
//   kv3000_fuzz_corpus fuzz/corpus
#include "capture_file.h"
#include "fuzz_input.h"
#include "fuzz_runtime.h"
#include "kv3000_catalogue.h"
#include "kv3000_wire.h"
#include "sim_protocol.h"

#include <QDir>
#include <QFile>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

using namespace kvfuzz;

namespace {

using Bytes = std::vector<uint8_t>;

QString outDir;
int written = 0;

void save(const char* harness, const std::string& name, const Bytes& bytes) {
    const QString dir = outDir + QLatin1Char('/') + QLatin1String(harness);
    QDir().mkpath(dir);
    QFile f(dir + QLatin1Char('/') + QString::fromStdString(name));
    if (!f.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(f.fileName()));
        std::exit(1);
    }
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<qint64>(bytes.size()));
    ++written;
}

int row(const char* name) {
    return getIndexFromRegName(QString::fromLatin1(name));
}

struct Key {
    int station;
    const char* reg;
    int address;
    int length;
    int dataType;
};

// The driver against the simulated controller, recording each exchange.
struct Session {
    kvsim::Memory plc;
    std::vector<Bytes> frames;
    std::vector<Bytes> replies;

    void run(int transactions) {
        for (int i = 0; i < transactions; ++i) {
            FRAME_PRO f;
            if (intf_getSendFrame(&f) == 0) return;
            const Bytes frame(f.frame, f.frame + f.sendLength);
            const Bytes reply = kvsim::answer(plc, frame.data(), frame.size());
            frames.push_back(frame);
            replies.push_back(reply);
            QByteArray r(reinterpret_cast<const char*>(reply.data()), static_cast<int>(reply.size()));
            QString message;
            intf_dealRcvFrame(&r, &message);
        }
    }
};

// One receive-path seed: registration, optional recipe entries, then the
// scenario's own steps, each transaction carrying the recorded reply bytes.
void receiveSeed(const std::string& name, const std::vector<Key>& keys, const std::vector<Key>& recipe,
                 const std::function<void(Session&, Writer&)>& steps) {
    resetDriver("1#0#0#3#10", 1);
    Session s;
    Writer w;
    w.u8(3).u8(10).u8(0).u8(1);
    QList<KEY_ADDRESS> list;
    w.u8(static_cast<uint8_t>(keys.size()));
    for (const Key& k : keys) {
        w.u8(static_cast<uint8_t>(k.station)).regName(row(k.reg)).number(k.address).number(k.length);
        w.u8(k.dataType == -1 ? 1 : 0);
        KEY_ADDRESS key;
        key.station = k.station;
        key.reg = QString::fromLatin1(k.reg);
        key.address = k.address;
        key.length = k.length;
        key.dataType = k.dataType;
        list.append(key);
    }
    intf_addrMerge(list);
    QVector<_RCP_VAR_PRO> entries;
    w.u8(static_cast<uint8_t>(recipe.size()));
    int offset = 0;
    for (const Key& k : recipe) {
        w.u8(1).u8(static_cast<uint8_t>(k.station)).regName(row(k.reg)).number(k.address);
        w.u8(static_cast<uint8_t>(k.length - 1)).u16(static_cast<uint16_t>(offset));
        _RCP_VAR_PRO e;
        e.protocolId = 1;
        e.station = k.station;
        e.reg = QString::fromLatin1(k.reg);
        e.address = k.address;
        e.length = k.length;
        e.bufferOffset = offset;
        entries.append(e);
        offset += 2 * k.length;
    }
    intf_setRcpAddress(entries);
    steps(s, w);
    save("receive", name, w.out);
}

// Capture files as --capture writes them: the whole conversation; one cut
// inside its last record; a lone acknowledge and a reply that never came.
void captureSeeds(const std::vector<Bytes>& frames, const std::vector<Bytes>& replies) {
    const std::string path = QDir::tempPath().toStdString() + "/kv3000_fuzz_capture.pcap";
    auto capture = [&](size_t exchanges, bool silent) {
        kvcapture::Writer w;
        std::string why;
        if (!w.open(path, &why)) {
            std::fprintf(stderr, "%s\n", why.c_str());
            std::exit(1);
        }
        const auto now = std::chrono::system_clock::now();
        for (size_t i = 0; i < exchanges && i < frames.size(); ++i) {
            w.write(kvcapture::TO_CONTROLLER, frames[i].data(), frames[i].size(), now);
            if (!replies[i].empty())  // a lone acknowledge has no reply record
                w.write(kvcapture::TO_HOST, replies[i].data(), silent ? 0 : replies[i].size(), now);
        }
        w.close();
        QFile f(QString::fromStdString(path));
        f.open(QIODevice::ReadOnly);
        const QByteArray bytes = f.readAll();
        f.remove();
        return Bytes(bytes.begin(), bytes.end());
    };
    const Bytes all = capture(frames.size(), false);
    save("capture", "conversation", all);
    save("capture", "cut", Bytes(all.begin(), all.end() - 3));
    save("capture", "no_reply", capture(3, true));
}

// A transaction step that hands over the recorded reply as raw bytes.
void transactions(Session& s, Writer& w, int count) {
    const size_t first = s.replies.size();
    s.run(count);
    for (size_t i = first; i < s.replies.size(); ++i) w.u8(5).u8(5).blob16(s.replies[i]);
}

void receiveSeeds() {
    const std::vector<Key> everyKind = {{0, "DM", 100, 5, 0},       {0, "R", 80, 3, -1},  {0, "TC", 4, 2, 0},
                                        {0, "DM_bit", 1605, 3, -1}, {1, "B", 16, 20, -1}, {0, "T", 3, 2, -1},
                                        {0, "Z", 1, 4, 0},          {0, "MR", 10, 2, 0}};
    receiveSeed("cyclic_every_kind", everyKind, {}, [](Session& s, Writer& w) { transactions(s, w, 20); });

    receiveSeed("write_then_read", {{0, "DM", 100, 2, 0}}, {}, [](Session& s, Writer& w) {
        transactions(s, w, 6);
        QString reg = QStringLiteral("DM");
        unsigned char data[4] = {0x34, 0x12, 0x78, 0x56};
        intf_setData(0, &reg, 100, 2, data, 9);
        w.u8(0).u8(0).regName(row("DM")).number(100).number(2).blob16(Bytes(data, data + 4)).u8(9);
        transactions(s, w, 4);
    });

    receiveSeed(
        "bit_writes", {{0, "DM_bit", 1600, 16, -1}, {0, "R", 0, 16, -1}}, {}, [](Session& s, Writer& w) {
            transactions(s, w, 6);
            QString bitReg = QStringLiteral("DM_bit");
            unsigned char bits[3] = {1, 0, 1};
            intf_setData(0, &bitReg, 1603, 3, bits, 3);
            w.u8(0).u8(0).regName(row("DM_bit")).number(1603).number(3).blob16(Bytes(bits, bits + 3)).u8(3);
            QString relay = QStringLiteral("R");
            intf_setData(0, &relay, 5, 2, bits, 4);
            w.u8(0).u8(0).regName(row("R")).number(5).number(2).blob16(Bytes(bits, bits + 2)).u8(4);
            transactions(s, w, 8);
        });

    receiveSeed("timer_values", {{0, "TS", 2, 4, 0}}, {}, [](Session& s, Writer& w) {
        transactions(s, w, 6);
        QString reg = QStringLiteral("TS");
        unsigned char data[8] = {0x10, 0x27, 0, 0, 0x20, 0x4E, 0, 0};
        intf_setData(0, &reg, 2, 4, data, 5);
        w.u8(0).u8(0).regName(row("TS")).number(2).number(4).blob16(Bytes(data, data + 8)).u8(5);
        transactions(s, w, 6);
    });

    receiveSeed("condition_read", {{0, "EM", 0, 3, 0}}, {}, [](Session& s, Writer& w) {
        transactions(s, w, 6);
        KEY_ADDRESS key;
        key.reg = QStringLiteral("DM");
        key.address = 100;
        key.length = 25;
        intf_addConditionRead(key, 6);
        w.u8(1).u8(0).regName(row("DM")).number(100).number(25).u8(0).u8(6);
        transactions(s, w, 6);
    });

    const std::vector<Key> recipe = {{0, "DM", 10, 4, 0}, {0, "R", 32, 4, -1}, {0, "TRM", 2, 2, 0}};
    receiveSeed("recipe_write_and_read", {}, recipe, [](Session& s, Writer& w) {
        transactions(s, w, 5);
        auto request = [&](int position) {
            setShareByte(position, 1);
            w.u8(2).u8(static_cast<uint8_t>((position == kvwire::SHM_RECIPE_READ ? 1 : 0) | 2));
        };
        request(kvwire::SHM_RECIPE_WRITE);
        transactions(s, w, 8);
        request(kvwire::SHM_RECIPE_READ);
        transactions(s, w, 8);
    });

    // Bad replies: the frame is sent again until the retries run out.
    receiveSeed("retries", {{0, "DM", 0, 2, 0}}, {}, [](Session& s, Writer& w) {
        transactions(s, w, 5);
        for (int i = 0; i < 4; ++i) w.u8(5).u8(4).u16(static_cast<uint16_t>(i + 2)).u8(0x5A);
        transactions(s, w, 2);
    });
}

void valuesSeeds() {
    struct Op {
        const char* reg;
        int address;
        int length;
        Bytes data;
    };
    const std::vector<Op> writes = {{"DM", 5, 1, {0x34, 0x12}},   {"DM_bit", 84, 3, {1, 0, 1}},
                                    {"R", 80, 3, {1, 1, 0}},      {"TC", 4, 4, {1, 2, 3, 4, 5, 6, 7, 8}},
                                    {"B", 0x3FF, 2, {0, 1}},      {"Z", 3, 2, {0xFF, 0xFF, 0xFF, 0x7F}},
                                    {"W", 0x10, 2, {9, 8, 7, 6}}, {"T", 1, 1, {1}}};
    int n = 0;
    for (const Op& op : writes) {
        Writer w;
        w.u8(10).u8(n % 2 ? 3 : 0);
        w.u8(1).u8(0).regName(row(op.reg)).number(op.address).number(op.length);
        w.u8(0).u8(0).regName(row(op.reg)).number(op.address).number(op.length).blob16(op.data).u8(1);
        w.u8(1).u8(0).regName(row(op.reg)).number(op.address).number(op.length);
        w.u8(2)
            .u8(0)
            .regName(row(op.reg))
            .number(op.address)
            .number(op.length)
            .u8(op.reg[1] == 'M' ? 0 : 1)
            .u8(2);
        w.u8(3).u8(0).regName(0).number(0).number(0).u8(15);
        save("values", std::string("write_") + op.reg, w.out);
        ++n;
    }
}

void addressSeeds() {
    struct Case {
        const char* reg;
        const char* text;
        int length;
        int dataType;
    };
    const std::vector<Case> cases = {{"DM", "65535", 1, 0},
                                     {"DM", "65535", 2, 0},
                                     {"TC", "9999", 2, 1},
                                     {"TC", "9999", 3, 3},
                                     {"DM_bit", "65535.15", 1, -1},
                                     {"B", "3FFF", 1, -1},
                                     {"B", "4000", 1, -1},
                                     {"B", "3FFG", 1, -1},
                                     {"MR_bit", "12", 1, -1},
                                     {"MR_bit", "12.3.4", 1, -1},
                                     {"MR_bit", "1.20", 1, -1},
                                     {"R", "999.15", 16, -1},
                                     {"T", "9999", 1, -1},
                                     {"ZF", "131071", 1, 0},
                                     {"W", "3FF", 1, 0},
                                     {"TRM", "7", 2, 5},
                                     {"LR_bit", "-1.0", 1, -1},
                                     {"R", "+12.1", 1, -1},
                                     {"EM", "99999999999", 1, 0},
                                     {"CS", "0", 2, 9}};
    int n = 0;
    for (const Case& c : cases) {
        const std::string text = c.text;
        Writer w;
        w.regName(row(c.reg)).u8(0).blob(Bytes(text.begin(), text.end())).number(c.length);
        w.u8(static_cast<uint8_t>(static_cast<int8_t>(c.dataType))).u8(n % 3).u8(c.dataType == -1 ? 0 : 1);
        const std::string format = ADDRESS_RANGE_PRO[row(c.reg)][REG_COL_FORMAT];
        w.blob(Bytes(format.begin(), format.end()))
            .number(0)
            .u16(static_cast<uint16_t>(5 + n))
            .u8(n % 4 == 0 ? 0xFF : 3);
        save("address", "case_" + std::to_string(n) + "_" + c.reg, w.out);
        ++n;
    }
    // A name outside the catalogue.
    Writer w;
    w.u8(255).blob(Bytes{'d', 'm'}).u8(0).blob(Bytes{'1', '0'}).number(1).u8(0).u8(0).u8(1);
    save("address", "unknown_register", w.out);
}

// Every frame the driver sent in the receive scenarios, alone, as a stream,
// and cut into pieces.
void simSeeds() {
    resetDriver("1#0#0#3#10", 0);
    Session s;
    QList<KEY_ADDRESS> keys;
    for (const Key& k : std::vector<Key>{{0, "DM", 100, 5, 0},
                                         {0, "R", 80, 3, -1},
                                         {0, "TC", 4, 2, 0},
                                         {0, "T", 0, 3, -1},
                                         {0, "Z", 1, 2, 0},
                                         {0, "B", 0x20, 4, -1}}) {
        KEY_ADDRESS key;
        key.reg = QString::fromLatin1(k.reg);
        key.address = k.address;
        key.length = k.length;
        key.dataType = k.dataType;
        keys.append(key);
    }
    intf_addrMerge(keys);
    s.run(12);
    unsigned char data[8] = {1, 0, 2, 0, 3, 0, 4, 0};
    for (const char* name : {"DM", "DM_bit", "R", "TS", "Z"}) {
        QString reg = QString::fromLatin1(name);
        intf_setData(0, &reg, 8, 2, data, 1);
    }
    s.run(16);
    Bytes stream;
    for (size_t i = 0; i < s.frames.size(); ++i) {
        Writer w;
        w.u8(0).bytes(s.frames[i].data(), s.frames[i].size());
        save("sim_request", "frame_" + std::to_string(i), w.out);
        stream.insert(stream.end(), s.frames[i].begin(), s.frames[i].end());
    }
    Writer all;
    all.u8(1).bytes(stream.data(), stream.size());
    save("sim_request", "stream", all.out);
    Writer pieces;
    pieces.u8(2);
    for (size_t at = 0, k = 0; at < stream.size(); ++k) {
        const size_t n = std::min<size_t>(stream.size() - at, 1 + (k * 7) % 40);
        pieces.u8(static_cast<uint8_t>(n)).bytes(stream.data() + at, n);
        at += n;
    }
    save("sim_request", "pieces", pieces.out);
    captureSeeds(s.frames, s.replies);
}

// Modbus TCP requests for the gateway harness: a flags byte (bit 0 writes
// allowed, bit 1 only unit 1 answered, bit 2 writes succeed), then the bytes
// a client sends.
void gatewaySeeds() {
    auto adu = [](Bytes& out, uint8_t unit, const Bytes& pdu) {
        const uint16_t tid = static_cast<uint16_t>(out.size());
        const size_t n = pdu.size() + 1;
        Bytes head = {uint8_t(tid >> 8), uint8_t(tid), 0, 0, uint8_t(n >> 8), uint8_t(n), unit};
        out.insert(out.end(), head.begin(), head.end());
        out.insert(out.end(), pdu.begin(), pdu.end());
    };
    const std::vector<std::pair<const char*, std::vector<Bytes>>> seeds = {
        {"reads",
         {{1, 0, 0, 0, 16}, {2, 0, 100, 0, 16}, {3, 0, 0, 0, 10}, {4, 0, 0, 0, 6}, {4, 0, 10, 0, 2}}},
        {"writes",
         {{5, 0, 3, 0xFF, 0},
          {6, 0, 5, 0x04, 0xD2},
          {15, 0, 0, 0, 10, 2, 0xA5, 0x01},
          {16, 0, 100, 0, 4, 8, 0x86, 0xA0, 0, 1, 0, 2, 0, 3}}},
        {"refusals",
         {{7},
          {16, 0, 101, 0, 2, 4, 0, 1, 0, 2},
          {5, 0, 100, 0xFF, 0},
          {3, 0, 0, 0, 126},
          {5, 0, 3, 0x12, 0x34},
          {0x2B, 0x0E, 1, 0},
          {3, 0xFF, 0xFE, 0, 2}}},
    };
    for (const auto& seed : seeds) {
        Bytes out = {0x05};
        for (const Bytes& pdu : seed.second) adu(out, 1, pdu);
        save("gateway", seed.first, out);
    }
    Bytes units = {0x07};
    adu(units, 2, {3, 0, 0, 0, 1});
    adu(units, 1, {3, 0, 0, 0, 1});
    save("gateway", "units", units);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    qInstallMessageHandler(quietMessages);
    outDir = QString::fromLocal8Bit(argv[1]);
    receiveSeeds();
    valuesSeeds();
    addressSeeds();
    simSeeds();
    gatewaySeeds();
    std::printf("%d seeds written under %s\n", written, argv[1]);
    return 0;
}
