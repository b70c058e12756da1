// The address text codec and both address checks, with the promises a
// runtime builds on: a valid text lies inside the register's range and its
// integer form prints back to an address that converts to the same integer.
#include "fuzz_input.h"
#include "fuzz_runtime.h"
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"
#include "kv_3000/address_codec.h"

#include <QVector>

using namespace kvfuzz;

namespace {

QString textOf(const std::vector<uint8_t>& raw, uint8_t encoding) {
    const char* p = reinterpret_cast<const char*>(raw.data());
    const int n = static_cast<int>(raw.size());
    return (encoding & 1) ? QString::fromUtf8(p, n) : QString::fromLatin1(p, n);
}

// The integer range of a catalogue row, read from its own texts.
void rangeOf(int row, const QString& reg, int& low, int& high) {
    const QString format = QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_FORMAT]);
    a2i(QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_MIN]), low, format, reg);
    a2i(QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_MAX]), high, format, reg);
}

void checkAccepted(const QString& reg, int address) {
    const int row = getIndexFromRegName(reg);
    KV_FUZZ_ASSERT(row >= 0);
    int low = 0, high = 0;
    rangeOf(row, reg, low, high);
    KV_FUZZ_ASSERT(address >= low && address <= high);
    const QString format = QString::fromLatin1(ADDRESS_RANGE_PRO[row][REG_COL_FORMAT]);
    QString printed = addr_int2str(address, reg);
    if (printed.isEmpty()) {
        const QChar last = format.at(format.size() - 1);
        printed = QString::number(address, last == QLatin1Char('H') ? 16 : 10);
    }
    int again = -1;
    KV_FUZZ_ASSERT(a2i(printed, again, format, reg) == 1);
    KV_FUZZ_ASSERT(again == address);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const QString reg = in.regName();
    const uint8_t encoding = in.u8();
    const QString text = textOf(in.blob(), encoding);
    const int length = in.number(2000);
    const int dataType = static_cast<int8_t>(in.u8());
    const int accessMode = in.u8() % 4;
    const int wordAccess = in.u8() % 3;

    int address = -7;
    const int validity = intf_checkAddrValidity(reg, text, address, length, wordAccess);
    KV_FUZZ_ASSERT(validity >= 0 && validity <= 6);
    if (validity == 0) checkAccepted(reg, address);

    address = -7;
    const int check = intf_checkAddr(reg, text, address, dataType, length, accessMode);
    KV_FUZZ_ASSERT(check >= 0 && check <= 6);
    if (check == 0) checkAccepted(reg, address);

    // The codec on its own, with any format text.
    const QString format = textOf(in.blob(), encoding >> 1);
    int value = 0;
    a2i(text, value, format, reg);
    const int wordBit = addr_str2int(text, reg);
    if (isWordBitRegister(reg) && wordBit >= 0) {
        int back = -1;
        KV_FUZZ_ASSERT(a2i(addr_int2str(wordBit, reg), back, QStringLiteral("DDD.DD"), reg) == 1 &&
                       back == wordBit);
    }

    // Address runs; the count is kept to what a screen copies.
    const int start = in.number(70000);
    const int count = in.u16() % 1200;
    const int step = static_cast<int8_t>(in.u8());
    QVector<QString> texts;
    QVector<int> addresses;
    const int copied = intf_multiCopy(reg, start, count, step, texts, addresses);
    KV_FUZZ_ASSERT(copied >= 0 && copied <= 2);
    KV_FUZZ_ASSERT(texts.size() == addresses.size() && addresses.size() <= count);
    const int row = getIndexFromRegName(reg);
    if (row >= 0) {
        int low = 0, high = 0;
        rangeOf(row, reg, low, high);
        for (int a : qAsConst(addresses)) KV_FUZZ_ASSERT(a <= high);
    }
    return 0;
}
