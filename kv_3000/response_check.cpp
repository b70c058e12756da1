// Acceptance of a reply for the outstanding frame.
//
// Reply envelope: 06 .. .. <covered bytes> check 04, the check byte covering
// positions 3 .. size - 3.
#include "kv_3000/response_check.h"

#include "kv3000_wire.h"
#include "protocol.h"

#include <algorithm>
#include <climits>
#include <cstdint>

int check_rcv_data(unsigned char* reply, QList<VARIABLE> list, int size) {
    Q_UNUSED(list);
    return checkReply(reply, size);
}

int checkReply(const unsigned char* reply, int size) {
    if (driver.frameList.isEmpty()) return 0;
    // Bytes announced but none handed over.
    if (!reply && size > 0) return 0;
    const FRAME_PRO& head = driver.frameList.constFirst();

    // While connecting only the lengths count; the 10-byte answer ends the handshake.
    if (driver.handShakeFlag) {
        if (size == head.replyLength && size == kvwire::HANDSHAKE_2_REPLY_LEN) driver.handShakeFlag = 0;
        return size == head.replyLength ? 2 : 0;
    }
    // Lone acknowledge frames expect no answer: whatever came is fine.
    if (head.replyLength == 0) return 2;
    if (size != head.replyLength) return 0;
    // Shorter than 06 .. .. check 04: there is no envelope to check.
    if (size < 5) return 0;
    if (reply[0] != kvwire::ACK || reply[size - 1] != kvwire::EOT) return 0;
    // checkSum takes an int count: replies of long timer reads exceed 16 bits.
    if (static_cast<unsigned char>(kvwire::checkSum(reply + 3, size - 5)) != reply[size - 2]) return 0;
    return head.elementCount != 0 ? 1 : 2;
}

int allMix_GetDataStartPosition(QByteArray reply, QList<VARIABLE> list, int n) {
    Q_UNUSED(reply);
    Q_UNUSED(list);
    // No such frame: no position.
    if (driver.frameIndex < 0 || driver.frameIndex >= driver.frameList.size()) return -1;
    int64_t position = driver.frameList.at(driver.frameIndex).dataOffset;
    if (driver.readFrameCount >= 1 && n != 0) position += 4 * int64_t(std::min(driver.readFrameCount, n));
    return static_cast<int>(std::min<int64_t>(position, INT_MAX));
}

int allMix_GetRecvLenFromReadList(QList<VARIABLE> list) {
    Q_UNUSED(list);
    return 0;
}
