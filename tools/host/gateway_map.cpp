#include "gateway_map.h"

#include <algorithm>

namespace kvhost {

namespace {

constexpr const char* kTableNames[kModbusTables] = {"co", "di", "hr", "ir"};
const QString kMapExample = QStringLiteral("ADDR[:COUNT]=TABLE START, e.g. DM0:100=hr0");
const QString kTables =
    QStringLiteral("hr holding registers, ir input registers, co coils, di discrete inputs");

bool digitsOnly(const QString& s) {
    if (s.isEmpty() || s.size() > 6) return false;
    for (QChar c : s)
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) return false;
    return true;
}

QString kindText(const RegisterInfo& reg) {
    if (reg.isBit()) return QStringLiteral("bits: map it to coils (co) or discrete inputs (di)");
    return QStringLiteral("%1 values: map it to holding registers (hr) or input registers (ir)")
        .arg(reg.unit() == kvreg::Unit::DWord ? "32-bit" : "16-bit");
}

}  // namespace

const char* tableName(ModbusTable t) {
    return kTableNames[static_cast<int>(t)];
}

bool parseGatewayMap(const Catalogue& catalogue, const DriverApi& api, const QString& text, GatewayMap& out,
                     QString* error) {
    auto fail = [&](const QString& why) {
        if (error) *error = QStringLiteral("map '%1': %2").arg(text, why);
        return false;
    };
    const QStringList sides = text.trimmed().split(QLatin1Char('='));
    if (sides.size() != 2) return fail(QStringLiteral("expected ") + kMapExample);
    const QString left = sides[0].trimmed();
    const QString right = sides[1].trimmed();
    const int colon = left.indexOf(QLatin1Char(':'));
    const QString addressText = colon < 0 ? left : left.left(colon);
    int count = 1;
    if (colon >= 0) {
        const QString c = left.mid(colon + 1);
        if (!digitsOnly(c) || c.toInt() < 1 || c.toInt() > kModbusAddresses)
            return fail(QStringLiteral("malformed count \"%1\" (a number of units, 1 to %2)")
                            .arg(c)
                            .arg(kModbusAddresses));
        count = c.toInt();
    }
    GatewayMap m;
    QString why;
    if (!parseAddress(catalogue, api, addressText, Access::Read, m.address, &why)) return fail(why);
    const RegisterInfo& reg = *m.address.reg;
    if (static_cast<qint64>(m.address.address) + count - 1 > reg.maxAddress)
        return fail(QStringLiteral("runs past %1: %2 addresses run from %3 to %4")
                        .arg(formatUnit(reg, reg.maxAddress), reg.name, reg.min, reg.max));
    m.address.count = count;
    m.address.text = addressText + (colon < 0 ? QString() : QStringLiteral(":%1").arg(count));

    int t = 0;
    while (t < kModbusTables && !right.startsWith(QLatin1String(kTableNames[t]), Qt::CaseInsensitive)) ++t;
    if (t == kModbusTables)
        return fail(QStringLiteral("unknown table \"%1\" (%2)").arg(right.left(2), kTables));
    m.table = static_cast<ModbusTable>(t);
    const QString startText = right.mid(2);
    if (!digitsOnly(startText) || startText.toInt() >= kModbusAddresses)
        return fail(QStringLiteral("malformed start \"%1\" (a Modbus address, 0 to 65535, after the table: "
                                   "hr0)")
                        .arg(startText));
    m.start = startText.toInt();
    if (reg.isBit() != tableHoldsBits(m.table))
        return fail(QStringLiteral("%1 holds %2").arg(reg.name, kindText(reg)));
    m.perUnit = reg.unit() == kvreg::Unit::DWord ? 2 : 1;
    if (m.end() > kModbusAddresses)
        return fail(QStringLiteral("runs past Modbus address 65535 (%1 %2 from %3%4)")
                        .arg(m.span())
                        .arg(tableHoldsBits(m.table) ? "bits" : "registers")
                        .arg(tableName(m.table))
                        .arg(m.start));
    m.text = text.trimmed();
    out = m;
    return true;
}

bool checkGatewayMaps(const std::vector<GatewayMap>& maps, QString* error) {
    for (size_t i = 0; i < maps.size(); ++i)
        for (size_t j = i + 1; j < maps.size(); ++j) {
            const GatewayMap& a = maps[i];
            const GatewayMap& b = maps[j];
            if (a.table != b.table || a.end() <= b.start || b.end() <= a.start) continue;
            if (error)
                *error = QStringLiteral("map '%1' overlaps map '%2' at %3%4")
                             .arg(b.text, a.text, tableName(a.table))
                             .arg(std::max(a.start, b.start));
            return false;
        }
    return true;
}

}  // namespace kvhost
