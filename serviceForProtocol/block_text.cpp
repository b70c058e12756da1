#include "serviceForProtocol/block_text.h"

#include "kv_3000/address_codec.h"

namespace {

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

QString blockText(int station, const QString& reg, int address, int length) {
    QString text;
    text.reserve(reg.size() + 32);
    appendNumber(text, station);
    text.append(QLatin1Char('#'));
    text.append(reg);
    if (isWordBitRegister(reg)) {
        appendNumber(text, address / 16);
        text.append(QLatin1Char('.'));
        appendNumber(text, address % 16);
    } else {
        appendNumber(text, address);
    }
    text.append(QLatin1Char('('));
    appendNumber(text, length);
    text.append(QLatin1Char(')'));
    return text;
}
