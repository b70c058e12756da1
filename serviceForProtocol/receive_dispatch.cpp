// The receive half of the communication loop: checks each reply against the
// frame on the wire, parses values, settles writes, retries or abandons, and
// books the end of each transaction.
#include "serviceForProtocol/receive_dispatch.h"
#include "serviceForProtocol/record_copy.h"

#include "kv_3000/response_check.h"
#include "protocol.h"
#include "serviceForProtocol/scheduler.h"
#include "serviceForProtocol/value_parser.h"
#include "serviceForProtocol/write_result.h"

#include <cstring>

namespace {

bool sameItem(const VARIABLE& a, const VARIABLE& b) {
    return a.station == b.station && a.reg == b.reg && a.address == b.address && a.length == b.length;
}

// The write request a frame belongs to, copied out before anything calls back.
struct Settlement {
    int station;
    QString reg;
    int address;
    int length;
};

Settlement settlementOf(const FRAME_PRO& f) {
    return {f.station, f.reg, f.address, f.length};
}

void settle(const Settlement& s, int result) {
    _write_FailOrSuc(s.station, s.reg, s.address, s.length, result);
}

}  // namespace

namespace {

// The text of the last frame described: a cyclic read block is described
// again every time it comes round.
struct DescribedFrame {
    bool valid = false;
    int32_t station = 0;
    QString reg;
    int32_t address = 0;
    int32_t length = 0;
    QString text;
};
DescribedFrame lastDescribed;

void appendNumber(QString& text, long long v) {
    char digits[24];
    int n = 0;
    const bool negative = v < 0;
    unsigned long long u =
        negative ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (negative) text.append(QLatin1Char('-'));
    while (n > 0) text.append(QLatin1Char(digits[--n]));
}

}  // namespace

QString getErrorInfo(QByteArray) {
    const FRAME_PRO& head = driver.frameList.constFirst();
    if (driver.handShakeFlag && head.replyLength != 0) return QStringLiteral("connection failed");
    DescribedFrame& last = lastDescribed;
    if (last.valid && last.station == head.station && last.address == head.address &&
        last.length == head.length && last.reg == head.reg)
        return last.text;
    // "%1#%2(%3)" with the address as "%1%2.%3" (word.bit) or "%1%2".
    QString text;
    text.reserve(head.reg.size() + 32);
    appendNumber(text, head.station);
    text.append(QLatin1Char('#'));
    text.append(head.reg);
    if (head.reg.endsWith(QLatin1String("_bit")) || head.reg == QLatin1String("R")) {
        appendNumber(text, head.address / 16);
        text.append(QLatin1Char('.'));
        appendNumber(text, head.address % 16);
    } else {
        appendNumber(text, head.address);
    }
    text.append(QLatin1Char('('));
    appendNumber(text, head.length);
    text.append(QLatin1Char(')'));
    last.valid = true;
    last.station = head.station;
    last.reg = head.reg;
    last.address = head.address;
    last.length = head.length;
    last.text = text;
    return text;
}

int dealReadFrameReturnSaveData(QByteArray reply) {
    const FRAME_PRO& head = driver.frameList.constFirst();
    // The head's fields are copied, but not its 1024 data bytes: only the
    // bit-write patch reads them, before anything can change the list.
    const ParsedBlock var{head.station, head.reg, head.address, head.length, head.data};
    parseReadReply(reply, head.elementCount, head.dataOffset, var);
    return 0;
}

void dealListWhenFinish() {
    switch (driver.state) {
        case 2: {
            std::lock_guard<std::mutex> lock(driver.mutex);
            if (!driver.writeList.isEmpty()) driver.writeList.removeFirst();
            break;
        }
        case 3: {
            if (driver.conditionReadList.isEmpty()) break;
            const bool wasLast = sameItem(driver.conditionReadList.first(), driver.lastConditionVar);
            // The list is settled before the runtime hears of it, so that a
            // condition read queued from inside the callback is kept.
            if (driver.commError == 1)
                driver.conditionReadList.clear();
            else
                driver.conditionReadList.removeFirst();
            if (wasLast) reportConditionReadEnd(driver.commError == 1);
            break;
        }
        case 4:
            // A list rebuilt while this block was on the wire starts from its own head.
            if (driver.servedReadListEpoch == driver.readListEpoch && driver.readList.size() >= 2)
                driver.readList.move(0, driver.readList.size() - 1);
            break;
        case 5:
        case 6:
            if (driver.commError == 0) {
                ++driver.rcpFrameIndex;
                if (driver.rcpFrameIndex < driver.rcpBlockList.size()) break;
            }
            endRecipeRequest(driver.state);
            break;
        default:
            break;
    }
}

int intf_dealRcvFrame(QByteArray* reply, QString* message) {
    std::lock_guard<std::recursive_mutex> serial(driver.serial);
    if (driver.frameList.isEmpty()) {
        if (message) *message = QString();
        return 0;
    }

    const QByteArray bytes = reply ? *reply : QByteArray();
    if (message) assignName(*message, getErrorInfo(bytes));

    // Anything below may call the runtime back; a re-initialisation from
    // there empties the lists under us, and this transaction is then over.
    const uint32_t epoch = driver.initEpoch;
    auto interrupted = [epoch] { return driver.initEpoch != epoch || driver.frameList.isEmpty(); };

    const int check = check_rcv_data(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData())),
                                     driver.currentReadList, bytes.size());
    if (check == 1 || check == 2) {
        driver.commError = 0;
        if (check == 1) {
            dealReadFrameReturnSaveData(bytes);
            if (interrupted()) return 1;
        } else if (driver.state == 2 && driver.frameList.size() == 1) {
            // The last frame of a write answered: the whole request succeeded.
            settle(settlementOf(driver.frameList.constFirst()), 1);
            if (interrupted()) return 1;
        }
        driver.frameList.removeFirst();
        if (driver.frameList.isEmpty()) dealListWhenFinish();
        driver.retryCount = 0;
        return 1;
    }

    ++driver.retryCount;
    if (driver.retryCount < driver.retryTimes) return 8;

    driver.commError = 1;
    if (driver.state == 2) {
        settle(settlementOf(driver.frameList.constFirst()), 0);
        if (driver.initEpoch != epoch) return 2;
    }
    driver.frameList.clear();
    driver.retryCount = 0;
    dealListWhenFinish();
    return 2;
}
