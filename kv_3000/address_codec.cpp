// Text and integer forms of KV-3000 addresses.
#include "kv_3000/address_codec.h"

#include "kv3000_traits.h"

#include <QChar>
#include <QStringList>

#include <climits>
#include <cstdint>

bool isWordBitRegister(const QString& reg) {
    return kvreg::traits(getIndexFromRegName(reg)).notation == kvreg::Notation::WordBit;
}

int addr_str2int(QString text, QString reg) {
    if (!isWordBitRegister(reg)) return 0;
    const QStringList parts = text.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    if (parts.size() != 2) return -1;
    bool okWord = false;
    bool okBit = false;
    const int word = parts.at(0).toInt(&okWord, 10);
    const int bit = parts.at(1).toInt(&okBit, 10);
    if (!okWord || !okBit) return -1;
    // A word number that does not fit once scaled saturates, so that range
    // checks still see it far out of range instead of a wrapped small value.
    const int64_t value = int64_t(word) * 16 + bit;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return int(value);
}

QString addr_int2str(int address, QString reg) {
    if (!isWordBitRegister(reg)) return QString();
    return QString::number(address / 16) + QLatin1Char('.') + QString::number(address % 16);
}

namespace {

bool hasTwoDifferentCharacters(const QString& format) {
    for (int i = 1; i < format.size(); ++i) {
        if (format.at(i) != format.at(0)) return true;
    }
    return false;
}

int baseOfFormat(const QString& format) {
    if (format.isEmpty()) return 10;
    switch (format.at(format.size() - 1).unicode()) {
        case 'D':
            return 10;
        case 'O':
            return 8;
        case 'H':
            return 16;
        default:
            return 10;
    }
}

}  // namespace

int a2i(QString text, int& value, QString format, QString reg) {
    if (hasTwoDifferentCharacters(format)) {
        const int converted = addr_str2int(text, reg);
        if (converted == -1) return -1;
        value = converted;
        return 1;
    }
    bool ok = false;
    value = text.toInt(&ok, baseOfFormat(format));
    return ok ? 1 : -1;
}

int addrOffset(QString reg, int address) {
    Q_UNUSED(reg);
    return address;
}
