// Register catalogue lookups and the two catalogue exports.
#include "kv3000_catalogue.h"
#include "kv3000_intf.h"
#include "kv3000_traits.h"

#include <QLatin1String>

namespace {

// The row of each (length, first letter, second letter) that a name has, +1
// (0: no row): no two rows share all three, so one look-up finds the only
// row a name can be, and one comparison tells.
constexpr int kMaxNameLength = 6;
struct NameTable {
    signed char rows[kMaxNameLength][26][27] = {};
};

constexpr int letterAt(const char* text, int k, int n) {
    return k < n ? text[k] - 'A' + 1 : 0;
}

constexpr int lengthOf(const char* text) {
    int n = 0;
    while (text[n] != '\0') ++n;
    return n;
}

constexpr NameTable nameTable() {
    NameTable t;
    for (int i = 0; i < REG_COUNT; ++i) {
        const char* name = REG_LIST[i];
        const int n = lengthOf(name);
        t.rows[n - 1][letterAt(name, 0, n) - 1][letterAt(name, 1, n)] = static_cast<signed char>(i + 1);
    }
    return t;
}

constexpr NameTable kNames = nameTable();

// Every name fits the table, and no two share a slot.
constexpr bool namesFit() {
    for (int i = 0; i < REG_COUNT; ++i) {
        const char* name = REG_LIST[i];
        const int n = lengthOf(name);
        if (n < 1 || n > kMaxNameLength || name[0] < 'A' || name[0] > 'Z') return false;
        if (n > 1 && (name[1] < 'A' || name[1] > 'Z')) return false;
        if (kNames.rows[n - 1][letterAt(name, 0, n) - 1][letterAt(name, 1, n)] != i + 1) return false;
    }
    return true;
}
static_assert(namesFit(), "the catalogue's names fit the name table one to a slot");

}  // namespace

// Called for every block and unit the driver handles.
int getIndexFromRegName(const QString& name) {
    const int n = name.size();
    if (n < 1 || n > kMaxNameLength) return -1;
    const QChar* text = name.constData();
    const unsigned first = text[0].unicode() - 'A';
    const unsigned second = n > 1 ? text[1].unicode() - 'A' + 1 : 0;
    if (first >= 26 || second >= 27) return -1;
    const int i = kNames.rows[n - 1][first][second] - 1;
    if (i < 0) return -1;
    const char* entry = REG_LIST[i];
    for (int k = 2; k < n; ++k)
        if (text[k].unicode() != static_cast<unsigned char>(entry[k])) return -1;
    return i;
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
