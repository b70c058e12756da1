// The receive half of the communication loop: checks each reply against the
// frame on the wire, parses values, settles writes, retries or abandons, and
// books the end of each transaction.
#include "serviceForProtocol/receive_dispatch.h"
#include "serviceForProtocol/record_copy.h"

#include "kv_3000/response_check.h"
#include "protocol.h"
#include "serviceForProtocol/block_text.h"
#include "serviceForProtocol/scheduler.h"
#include "serviceForProtocol/value_parser.h"
#include "serviceForProtocol/write_result.h"

#include <cstring>

namespace {

bool sameItem(const VARIABLE& a, const VARIABLE& b) {
    return a.station == b.station && a.reg == b.reg && a.address == b.address && a.length == b.length;
}

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

}  // namespace

namespace {

// The message of the head frame; the text of a frame described before is
// handed out again.
const QString& describeHead() {
    static const QString connectionFailed = QStringLiteral("connection failed");
    const FRAME_PRO& head = driver.frameList.constFirst();
    if (driver.handShakeFlag && head.replyLength != 0) return connectionFailed;
    DescribedFrame& last = lastDescribed;
    if (last.valid && last.station == head.station && last.address == head.address &&
        last.length == head.length && (last.reg.constData() == head.reg.constData() || last.reg == head.reg))
        return last.text;
    const QString text = blockText(head.station, head.reg, head.address, head.length);
    last.valid = true;
    last.station = head.station;
    last.reg = head.reg;
    last.address = head.address;
    last.length = head.length;
    last.text = text;
    return last.text;
}

}  // namespace

QString getErrorInfo(QByteArray) {
    return describeHead();
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
        case STATE_WRITE: {
            std::lock_guard<std::mutex> lock(driver.mutex);
            if (!driver.writeList.isEmpty()) driver.writeList.removeFirst();
            break;
        }
        case STATE_CONDITION_READ: {
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
        case STATE_CYCLIC_READ:
            // A list rebuilt while this block was on the wire starts from its own head.
            if (driver.servedReadListEpoch == driver.readListEpoch && driver.readList.size() >= 2)
                driver.readList.move(0, driver.readList.size() - 1);
            break;
        case STATE_RECIPE_WRITE:
        case STATE_RECIPE_READ:
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
        return KV_DEAL_IDLE;
    }

    static const QByteArray none;
    const QByteArray& bytes = reply ? *reply : none;
    if (message) assignName(*message, describeHead());

    // Anything below may call the runtime back; a re-initialisation from
    // there empties the lists under us, and this transaction is then over.
    const uint32_t epoch = driver.initEpoch;
    auto interrupted = [epoch] { return driver.initEpoch != epoch || driver.frameList.isEmpty(); };

    const int check = checkReply(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
    if (check == 1 || check == 2) {
        driver.commError = 0;
        if (check == 1) {
            const FRAME_PRO& head = driver.frameList.constFirst();
            // The head's fields are handed on, not its 1024 data bytes: only
            // the bit-write patch reads them, before anything can change the list.
            parseReadReply(bytes, head.elementCount, head.dataOffset,
                           ParsedBlock{head.station, head.reg, head.address, head.length, head.data});
            if (interrupted()) return KV_DEAL_ACCEPTED;
        } else if (driver.state == STATE_WRITE && driver.frameList.size() == 1) {
            // The last frame of a write answered: the whole request succeeded.
            const FRAME_PRO& head = driver.frameList.constFirst();
            _write_FailOrSuc(head.station, QString(head.reg), head.address, head.length, 1);
            if (interrupted()) return KV_DEAL_ACCEPTED;
        }
        driver.frameList.removeFirst();
        if (driver.frameList.isEmpty()) dealListWhenFinish();
        driver.retryCount = 0;
        return KV_DEAL_ACCEPTED;
    }

    ++driver.retryCount;
    if (driver.retryCount < driver.retryTimes) return KV_DEAL_RETRY;

    driver.commError = 1;
    if (driver.state == STATE_WRITE) {
        // Copied: the reports of a failed write may call back into the driver.
        const FRAME_PRO& head = driver.frameList.constFirst();
        const QString reg = head.reg;
        failWrite(head.station, reg, head.address, head.length,
                  QStringLiteral("no valid reply after %1 attempts").arg(driver.retryCount));
        if (driver.initEpoch != epoch) return KV_DEAL_ABANDONED;
    }
    driver.frameList.clear();
    driver.retryCount = 0;
    dealListWhenFinish();
    return KV_DEAL_ABANDONED;
}
