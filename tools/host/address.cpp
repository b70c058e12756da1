#include "address.h"

#include <QList>
#include <QStringList>

#include <algorithm>
#include <climits>

namespace kvhost {

namespace {

// An address of the register to show in hints: 10, 1F or 10.05, or its
// highest address when that is lower (TRM7).
QString exampleAddress(const RegisterInfo& reg) {
    const int preferred = reg.wordBitNotation() ? 10 * 16 + 5 : reg.hexNotation() ? 0x1F : 10;
    return formatUnit(reg, std::max(reg.minAddress, std::min(preferred, reg.maxAddress)));
}

QString notationHint(const RegisterInfo& reg) {
    const QString how = reg.wordBitNotation() ? QStringLiteral("word.bit")
                        : reg.hexNotation()   ? QStringLiteral("hexadecimal")
                                              : QStringLiteral("decimal");
    return QStringLiteral("%1, e.g. %2").arg(how, exampleAddress(reg));
}

bool isHexDigit(QChar c) {
    return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
           (c >= QLatin1Char('a') && c <= QLatin1Char('f')) ||
           (c >= QLatin1Char('A') && c <= QLatin1Char('F'));
}

bool allDigits(const QString& s) {
    if (s.isEmpty()) return false;
    for (QChar c : s)
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) return false;
    return true;
}

QString leadingName(const QString& text) {
    int n = 0;
    while (n < text.size() && (text[n].isLetter() || text[n] == QLatin1Char('_'))) ++n;
    return text.left(n);
}

int addressValue(const QString& text, bool wordBit, bool hex) {
    if (wordBit) {
        const QStringList parts = text.split(QLatin1Char('.'));
        return parts.size() == 2 ? parts[0].toInt() * 16 + parts[1].toInt() : 0;
    }
    return text.toInt(nullptr, hex ? 16 : 10);
}

// The address written only with the register's own digits (no sign, no
// spaces): its value, or -1 when it is not. Values beyond any address are
// clamped to INT_MAX so that they are reported out of range.
qint64 plainAddress(const RegisterInfo& reg, const QString& text) {
    auto number = [](const QString& digits, int base) -> qint64 {
        if (digits.isEmpty()) return -1;
        qint64 v = 0;
        for (QChar c : digits) {
            if (base == 16 ? !isHexDigit(c) : !allDigits(QString(c))) return -1;
            v = std::min<qint64>(v * base + QString(c).toInt(nullptr, 16), INT_MAX);
        }
        return v;
    };
    if (!reg.wordBitNotation()) return number(text, reg.hexNotation() ? 16 : 10);
    const QStringList parts = text.split(QLatin1Char('.'));
    if (parts.size() != 2) return -1;
    const qint64 word = number(parts[0], 10), bit = number(parts[1], 10);
    if (word < 0 || bit < 0 || bit > 15) return -1;
    return std::min<qint64>(word * 16 + bit, INT_MAX);
}

}  // namespace

Catalogue::Catalogue(const DriverApi& api) {
    for (int type = 0; type <= 1; ++type) {
        QList<QString> names;
        api.getRegListByType(type, names);
        for (const QString& name : names) {
            // Only the registers of the traits table: what a register is, is never guessed.
            const int row = kvreg::rowOf(name.toLatin1().constData());
            QList<QString> d;
            api.getRegDiscription(name, d);
            if (row < 0 || d.size() < 3) continue;
            RegisterInfo r;
            r.name = name;
            r.format = d[0];
            r.min = d[1];
            r.max = d[2];
            r.traits = kvreg::traits(row);
            r.minAddress = addressValue(r.min, r.wordBitNotation(), r.hexNotation());
            r.maxAddress = addressValue(r.max, r.wordBitNotation(), r.hexNotation());
            regs_.push_back(r);
        }
    }
}

const RegisterInfo* Catalogue::find(const QString& name) const {
    for (const RegisterInfo& r : regs_)
        if (r.name == name) return &r;
    return nullptr;
}

const RegisterInfo* Catalogue::longestPrefix(const QString& text) const {
    const RegisterInfo* best = nullptr;
    for (const RegisterInfo& r : regs_) {
        if (text.startsWith(r.name, Qt::CaseInsensitive) && (!best || r.name.size() > best->name.size()))
            best = &r;
    }
    return best;
}

QString formatUnit(const RegisterInfo& reg, int address) {
    if (reg.wordBitNotation())
        return QStringLiteral("%1%2.%3")
            .arg(reg.name)
            .arg(address / 16)
            .arg(address % 16, 2, 10, QLatin1Char('0'));
    if (reg.hexNotation()) return reg.name + QString::number(address, 16).toUpper();
    return reg.name + QString::number(address);
}

QString Address::unitName(int i) const {
    return formatUnit(*reg, address + i);
}

bool parseAddress(const Catalogue& catalogue, const DriverApi& api, const QString& text, Access access,
                  Address& out, QString* error) {
    auto fail = [&](const QString& why) {
        if (error) *error = text + QStringLiteral(": ") + why;
        return false;
    };
    const QString t = text.trimmed();
    if (t.isEmpty()) {
        if (error) *error = QStringLiteral("empty address (expected a register and an address, e.g. DM100)");
        return false;
    }
    const RegisterInfo* reg = catalogue.longestPrefix(t);
    // A letter after the name that cannot start an address makes a longer
    // name: ZZ9 is the register ZZ, not Z with the address Z9.
    if (reg && t.size() > reg->name.size()) {
        const QChar next = t[reg->name.size()];
        if ((next.isLetter() || next == QLatin1Char('_')) && !(reg->hexNotation() && isHexDigit(next)))
            reg = nullptr;
    }
    if (!reg) {
        const QString name = leadingName(t);
        if (name.isEmpty())
            return fail(QStringLiteral("malformed address (expected a register and an address, e.g. DM100)"));
        return fail(QStringLiteral("unknown register \"%1\" ('kv3000-host info' lists them)").arg(name));
    }
    const QString rest = t.mid(reg->name.size());
    const int colon = rest.indexOf(QLatin1Char(':'));
    const QString addressText = colon < 0 ? rest : rest.left(colon);
    int count = 1;
    if (colon >= 0) {
        const QString countText = rest.mid(colon + 1);
        if (!allDigits(countText) || countText.toLongLong() < 1)
            return fail(
                QStringLiteral("malformed count \"%1\" (a number of units from 1 up)").arg(countText));
        if (countText.size() > 6 || countText.toInt() > reg->maxCount())
            return fail(QStringLiteral("count %1 is too large (at most %2 for %3)")
                            .arg(countText)
                            .arg(reg->maxCount())
                            .arg(reg->name));
        count = countText.toInt();
    }
    if (addressText.isEmpty())
        return fail(QStringLiteral("no address after %1 (%2)").arg(reg->name, notationHint(*reg)));
    if (reg->wordBitNotation()) {
        const QStringList parts = addressText.split(QLatin1Char('.'));
        if (parts.size() == 2 && allDigits(parts[1]) && parts[1].toInt() > 15)
            return fail(
                QStringLiteral("malformed address \"%1\": the bit number must be 0 to 15").arg(addressText));
    }
    // Only the register's own digits: the driver would take a sign or spaces.
    const qint64 plain = plainAddress(*reg, addressText);
    if (plain < 0)
        return fail(QStringLiteral("malformed address \"%1\" for %2 (%3)")
                        .arg(addressText, reg->name, notationHint(*reg)));
    if (plain > reg->maxAddress)
        return fail(QStringLiteral("out of range: %1 addresses run from %2 to %3")
                        .arg(reg->name, reg->min, reg->max));

    int address = 0;
    const int code = api.checkAddr(reg->name, addressText, address, reg->dataType(),
                                   count * reg->unitLength(), access == Access::Write ? 1 : 0);
    switch (code) {
        case KV_ADDR_OK:
            break;
        case KV_ADDR_WRONG_KIND:
            return fail(QStringLiteral("%1 cannot be accessed as a %2")
                            .arg(reg->name, reg->isBit() ? "word" : "bit"));
        case KV_ADDR_OUT_OF_RANGE:
            if (count > 1)
                return fail(QStringLiteral("out of range: %1 addresses run from %2 to %3 (%4 units from %5)")
                                .arg(reg->name, reg->min, reg->max)
                                .arg(count)
                                .arg(addressText));
            return fail(QStringLiteral("out of range: %1 addresses run from %2 to %3")
                            .arg(reg->name, reg->min, reg->max));
        case KV_ADDR_UNKNOWN_REGISTER:
            return fail(QStringLiteral("unknown register \"%1\"").arg(reg->name));
        case KV_ADDR_MALFORMED:
            return fail(QStringLiteral("malformed address \"%1\" for %2 (%3)")
                            .arg(addressText, reg->name, notationHint(*reg)));
        case KV_ADDR_BAD_DATA_TYPE:
            return fail(QStringLiteral("the driver refuses this data type for the 32-bit register %1")
                            .arg(reg->name));
        case KV_ADDR_READ_ONLY:
            return fail(QStringLiteral("%1 is read-only and cannot be written").arg(reg->name));
        default:
            return fail(QStringLiteral("refused by the driver (code %1)").arg(code));
    }
    out.text = t;
    out.reg = reg;
    out.address = address;
    out.count = count;
    return true;
}

bool parseValue(const RegisterInfo& reg, const QString& text, uint32_t& out, QString* error) {
    const QString s = text.trimmed();
    qlonglong lo = 0, hi = 1;
    if (reg.unit() == kvreg::Unit::Word) {
        lo = -32768;
        hi = 65535;
    } else if (reg.unit() == kvreg::Unit::DWord) {
        lo = -2147483648LL;
        hi = 4294967295LL;
    }
    auto fail = [&](const QString& why) {
        if (error) *error = why;
        return false;
    };
    auto tooLarge = [&] {
        if (reg.isBit())
            return fail(QStringLiteral("value %1 is out of range for %2 (a bit: 0 or 1)").arg(s, reg.name));
        return fail(QStringLiteral("value %1 is too large for %2 (at most %3)").arg(s, reg.name).arg(hi));
    };
    const bool hex = s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) && s.size() > 2;
    const QString digits = hex ? s.mid(2) : s.startsWith(QLatin1Char('-')) ? s.mid(1) : s;
    bool wellFormed = !digits.isEmpty();
    for (QChar c : digits)
        wellFormed = wellFormed && (hex ? isHexDigit(c) : c.isDigit() && c.unicode() < 128);
    if (!wellFormed)
        return fail(QStringLiteral("value \"%1\" is not a number (decimal or 0x hexadecimal)").arg(text));
    bool ok = false;
    const qlonglong v = hex ? static_cast<qlonglong>(digits.toULongLong(&ok, 16)) : s.toLongLong(&ok, 10);
    // Digits beyond 64 bits: far outside any unit.
    if (!ok || (hex && v < 0)) {
        if (s.startsWith(QLatin1Char('-')))
            return fail(
                QStringLiteral("value %1 is too small for %2 (at least %3)").arg(s, reg.name).arg(lo));
        return tooLarge();
    }
    if (v > hi) return tooLarge();
    if (v < lo) {
        if (reg.isBit())
            return fail(QStringLiteral("value %1 is out of range for %2 (a bit: 0 or 1)").arg(s, reg.name));
        return fail(QStringLiteral("value %1 is too small for %2 (at least %3)").arg(s, reg.name).arg(lo));
    }
    out = static_cast<uint32_t>(static_cast<uint64_t>(v) &
                                (reg.unit() == kvreg::Unit::Word ? 0xFFFFu : 0xFFFFFFFFu));
    return true;
}

void storeValue(const RegisterInfo& reg, uint32_t value, unsigned char* unit) {
    for (int i = 0; i < reg.unitBytes(); ++i) unit[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t loadValue(const RegisterInfo& reg, const unsigned char* unit) {
    uint32_t v = 0;
    for (int i = reg.unitBytes() - 1; i >= 0; --i) v = (v << 8) | unit[i];
    return v;
}

QString formatValue(const RegisterInfo& reg, uint32_t value) {
    if (reg.isBit()) return QString::number(value);
    const int digits = reg.unit() == kvreg::Unit::DWord ? 8 : 4;
    const QString hex = QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0'));
    return QStringLiteral("%1 (0x%2)").arg(value).arg(hex);
}

}  // namespace kvhost
