// Register catalogue lookups and the two catalogue exports.
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"
#include "kv3000_traits.h"

#include <QLatin1String>

namespace {

// The rows by the first letter of their names, in catalogue order (at most 7 share one).
struct FirstLetters {
    signed char rows[128][8] = {};
    int count[128] = {};
};

constexpr FirstLetters firstLetters() {
    FirstLetters f;
    for (int i = 0; i < REG_COUNT; ++i) {
        const int c = static_cast<unsigned char>(REG_LIST[i][0]) & 0x7F;
        f.rows[c][f.count[c]++] = static_cast<signed char>(i);
    }
    return f;
}

constexpr FirstLetters kFirstLetters = firstLetters();

}  // namespace

// Called for every block and unit the driver handles: only the rows that
// share the name's first letter are compared, character by character.
int getIndexFromRegName(const QString& name) {
    const int n = name.size();
    if (n == 0) return -1;
    const QChar* text = name.constData();
    const unsigned first = text[0].unicode();
    if (first >= 128) return -1;
    for (int r = 0; r < kFirstLetters.count[first]; ++r) {
        const int i = kFirstLetters.rows[first][r];
        const char* entry = REG_LIST[i];
        int k = 0;
        while (k < n && entry[k] != '\0' && text[k].unicode() == static_cast<unsigned char>(entry[k])) ++k;
        if (k == n && entry[k] == '\0') return i;
    }
    return -1;
}

int regElementBits(int index) {
    return kvreg::traits(index).elementBits;
}

int regTransferBits(int index) {
    return kvreg::traits(index).transferBits;
}

int intf_getRegListByType(int type, QList<QString>& names) {
    for (int i = 0; i < REG_COUNT; ++i) {
        const int bits = regElementBits(i);
        const bool wanted = (type == 0) ? bits == 1 : bits > 1;
        if (wanted) names.append(QString::fromLatin1(REG_LIST[i]));
    }
    // The type is compared unsigned: a negative type is neither 0 nor 1.
    return static_cast<unsigned>(type) <= 1u ? 1 : 0;
}

int intf_getRegDiscription(const QString& name, QList<QString>& description) {
    for (int i = 0; i < REG_COUNT; ++i) {
        if (name != QLatin1String(REG_LIST[i])) continue;
        const char* const* row = ADDRESS_RANGE_PRO[i];
        description.append(QString::fromLatin1(row[REG_COL_FORMAT]));
        description.append(QString::fromLatin1(row[REG_COL_MIN]));
        description.append(QString::fromLatin1(row[REG_COL_MAX]));
        // Element size: 0 bit, 1 word, 2 double word.
        description.append(QString::number(regElementBits(i) / 16));
        description.append(kvreg::traits(i).readOnly ? QStringLiteral("0") : QStringLiteral("1"));
    }
    return 0;
}
