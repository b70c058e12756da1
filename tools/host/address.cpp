#include "address.h"

#include <QList>

namespace kvhost {

namespace {

QString notationHint(const RegisterInfo& reg) {
    if (reg.wordBitNotation())
        return QStringLiteral("word.bit, e.g. %1%2").arg(reg.name, QStringLiteral("10.05"));
    if (reg.hexNotation())
        return QStringLiteral("hexadecimal, e.g. %1%2").arg(reg.name, QStringLiteral("1F"));
    return QStringLiteral("decimal, e.g. %1%2").arg(reg.name, QStringLiteral("10"));
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

}  // namespace

Catalogue::Catalogue(const DriverApi& api) {
    for (int type = 0; type <= 1; ++type) {
        QList<QString> names;
        api.getRegListByType(type, names);
        for (const QString& name : names) {
            QList<QString> d;
            api.getRegDiscription(name, d);
            if (d.size() < 5) continue;
            RegisterInfo r;
            r.name = name;
            r.format = d[0];
            r.min = d[1];
            r.max = d[2];
            if (type == 0)
                r.kind = name.contains(QLatin1String("_bit")) ? RegKind::WordBit : RegKind::Bit;
            else
                r.kind = d[3] == QLatin1String("2") ? RegKind::Dword : RegKind::Word;
            r.writable = d[4] != QLatin1String("0");
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
        if (!allDigits(countText) || countText.size() > 6 || countText.toInt() < 1)
            return fail(
                QStringLiteral("malformed count \"%1\" (a number of units from 1 up)").arg(countText));
        count = countText.toInt();
    }
    if (addressText.isEmpty())
        return fail(QStringLiteral("no address after %1 (%2)").arg(reg->name, notationHint(*reg)));
    if (count > reg->maxCount())
        return fail(QStringLiteral("count %1 is too large (at most %2 for %3)")
                        .arg(count)
                        .arg(reg->maxCount())
                        .arg(reg->name));
    if (reg->wordBitNotation()) {
        const QStringList parts = addressText.split(QLatin1Char('.'));
        if (parts.size() == 2 && allDigits(parts[1]) && parts[1].toInt() > 15)
            return fail(
                QStringLiteral("malformed address \"%1\": the bit number must be 0 to 15").arg(addressText));
    }

    int address = 0;
    const int code = api.checkAddr(reg->name, addressText, address, reg->dataType(),
                                   count * reg->unitLength(), access == Access::Write ? 1 : 0);
    switch (code) {
        case 0:
            break;
        case 1:
            return fail(QStringLiteral("%1 cannot be accessed as a %2")
                            .arg(reg->name, reg->isBit() ? "word" : "bit"));
        case 2:
            if (count > 1)
                return fail(QStringLiteral("out of range: %1 addresses run from %2 to %3 (%4 units from %5)")
                                .arg(reg->name, reg->min, reg->max)
                                .arg(count)
                                .arg(addressText));
            return fail(QStringLiteral("out of range: %1 addresses run from %2 to %3")
                            .arg(reg->name, reg->min, reg->max));
        case 3:
            return fail(QStringLiteral("unknown register \"%1\"").arg(reg->name));
        case 4:
            return fail(QStringLiteral("malformed address \"%1\" for %2 (%3)")
                            .arg(addressText, reg->name, notationHint(*reg)));
        case 5:
            return fail(QStringLiteral("the driver refuses this data type for the 32-bit register %1")
                            .arg(reg->name));
        case 6:
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
    bool ok = false;
    qlonglong v = 0;
    if (s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) && s.size() > 2) {
        const qulonglong u = s.mid(2).toULongLong(&ok, 16);
        ok = ok && u <= 0xFFFFFFFFull;
        v = static_cast<qlonglong>(u);
    } else {
        v = s.toLongLong(&ok, 10);
    }
    if (!ok || s.isEmpty()) {
        if (error)
            *error = QStringLiteral("value \"%1\" is not a number (decimal or 0x hexadecimal)").arg(text);
        return false;
    }
    qlonglong lo = 0, hi = 1;
    QString what = QStringLiteral("a bit: 0 or 1");
    if (reg.kind == RegKind::Word) {
        lo = -32768;
        hi = 65535;
        what = QStringLiteral("a 16-bit word: -32768 to 65535");
    } else if (reg.kind == RegKind::Dword) {
        lo = -2147483648LL;
        hi = 4294967295LL;
        what = QStringLiteral("a 32-bit value: -2147483648 to 4294967295");
    }
    if (v < lo || v > hi) {
        if (error) *error = QStringLiteral("value %1 is out of range for %2 (%3)").arg(s, reg.name, what);
        return false;
    }
    out =
        static_cast<uint32_t>(static_cast<uint64_t>(v) & (reg.kind == RegKind::Word ? 0xFFFFu : 0xFFFFFFFFu));
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
    const int digits = reg.kind == RegKind::Dword ? 8 : 4;
    const QString hex = QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0'));
    return QStringLiteral("%1 (0x%2)").arg(value).arg(hex);
}

}  // namespace kvhost
