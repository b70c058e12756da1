// The scenario runner and the driver's verbs. Notation of steps and outputs:
//   unit, block  [station:]REG address [xLENGTH] [+recipeOffset] [#id], e.g. DM100x3, 2:R37, TC5x2#7
//                (station 1, length 1 by default; station and id printed when not 1 and 0)
//   bytes        hex, NN*K is K bytes NN (so printed from 8 on), "ramp" 00 01 02 ..; words hex
//   frame        its bytes (a long one: 17 first, ..count.., 2 last) | reply length, data offset,
//                elements, block
//   "" is an empty text; "verb A ; B" runs verb A and verb B; "repeat N FROM STEP" runs STEP with
//   {i} = FROM .. FROM+N-1. An export's result that is not its documented 1 is printed first.
// Runtime: init PARAMS|- · info · callback record|none|reinit|readback|grow|cread KEY|remonitor KEY|norecipe
// ·
//   monitor KEYS · write KEY [BYTES|null] · cread KEY [t=TYPE] · recipe ENTRIES [p=ID] (= count:
//   blocks | first entries) · get KEY [size=N] (+ bytes written past N) · request [W R] · rset OFF
//   WORDS · rget OFF N · calls · log · driver (= state retries commError sendCount handshake
//   recipeBlock) · writes · conds · reads · queue KEY [BYTES] · readlist KEYS (both appended as is)
// Loop: send · held (= book) · reply sim[:N]|BYTES|-|null (= result message) · run N [bad|msg] (per
//   transaction its first frame's REGaddr or its message; hs, idle, !2 abandoned)
// Controller: plc KEY (= values) · plc UNIT WORDS (set from UNIT on)
// Internals (arguments as call() passes them): readframe · writeframe · checksum · check (= result
//   handshake) · str2int · a2i · regindex · validity · checkaddr · multicopy · merge · rmerge · judge ·
//   weight · reglist · describe · parse · save · settle · mflag · unit (= writeValid bitWriteFlags
//   monitorFlags/Bits read write) · entries
#include "scenario.h"

#include "kv3000_intf.h"
#include "kv3000_traits.h"
#include "kv3000_wire.h"
#include "kv_3000/address_codec.h"
#include "kv_3000/frame_builder.h"
#include "kv_3000/merge_rule.h"
#include "kv_3000/response_check.h"
#include "protocol.h"
#include "serviceForProtocol/address_merge.h"
#include "serviceForProtocol/data_area.h"
#include "serviceForProtocol/value_parser.h"
#include "serviceForProtocol/write_result.h"
#include "sim_protocol.h"

#include <QMutex>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

std::vector<unsigned char> bytesOf(const Words& w, size_t from) {
    std::vector<unsigned char> out;
    for (size_t k = from; k < w.size(); ++k) {
        const size_t star = w[k].find('*');
        for (int b = 0; w[k] == "ramp" && b < 2048; ++b) out.push_back(static_cast<unsigned char>(b));
        if (w[k] != "ramp" && w[k] != "null")
            out.insert(out.end(), star == std::string::npos ? 1 : std::stoul(w[k].substr(star + 1)),
                       static_cast<unsigned char>(std::stoul(w[k].substr(0, star), nullptr, 16)));
    }
    return out;
}
std::string hexOf(const unsigned char* p, long long count) {
    std::string out;
    char b[24];
    for (long long i = 0, run; i < count; i += run) {
        for (run = 1; i + run < count && p[i + run] == p[i];) ++run;
        if (run < 8) run = 1;
        std::snprintf(b, sizeof b, run > 1 ? " %02X*%lld" : " %02X", p[i], run);
        out += b;
    }
    return out.empty() ? out : out.substr(1);
}
Words split(const std::string& text) {
    std::istringstream in(text);
    Words out;
    for (std::string p; in >> p;) out.push_back(p);
    return out;
}

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;
std::string n(long long v) {
    return std::to_string(v);
}
std::string join(const Texts& parts, const char* sep = " ") {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) out += (i ? sep : "") + parts[i];
    return out;
}
// What an export returned, when it was not the 1 it documents.
std::string unlessOne(int result) {
    return result == 1 ? "" : "returned " + n(result) + ": ";
}

struct Key {
    int station = 1, address = 0, length = 1, offset = 0, id = 0;
    QString reg;
};
Key parseKey(const std::string& t) {
    static const std::regex form(R"((?:(-?\d+):)?(\D*?)(-?\d+)?(?:x(-?\d+))?(?:\+(-?\d+))?(?:#(-?\d+))?)");
    std::smatch m;
    std::regex_match(t, m, form);
    const auto part = [&](int i, int otherwise) { return m[i].length() ? std::stoi(m[i]) : otherwise; };
    return {part(1, 1), part(3, 0), part(4, 1), part(5, 0), part(6, 0), QString::fromStdString(m[2])};
}
std::string unitText(int station, const QString& reg, long long address) {
    return (station == 1 ? "" : n(station) + ":") + reg.toStdString() + n(address);
}
std::string keyText(int station, const QString& reg, long long address, long long length, int id = 0) {
    return unitText(station, reg, address) + "x" + n(length) + (id ? "#" + n(id) : "");
}

KEY_ADDRESS keyAddress(const Key& k) {
    KEY_ADDRESS a;
    a.station = k.station, a.reg = k.reg, a.address = k.address, a.length = k.length;
    a.recipeOffset = k.offset;
    a.dataType = kvreg::traits(getIndexFromRegName(k.reg)).countsBits() ? -1 : 0;
    return a;
}

// The words of one step, its verb first.
struct Args {
    Words w;
    QString s(size_t k) const {
        return QString::fromUtf8(k < w.size() && w[k] != "\"\"" ? w[k].c_str() : "");
    }
    int i(size_t k) const { return int(std::stoll(w.at(k), nullptr, 0)); }
    Key key(size_t k) const { return parseKey(w.at(k)); }
    bool is(size_t k, const char* word) const { return k < w.size() && w[k] == word; }
    Bytes bytes(size_t from, size_t size = 0) const {
        Bytes out = bytesOf(w, from);
        return out.resize(std::max(out.size(), size)), out;
    }
    QList<KEY_ADDRESS> keys(size_t from) const {
        QList<KEY_ADDRESS> out;
        for (size_t k = from; k < w.size(); ++k) out << keyAddress(key(k));
        return out;
    }
};

VARIABLE variable(const Key& k, const Bytes& data = {}) {
    VARIABLE v;
    v.id = k.id, v.station = k.station, v.reg = k.reg, v.address = k.address, v.length = k.length;
    std::copy_n(data.begin(), std::min<size_t>(data.size(), KV_BUFFER_SIZE), v.data);
    return v;
}
// A long list as its first three and last two items.
std::string listText(const QList<VARIABLE>& list, bool ids = true) {
    Texts out;
    for (int i = 0; i < list.size(); ++i) {
        const VARIABLE& v = list[i];
        if (list.size() <= 10 || i < 3 || i >= list.size() - 2)
            out.push_back(keyText(v.station, v.reg, v.address, v.length, ids ? v.id : 0));
        else if (i == 3)
            out.push_back(".." + n(list.size() - 5) + "..");
    }
    return join(out);
}
std::string words(const unsigned short* p, int count) {
    Texts out;
    char b[8];
    for (int i = 0; i < count; ++i) std::snprintf(b, sizeof b, "%x", p[i]), out.emplace_back(b);
    return join(out);
}
std::string bookText(const FRAME_PRO& f) {
    return n(f.replyLength) + " " + n(f.dataOffset) + " " + n(f.elementCount) + " " +
           keyText(f.station, f.reg, f.address, f.length, f.id);
}
std::string frameText(const FRAME_PRO& f) {
    const int size = std::clamp(f.sendLength, 0, int(KV_BUFFER_SIZE));
    if (size <= 40) return hexOf(f.frame, size);
    return hexOf(f.frame, 17) + " .." + n(size - 19) + ".. " + hexOf(f.frame + size - 2, 2);
}
// What the frame builders appended, which is then dropped.
std::string frames() {
    Texts out;
    for (const FRAME_PRO& f : std::exchange(driver.frameList, {}))
        out.push_back(frameText(f) + " | " + bookText(f));
    return out.empty() ? "none" : join(out, " , ");
}

struct Call {
    int context, station, address;
    QString name;
    std::string extra;
};
// The runtime's side: shared memory, recipe buffer, the controller, and what the driver said.
struct Runtime {
    unsigned char shm[kvwire::SHM_MIN_SIZE] = {};
    unsigned short recipe[1 << 16] = {};
    QMutex shareMutex;
    kvsim::Memory plc;
    std::vector<Call> calls;
    QStringList log;
    FRAME_PRO frame;
    KEY_ADDRESS callbackKey;
    int grown = 0;
} rt;
void record(int context, int station, const QString& name, int address) {
    rt.calls.push_back({context, station, address, name, {}});
}
std::string callsText() {
    Texts out;
    const std::vector<Call> c = std::exchange(rt.calls, {});
    for (size_t i = 0, run; i < c.size(); i += run) {
        for (run = 1; c[i].name == "RWI" && i + run < c.size() && c[i + run].name == "RWI" &&
                      c[i + run].address == c[i].address + int(run);)
            ++run;  // a run of recipe words as a range
        out.push_back(c[i].context == -1   ? "end" + n(c[i].address)
                      : c[i].name == "RWI" ? "RWI" + n(c[i].address)
                                           : unitText(c[i].station, c[i].name, c[i].address) + c[i].extra);
        if (run > 1) out.back() += "-" + n(c[i].address + int(run) - 1);
    }
    return join(out);
}
void initDriver(const char* parameters) {
    int status = -1;
    intf_initProperty(rt.shm, nullptr, rt.recipe, &status, parameters, &rt.shareMutex);
    EXPECT_EQ(status, 0);
}
// Change callbacks doing what a runtime may do from one.
const std::map<std::string, ValueChangeCallBack> kCallbacks = {
    {"record", &record},
    {"none", nullptr},
    {"reinit", [](int, int, const QString&, int) { initDriver("1#0#0#3#10"); }},
    {"readback",
     [](int context, int station, const QString& name, int address) {
         unsigned char b[2] = {0xEE, 0xEE};
         intf_getData(station, name, address, 1, b);
         rt.calls.push_back({context, station, address, name, "=" + hexOf(b, 1) + hexOf(b + 1, 1)});
     }},
    {"grow",  // reads 64 units never read before
     [](int, int station, const QString&, int) {
         unsigned char b[128];
         intf_getData(station, "DM", 30000 + 64 * rt.grown++, 64, b);
     }},
    {"remonitor",  // records, and at its first report registers KEY anew
     [](int context, int station, const QString& name, int address) {
         record(context, station, name, address);
         QList<KEY_ADDRESS> keys{std::exchange(rt.callbackKey, KEY_ADDRESS())};
         if (keys[0].length) intf_addrMerge(keys);
     }},
    {"cread",
     [](int context, int, const QString&, int) {
         if (context == -1 && rt.callbackKey.length) intf_addConditionRead(rt.callbackKey, 8);
         rt.callbackKey.length = 0;
     }},
    {"norecipe", [](int, int, const QString& name, int) {
         QVector<_RCP_VAR_PRO> none;
         if (name == "RWI") intf_setRcpAddress(none);
     }}};

QByteArray qbytes(const Bytes& b) {
    return QByteArray(reinterpret_cast<const char*>(b.data()), int(b.size()));
}
QByteArray simAnswer(const FRAME_PRO& f) {
    return qbytes(kvsim::answer(rt.plc, f.frame, size_t(f.sendLength)));
}
// Whole transactions, the controller answering (or "?" for every reply with bad).
std::string run(int transactions, bool bad, bool messages) {
    Texts out;
    for (int t = 0; t < transactions; ++t) {
        FRAME_PRO f;
        const bool idle = !intf_getSendFrame(&f);
        std::string label = idle                              ? "idle"
                            : driver.state == STATE_HANDSHAKE ? "hs"
                                                              : unitText(f.station, f.reg, f.address);
        QString message;
        for (int guard = 0; !idle && guard < 100000; ++guard) {
            QByteArray reply = bad ? QByteArray("?") : simAnswer(f);
            const int r = intf_dealRcvFrame(&reply, &message);
            if (r == KV_DEAL_ABANDONED) label += "!2";
            if (r == KV_DEAL_ABANDONED || driver.frameList.isEmpty() || !intf_getSendFrame(&f)) break;
        }
        out.push_back(messages && !idle ? message.toStdString() : label);
    }
    return join(out);
}

std::string call(const Args& a) {
    const std::string& v = a.w[0];
    const Key k = a.w.size() > 1 ? a.key(1) : Key();
    int address = 777, result = 0;  // the caller's integer before a call that sets it
    QString parameter, page;
    if (v == "init" && a.is(1, "-"))
        return n(intf_initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, &rt.shareMutex));
    if (v == "init") {
        initDriver(a.w[1].c_str());
        return n(driver.protocolId) + " " + n(driver.localWriteOnly) + " " + n(driver.param3) + " " +
               n(driver.retryTimes) + " " + n(driver.maxGap) + " / " + n(driver.maxBlockLength) + " " +
               n(driver.maxBitBlockLength);
    }
    if (v == "info") {
        intf_getProtocolType(&result);
        intf_getDriverParameter(parameter), intf_getDriverPropertyPage(page);
        const QStringList parts{parameter, intf_getVersion(), page, QString::number(result)};
        return parts.join(' ').toStdString();
    }
    if (v == "callback") {
        if (a.w.size() > 2) rt.callbackKey = keyAddress(a.key(2));
        return intf_setAddrValueChangeCallBack(kCallbacks.at(a.w[1])), "";
    }
    if (v == "monitor") {
        QList<KEY_ADDRESS> keys = a.keys(1);
        intf_addrMerge(keys);
    }
    if (v == "monitor" || v == "readlist" || v == "reads") {
        for (size_t i = 1; v == "readlist" && i < a.w.size(); ++i) driver.readList.append(variable(a.key(i)));
        return listText(driver.readList, false);
    }
    if (v == "write") {
        QString reg = k.reg;
        result = intf_setData(k.station, reg == "null" ? nullptr : &reg, k.address, k.length,
                              a.is(2, "null") ? nullptr : a.bytes(2, 4096).data(), k.id);
    }
    if (v == "write" || v == "queue" || v == "writes") {
        std::lock_guard<std::mutex> lock(driver.mutex);
        if (v == "queue") driver.writeList.append(variable(k, a.bytes(2)));
        return (v == "write" ? unlessOne(result) : "") + listText(driver.writeList);
    }
    if (v == "cread") {
        KEY_ADDRESS key = keyAddress(k);
        if (a.w.size() > 2) key.dataType = std::stoi(a.w[2].substr(2));
        result = intf_addConditionRead(key, k.id);
    }
    if (v == "cread" || v == "conds")
        return (v == "cread" ? unlessOne(result) : "") + listText(driver.conditionReadList);
    if (v == "recipe") {
        QVector<_RCP_VAR_PRO> entries;
        const bool other = a.w.back().rfind("p=", 0) == 0;
        const int id = other ? std::stoi(a.w.back().substr(2)) : 1;
        for (size_t i = 1; i < a.w.size() - other; ++i) {
            const Key e = a.key(i);
            entries << _RCP_VAR_PRO{id, e.station, e.reg, e.address, e.length, e.offset, {}};
        }
        std::string out = n(intf_setRcpAddress(entries)) + ":";
        for (const _RCP_VAR_PRO& b : driver.rcpBlockList)
            out += " " + keyText(b.station, b.reg, b.address, b.length) + "+" + n(b.bufferOffset);
        for (int i = 0; i < driver.rcpFirstIndex.size(); ++i)
            out += (i ? " " : " | ") + n(driver.rcpFirstIndex[i]);
        return out;
    }
    if (v == "get") {
        const int natural = kvreg::traits(getIndexFromRegName(k.reg)).countsBits() ? k.length : 2 * k.length;
        const int size = std::clamp(a.w.size() > 2 ? std::stoi(a.w[2].substr(5)) : natural, 0, 4096);
        Bytes b(4096, 0xEE);
        result = intf_getData(k.station, k.reg, k.address, k.length, a.is(2, "size=0") ? nullptr : b.data());
        const bool past = Bytes(b.begin() + size, b.end()) != Bytes(size_t(4096 - size), 0xEE);
        return unlessOne(result) + hexOf(b.data(), size) +
               (past ? " + " + hexOf(b.data() + size, 4096 - size) : "");
    }
    if (v == "request") {
        std::lock_guard<QMutex> lock(rt.shareMutex);
        unsigned char* request = rt.shm + kvwire::SHM_RECIPE_WRITE;
        if (a.w.size() > 2) request[0] = uint8_t(a.i(1)), request[1] = uint8_t(a.i(2));
        return n(request[0]) + " " + n(request[1]);
    }
    for (size_t i = 2; v == "rset" && i < a.w.size(); ++i)
        rt.recipe[a.i(1) + int(i) - 2] = uint16_t(std::stoul(a.w[i], 0, 16));
    if (v == "rset") return "";
    if (v == "rget") return words(rt.recipe + a.i(1), a.i(2));
    if (v == "calls") return callsText();
    if (v == "log") return std::exchange(rt.log, {}).join(" | ").toStdString();
    if (v == "driver")
        return n(driver.state) + " " + n(driver.retryCount) + " " + n(driver.commError) + " " +
               n(driver.sendCount) + " " + n(driver.handShakeFlag) + " " + n(driver.rcpFrameIndex);
    if (v == "send") return intf_getSendFrame(&rt.frame) ? frameText(rt.frame) : "-";
    if (v == "held") return bookText(rt.frame);
    if (v == "reply") {
        const bool sim = a.w[1].rfind("sim", 0) == 0;
        QByteArray reply = sim ? simAnswer(rt.frame) : qbytes(a.is(1, "-") ? Bytes() : a.bytes(1));
        if (a.w[1].rfind("sim:", 0) == 0) reply = reply.left(std::stoi(a.w[1].substr(4)));
        QString message;
        result = a.is(1, "null") ? intf_dealRcvFrame(nullptr, nullptr) : intf_dealRcvFrame(&reply, &message);
        return n(result) + " " + message.toStdString();
    }
    if (v == "run") return run(a.i(1), a.is(2, "bad"), a.is(2, "msg"));
    if (v == "plc") {
        Texts out;
        for (int u = 0; u < (a.w.size() > 2 ? int(a.w.size()) - 2 : k.length); ++u) {
            const std::string reg = k.reg.toStdString();
            if (a.w.size() > 2)
                rt.plc.set(reg, uint32_t(k.address + u), uint32_t(std::stoul(a.w[2 + u], 0, 16)));
            char b[16];
            std::snprintf(b, sizeof b, "%x", rt.plc.get(reg, uint32_t(k.address + u)).value_or(0xDEAD));
            out.emplace_back(b);
        }
        return join(out);
    }
    if (v == "readframe") result = a.w.size() == 1 ? getReadFrame({}) : getReadFrame({variable(k)});
    if (v == "readframe") return n(result) + " " + frames();
    if (v == "writeframe") {
        VARIABLE var = variable(k, a.bytes(2));
        return getWriteFrame(var), frames();
    }
    if (v == "checksum") {
        Bytes b = a.bytes(1);
        const unsigned short sum = computate_check(b.empty() ? nullptr : b.data(), uint16_t(b.size()));
        return words(&sum, 1);
    }
    if (v == "parse") return analyzeFrameOfVal(qbytes(a.bytes(4)), a.i(2), a.i(3), variable(k)), "";
    if (v == "check") {
        FRAME_PRO f;
        f.replyLength = a.i(2), f.elementCount = a.i(3);
        driver.frameList = {f};
        driver.handShakeFlag = a.i(1);
        Bytes b = a.is(4, "null") ? Bytes() : a.bytes(4);
        result = check_rcv_data(b.empty() ? nullptr : b.data(), {}, a.is(4, "null") ? a.i(5) : int(b.size()));
        driver.frameList.clear();
        return n(result) + " " + n(std::exchange(driver.handShakeFlag, 0));
    }
    if (v == "str2int" || v == "regindex") {
        Texts out;
        for (size_t i = v == "str2int" ? 2 : 1; i < a.w.size(); ++i)
            out.push_back(n(v == "str2int" ? addr_str2int(a.s(i), a.s(1)) : getIndexFromRegName(a.s(i))));
        return join(out);
    }
    if (v == "a2i") result = a2i(a.s(1), address, a.s(2), a.s(3));
    if (v == "validity") result = intf_checkAddrValidity(a.s(1), a.s(2), address, a.i(3), a.i(4));
    if (v == "checkaddr") result = intf_checkAddr(a.s(1), a.s(2), address, a.i(3), a.i(4), a.i(5));
    if (v == "a2i" || v == "validity" || v == "checkaddr") return n(result) + " " + n(address);
    if (v == "multicopy") {
        QVector<QString> texts = a.is(5, "keep") ? QVector<QString>{"x"} : QVector<QString>();
        QVector<int> addresses = a.is(5, "keep") ? QVector<int>{-7} : QVector<int>();
        std::string out = n(intf_multiCopy(a.s(1), a.i(2), a.i(3), a.i(4), texts, addresses)) + ":";
        for (int i = 0; i < texts.size(); ++i) out += " " + texts[i].toStdString() + "=" + n(addresses[i]);
        return out;
    }
    if (v == "merge" || v == "rmerge") {
        QList<KEY_ADDRESS> keys = a.keys(v == "merge" ? 2 : 1);
        driver.maxGap = v == "merge" ? a.i(1) : driver.maxGap;
        driver.rcpFirstIndex.clear();
        addrMerge(keys, v == "merge" ? 1 : 2);
        Texts out;
        for (const KEY_ADDRESS& b : keys)
            out.push_back(keyText(b.station, b.reg, b.address, b.length) +
                          (v == "rmerge" ? "+" + n(b.recipeOffset) : ""));
        for (int i = 0; i < driver.rcpFirstIndex.size(); ++i)
            out.push_back((i ? "" : "| ") + n(driver.rcpFirstIndex[i]));
        return join(out);
    }
    if (v == "judge") {
        driver.maxGap = a.i(1);
        return n(judgeAddrMerge(keyAddress(a.key(2)), keyAddress(a.key(3)), a.i(4)));
    }
    if (v == "weight") return n(getRegAddressWeight(a.i(1), a.s(2), a.i(3), 1));
    if (v == "reglist" || v == "describe") {
        QList<QString> names = a.is(2, "keep") ? QList<QString>{"keep"} : QList<QString>();
        const std::string out = v == "reglist" ? n(intf_getRegListByType(a.i(1), names)) + ": " : "";
        for (size_t i = 1; v == "describe" && i < a.w.size(); ++i) intf_getRegDiscription(a.s(i), names);
        return out + QStringList(names).join(' ').toStdString();
    }
    if (v == "save")
        return write_saveDataToArea(k.station, k.reg, k.address, k.length,
                                    a.is(2, "null") ? nullptr : a.bytes(2, 4096).data()),
               "";
    if (v == "settle") return _write_FailOrSuc(k.station, k.reg, k.address, k.length, a.i(2)), "";
    if (v == "mflag") return n(_setDataAreaMonitorFlag(k.station, k.reg, k.address, k.length));
    if (v == "unit") {
        const _DATA_& e = driver.dataArea[getIndexOfDataArea(k.station, k.reg, k.address, driver.dataArea)];
        char b[96];
        std::snprintf(b, sizeof b, "%d %x %x/%x %02x%02x%02x%02x %02x%02x%02x%02x", e.writeValid,
                      e.bitWriteFlags, e.monitorFlags, e.monitorBits, e.readValue[0], e.readValue[1],
                      e.readValue[2], e.readValue[3], e.writeValue[0], e.writeValue[1], e.writeValue[2],
                      e.writeValue[3]);
        return b;
    }
    if (v == "entries") return n(driver.dataArea.size());
    ADD_FAILURE() << "no verb " << v;
    return "";
}

std::map<std::string, Verb>& extraVerbs() {
    static std::map<std::string, Verb> verbs;
    return verbs;
}
// One step: the verb on each ";" group of its words, the outputs joined by " ; ".
std::string perform(const Words& w) {
    Texts out;
    if (w[0] == "repeat") {
        for (int i = std::stoi(w[2]); i < std::stoi(w[2]) + std::stoi(w[1]); ++i) {
            Words s(w.begin() + 3, w.end());
            for (std::string& word : s)
                for (size_t p; (p = word.find("{i}")) != std::string::npos;) word.replace(p, 3, n(i));
            out.push_back(perform(s));
        }
        return join(out, " ; ");
    }
    const auto extra = extraVerbs().find(w[0]);
    for (auto from = w.begin() + 1;;) {
        const auto to = std::find(from, w.end(), ";");
        Args a{{w[0]}};
        a.w.insert(a.w.end(), from, to);
        out.push_back(extra == extraVerbs().end() ? call(a) : extra->second(a.w));
        if (to == w.end()) return join(out, " ; ");
        from = to + 1;
    }
}

void step(const std::string& where, const std::string& line) {
    SCOPED_TRACE(where + ": " + line);
    static const std::regex form("(.*?)(?: ([=~])(?:$| (.*)))?");  // step, then = or ~ and the output
    std::smatch m;
    std::regex_match(line, m, form);
    const std::string got = ::perform(m[1]), expected = join(split(m[3]));
    EXPECT_EQ(m[2] == "=" ? join(split(got)) : expected, expected);
    EXPECT_TRUE(m[2] != "~" || got.find(expected) != std::string::npos) << got;
}

}  // namespace

void addVerb(const std::string& name, Verb verb) {
    extraVerbs()[name] = std::move(verb);
}
kvsim::Memory& controller() {
    return rt.plc;
}
unsigned short* recipeBuffer() {
    return rt.recipe;
}
std::string perform(const std::string& line) {
    return perform(split(line));
}
void resetRuntime() {
    [[maybe_unused]] static const auto previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& m) { rt.log << m; });
    driver.rcpVarList.clear(), driver.rcpBlockList.clear(), driver.rcpFirstIndex.clear();
    driver.rcpFrameIndex = 0;
    std::memset(rt.shm, 0, sizeof rt.shm);
    std::memset(rt.recipe, 0, sizeof rt.recipe);
    rt.plc.clear();
    initDriver("1#0#0#3#10");
    intf_setAddrValueChangeCallBack(&record);
    EXPECT_EQ(run(1, false, false), "hs");
    rt.calls.clear();
    rt.log.clear();
}

namespace {

struct Scenario {
    std::string where, name;  // file:line of the title; file stem and title as one identifier
    std::vector<std::pair<int, std::string>> steps;
};
void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.where;
}
// Every scenario of the *.txt files in dir, files in name order.
std::vector<Scenario> loadScenarios(const std::string& dir) {
    std::set<std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (e.path().extension() == ".txt") files.insert(e.path().filename().string());
    std::vector<Scenario> out;
    for (const std::string& file : files) {
        std::ifstream in(dir + "/" + file);
        std::string line;
        for (int number = 1; std::getline(in, line); ++number) {
            if (line.rfind("== ", 0) == 0)
                out.push_back({file + ":" + n(number),
                               std::regex_replace(file.substr(0, file.size() - 4) + "_" + line.substr(3),
                                                  std::regex("[^A-Za-z0-9]"), "_"),
                               {}});
            else if (!out.empty() && line.find_first_not_of(' ') != std::string::npos && line[0] != '#')
                out.back().steps.emplace_back(number, line);
        }
    }
    return out;
}

// One test per scenario of the files in the program's KV_SCENARIOS directory.
class ScenarioTest : public ::testing::TestWithParam<Scenario> {};
TEST_P(ScenarioTest, Runs) {
    resetRuntime();
    for (const auto& [number, line] : GetParam().steps) {
        step(GetParam().where.substr(0, GetParam().where.find(':')) + ":" + n(number), line);
        if (HasFailure()) return;
    }
}
INSTANTIATE_TEST_SUITE_P(Files, ScenarioTest, ::testing::ValuesIn(loadScenarios(KV_SCENARIOS)),
                         [](const auto& info) { return info.param.name; });

}  // namespace
