#include "options.h"

#include "link_tcp.h"

#include <QCommandLineParser>

#include <arpa/inet.h>

namespace kvhost {

namespace {

const QStringList kCommands = {
    QStringLiteral("info"),  QStringLiteral("watch"),           QStringLiteral("read"),
    QStringLiteral("write"), QStringLiteral("recipe-download"), QStringLiteral("recipe-upload"),
    QStringLiteral("demo"),  QStringLiteral("serve"),           QStringLiteral("gateway"),
};

bool parseParams(const QString& text, HostOptions& host, QString* error) {
    const QStringList f = text.split(QLatin1Char('#'));
    if (f.size() != 5) {
        *error = QStringLiteral(
                     "--params '%1' has %2 field(s); it takes five, ID#LOCAL#X#RETRIES#BLOCK, "
                     "e.g. 1#0#0#3#10")
                     .arg(text)
                     .arg(f.size());
        return false;
    }
    int v[5];
    for (int i = 0; i < 5; ++i) {
        bool ok = false;
        v[i] = f[i].toInt(&ok);
        if (!ok || v[i] < 0) {
            *error = QStringLiteral("--params '%1': field %2 ('%3') is not a number of 0 or more")
                         .arg(text)
                         .arg(i + 1)
                         .arg(f[i]);
            return false;
        }
    }
    auto fail = [&](const char* why) {
        *error = QStringLiteral("--params '%1': %2").arg(text, QLatin1String(why));
        return false;
    };
    if (v[1] > 1) return fail("local write only (field 2) is 0 or 1");
    if (v[3] < 1 || v[3] > 100) return fail("the attempts per frame (field 4) must be 1 to 100");
    if (v[4] < 1 || v[4] > 120) return fail("the block length (field 5) must be 1 to 120");
    host.params = text.toStdString();
    host.protocolId = v[0];
    host.localWriteOnly = v[1] == 1;
    host.retries = v[3];
    return true;
}

// serve --http and gateway --modbus HOST:PORT, where port 0 picks a free one.
bool parseListenAddress(const QString& text, const char* option, std::string& host, uint16_t& port,
                        QString* error) {
    std::string t = text.toStdString();
    const bool anyPort = t.size() > 2 && t.compare(t.size() - 2, 2, ":0") == 0;
    if (anyPort) t.back() = '1';
    std::string why;
    if (!parseHostPort(t, host, port, &why)) {
        *error = QStringLiteral("bad --%1: %2").arg(QLatin1String(option), QString::fromStdString(why));
        return false;
    }
    if (anyPort) port = 0;
    return true;
}

// libmodbus listens on IPv4 addresses only.
bool parseModbusAddress(const QString& text, GatewayOptions& gateway, QString* error) {
    if (!parseListenAddress(text, "modbus", gateway.host, gateway.port, error)) return false;
    in_addr ip{};
    if (inet_pton(AF_INET, gateway.host.c_str(), &ip) == 1) return true;
    *error = QStringLiteral(
                 "bad --modbus: '%1' is not an IPv4 address (e.g. 127.0.0.1, or 0.0.0.0 for every "
                 "interface)")
                 .arg(QString::fromStdString(gateway.host));
    return false;
}

// Qt's "Unknown option 'x'." in the tool's own style: "unknown option '--x'",
// as it was typed.
QString optionError(const QCommandLineParser& p, const QStringList& arguments) {
    if (!p.unknownOptionNames().isEmpty()) {
        const QString name = p.unknownOptionNames().first();
        QString typed = QStringLiteral("--") + name;
        for (const QString& a : arguments)
            if (a == QLatin1Char('-') + name || a.startsWith(QLatin1Char('-') + name + QLatin1Char('=')))
                typed = a;
        return QStringLiteral("unknown option '%1'").arg(typed.section(QLatin1Char('='), 0, 0));
    }
    QString text = p.errorText();
    if (text.endsWith(QLatin1Char('.'))) text.chop(1);
    if (!text.isEmpty()) text[0] = text[0].toLower();
    return text;
}

}  // namespace

bool parseCommandLine(const QStringList& arguments, CommandLine& out, QString* error) {
    QCommandLineParser p;
    p.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption tcp(QStringLiteral("tcp"), QString(), QStringLiteral("HOST:PORT"));
    const QCommandLineOption serial(QStringLiteral("serial"), QString(), QStringLiteral("DEVICE"));
    const QCommandLineOption serialParams(QStringLiteral("serial-params"), QString(),
                                          QStringLiteral("PARAMS"));
    const QCommandLineOption params(QStringLiteral("params"), QString(), QStringLiteral("PARAMS"));
    const QCommandLineOption timeout(QStringLiteral("timeout"), QString(), QStringLiteral("MS"));
    const QCommandLineOption trace(QStringLiteral("trace"));
    const QCommandLineOption driver(QStringLiteral("driver"), QString(), QStringLiteral("PATH"));
    const QCommandLineOption forOption(QStringLiteral("for"), QString(), QStringLiteral("SECONDS"));
    const QCommandLineOption http(QStringLiteral("http"), QString(), QStringLiteral("HOST:PORT"));
    const QCommandLineOption allowWrites(QStringLiteral("allow-writes"));
    const QCommandLineOption modbus(QStringLiteral("modbus"), QString(), QStringLiteral("HOST:PORT"));
    const QCommandLineOption unit(QStringLiteral("unit"), QString(), QStringLiteral("ID"));
    const QCommandLineOption output(QStringLiteral("output"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption live(QStringLiteral("live"));
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption capture(QStringLiteral("capture"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption replayCheck(QStringLiteral("replay-check"), QString(), QStringLiteral("FILE"));
    p.addOptions({tcp, serial, serialParams, params, timeout, trace, driver, forOption, http, allowWrites,
                  output, live, capture, replayCheck, modbus, unit, help});
    if (!p.parse(arguments)) {
        *error = optionError(p, arguments);
        return false;
    }
    CommandLine c;
    if (p.isSet(help)) {
        c.help = true;
        out = c;
        return true;
    }
    auto fail = [&](const QString& why) {
        *error = why;
        return false;
    };
    if (p.isSet(tcp) && p.isSet(serial)) return fail(QStringLiteral("--tcp and --serial exclude each other"));
    if (p.isSet(tcp)) {
        std::string why;
        if (!parseHostPort(p.value(tcp).toStdString(), c.host.tcpHost, c.host.tcpPort, &why))
            return fail(QStringLiteral("bad --tcp: ") + QString::fromStdString(why));
        c.host.link = HostOptions::LinkKind::Tcp;
        c.linkGiven = true;
    }
    if (p.isSet(serial)) {
        c.host.serialDevice = p.value(serial).toStdString();
        if (c.host.serialDevice.empty()) return fail(QStringLiteral("--serial needs a device"));
        c.host.link = HostOptions::LinkKind::Serial;
        c.linkGiven = true;
    }
    if (p.isSet(serialParams)) {
        if (!p.isSet(serial)) return fail(QStringLiteral("--serial-params goes with --serial"));
        std::string why;
        if (!parseSerialParams(p.value(serialParams).toStdString(), c.host.serial, &why))
            return fail(QString::fromStdString(why));
    }
    if (p.isSet(params) && !parseParams(p.value(params), c.host, error)) return false;
    if (p.isSet(timeout)) {
        bool ok = false;
        const int ms = p.value(timeout).toInt(&ok);
        if (!ok || ms < 1 || ms > 600000)
            return fail(
                QStringLiteral("bad --timeout '%1' (milliseconds, 1 to 600000)").arg(p.value(timeout)));
        c.host.timeoutMs = ms;
    }
    c.host.trace = p.isSet(trace);
    if (p.isSet(driver)) {
        c.driverPath = p.value(driver).toStdString();
        if (c.driverPath.empty()) return fail(QStringLiteral("--driver needs a path"));
    }

    QStringList positional = p.positionalArguments();
    if (!positional.isEmpty()) c.command = positional.takeFirst();
    c.args = positional;
    if (!kCommands.contains(c.command))
        return fail(QStringLiteral("unknown command '%1' (one of: %2)")
                        .arg(c.command, kCommands.join(QStringLiteral(", "))));

    for (const QCommandLineOption* o : {&capture, &replayCheck}) {
        if (!p.isSet(*o)) continue;
        const QString name = o->names().constFirst();
        if (p.value(*o).isEmpty()) return fail(QStringLiteral("--%1 needs a FILE").arg(name));
        if (c.command == QLatin1String("info"))
            return fail(QStringLiteral("--%1 goes with a command that talks to a controller").arg(name));
    }
    c.capturePath = p.value(capture).toStdString();
    c.replayCheckPath = p.value(replayCheck).toStdString();

    if (p.isSet(forOption)) {
        if (c.command != QLatin1String("watch")) return fail(QStringLiteral("--for goes with watch"));
        bool ok = false;
        c.forText = p.value(forOption).trimmed();
        c.forSeconds = c.forText.toDouble(&ok);
        if (!ok || !(c.forSeconds > 0) || c.forSeconds > 1e7)
            return fail(QStringLiteral("bad --for '%1' (seconds, more than 0, at most 10000000)")
                            .arg(p.value(forOption)));
    }
    if (p.isSet(output)) {
        if (c.command != QLatin1String("recipe-upload"))
            return fail(QStringLiteral("--output goes with recipe-upload"));
        c.outputPath = p.value(output);
        if (c.outputPath.isEmpty()) return fail(QStringLiteral("--output needs a file"));
    }
    if (p.isSet(live)) {
        if (c.linkGiven)
            return fail(
                QStringLiteral("--live changes values of the embedded simulator; leave out --tcp and "
                               "--serial (or run kv3000-sim --live)"));
        c.host.liveSimulator = true;
    }
    const bool gateway = c.command == QLatin1String("gateway");
    if (p.isSet(http) && c.command != QLatin1String("serve"))
        return fail(QStringLiteral("--http goes with serve"));
    if (p.isSet(allowWrites) && c.command != QLatin1String("serve") && !gateway)
        return fail(QStringLiteral("--allow-writes goes with serve or gateway"));
    for (const QCommandLineOption* o : {&modbus, &unit})
        if (p.isSet(*o) && !gateway)
            return fail(QStringLiteral("--%1 goes with gateway").arg(o->names().constFirst()));
    if (p.isSet(http) && !parseListenAddress(p.value(http), "http", c.serve.host, c.serve.port, error))
        return false;
    c.serve.allowWrites = c.gateway.allowWrites = p.isSet(allowWrites);
    if (p.isSet(modbus) && !parseModbusAddress(p.value(modbus), c.gateway, error)) return false;
    if (p.isSet(unit)) {
        bool ok = false;
        c.gateway.unit = p.value(unit).toInt(&ok);
        if (!ok || c.gateway.unit < 0 || c.gateway.unit > 255)
            return fail(QStringLiteral("bad --unit '%1' (a Modbus unit id, 0 to 255)").arg(p.value(unit)));
    }
    const QString& cmd = c.command;
    if ((cmd == QLatin1String("info") || cmd == QLatin1String("demo")) && !c.args.isEmpty())
        return fail(QStringLiteral("%1 takes no arguments").arg(cmd));
    if ((cmd == QLatin1String("watch") || cmd == QLatin1String("read") || cmd == QLatin1String("write") ||
         cmd == QLatin1String("serve")) &&
        c.args.isEmpty())
        return fail(QStringLiteral("%1 needs at least one address").arg(cmd));
    if (gateway && c.args.isEmpty())
        return fail(
            QStringLiteral("gateway needs at least one map, ADDR[:COUNT]=TABLE START, e.g. DM0:100=hr0"));
    if (cmd.startsWith(QLatin1String("recipe-")) && c.args.size() != 1)
        return fail(QStringLiteral("%1 needs one CSV file").arg(cmd));
    if (cmd == QLatin1String("demo") && c.linkGiven)
        return fail(
            QStringLiteral("demo runs against the embedded simulator only; leave out --tcp and --serial"));
    if (cmd == QLatin1String("demo") || ((cmd == QLatin1String("serve") || gateway) && !c.linkGiven))
        c.host.liveSimulator = true;
    out = c;
    return true;
}

}  // namespace kvhost
