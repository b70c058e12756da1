// Register catalogue lookups and the two catalogue exports.
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"

#include <QLatin1String>

namespace {

// The numeric columns, converted once at compile time (they hold plain decimal digits).
constexpr int decimal(const char* text) {
    int v = 0;
    for (; *text; ++text) v = v * 10 + (*text - '0');
    return v;
}

struct NumericColumns {
    int element[REG_COUNT] = {};
    int transfer[REG_COUNT] = {};
};

constexpr NumericColumns numericColumns() {
    NumericColumns c;
    for (int i = 0; i < REG_COUNT; ++i) {
        c.element[i] = decimal(ADDRESS_RANGE_PRO[i][REG_COL_ELEMENT]);
        c.transfer[i] = decimal(ADDRESS_RANGE_PRO[i][REG_COL_TRANSFER]);
    }
    return c;
}

constexpr NumericColumns kColumns = numericColumns();

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
    if (index < 0 || index >= REG_COUNT) return 0;
    return kColumns.element[index];
}

int regTransferBits(int index) {
    if (index < 0 || index >= REG_COUNT) return 0;
    return kColumns.transfer[index];
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
        QString size;
        switch (regElementBits(i)) {
            case 1:
                size = QStringLiteral("0");
                break;
            case 8:
            case 16:
                size = QStringLiteral("1");
                break;
            case 32:
                size = QStringLiteral("2");
                break;
            default:
                size = QStringLiteral("1");
                break;
        }
        description.append(size);
        const QLatin1String access(row[REG_COL_ACCESS]);
        if (access == QLatin1String("R"))
            description.append(QStringLiteral("0"));
        else if (access == QLatin1String("RW"))
            description.append(QStringLiteral("1"));
        else if (access == QLatin1String("W"))
            description.append(QStringLiteral("2"));
        else
            description.append(QStringLiteral("1"));
    }
    return 0;
}
