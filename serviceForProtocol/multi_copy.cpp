// Address runs for copied screen objects. Reads only the constant catalogue,
// so it takes no lock.
#include "serviceForProtocol/multi_copy.h"

#include "kv3000_catalogue.h"
#include "kv3000_intf.h"
#include "kv_3000/address_codec.h"

#include <cstdint>

namespace {
constexpr int MULTI_COPY_MAX = 1 << 21;
}

int intf_multiCopy(QString reg, int start, int count, int step, QVector<QString>& texts,
                   QVector<int>& addresses) {
    const int row = getIndexFromRegName(reg);
    if (row < 0) return KV_COPY_UNKNOWN_REGISTER;
    const QString format = QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_FORMAT]);
    const QString maxText = QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_MAX]);
    int maxAddress = 0;
    a2i(maxText, maxAddress, format, reg);
    // More copies than the largest register has addresses can only repeat its
    // highest address; refusing them keeps a stray count from exhausting memory.
    if (count > MULTI_COPY_MAX) return KV_COPY_CLIPPED;
    return multiCp(reg, format, start, count, step, texts, addresses, maxAddress, maxText);
}

namespace {

// -1 steps one 16-bit word, -2 one 32-bit double word, counted in the
// register's transfer units (single-precision division, truncated); anything
// below 1 steps by one address.
int resolveStep(const QString& reg, int step) {
    if (step == -1 || step == -2) {
        const int bits = regTransferBits(getIndexFromRegName(reg));
        if (bits <= 0) return 1;
        const float units = (step == -1 ? 16.0f : 32.0f) / float(bits);
        step = int(units);
    }
    return step < 1 ? 1 : step;
}

}  // namespace

int multiCp(QString reg, QString format, int start, int count, int step, QVector<QString>& texts,
            QVector<int>& addresses, int maxAddress, QString maxText) {
    bool wordBit = false;
    for (int i = 1; i < format.size() && !wordBit; ++i) wordBit = format.at(i) != format.at(0);
    const QChar letter = format.isEmpty() ? QChar() : format.at(0);
    const int64_t stride = resolveStep(reg, step);

    // Outputs grow one copy at a time: a huge count costs only what is
    // actually appended. Addresses are formed in 64 bits and clipped.
    int result = KV_COPY_DONE;
    QString text;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t a = int64_t(start) + i * stride;
        if (a > maxAddress) {
            addresses.append(maxAddress);
            texts.append(maxText);
            result = KV_COPY_CLIPPED;
            continue;
        }
        const int address = int(a);
        if (wordBit) {
            text = addr_int2str(address, reg);
            if (text.isEmpty()) return KV_COPY_CLIPPED;
        } else if (letter == QLatin1Char('D')) {
            text = QString::number(uint(address));
        } else if (letter == QLatin1Char('H')) {
            text = QString::number(uint(address), 16);
        }
        addresses.append(address);
        texts.append(text);
    }
    return result;
}
