#include "options.h"

#include "link_tcp.h"

#include <QCommandLineParser>

namespace kvhost {

namespace {

const QStringList kCommands = {
    QStringLiteral("info"),  QStringLiteral("watch"),           QStringLiteral("read"),
    QStringLiteral("write"), QStringLiteral("recipe-download"), QStringLiteral("recipe-upload"),
    QStringLiteral("demo"),  QStringLiteral("serve"),
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

// serve --http HOST:PORT, where port 0 picks a free one.
bool parseListenAddress(const QString& text, ServeOptions& serve, QString* error) {
    std::string t = text.toStdString();
    const bool anyPort = t.size() > 2 && t.compare(t.size() - 2, 2, ":0") == 0;
    if (anyPort) t.back() = '1';
    std::string why;
    if (!parseHostPort(t, serve.host, serve.port, &why)) {
        *error = QStringLiteral("bad --http: ") + QString::fromStdString(why);
        return false;
    }
    if (anyPort) serve.port = 0;
    return true;
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
    const QCommandLineOption output(QStringLiteral("output"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption live(QStringLiteral("live"));
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption capture(QStringLiteral("capture"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption replayCheck(QStringLiteral("replay-check"), QString(), QStringLiteral("FILE"));
    p.addOptions({tcp, serial, serialParams, params, timeout, trace, driver, forOption, http, allowWrites,
                  output, live, capture, replayCheck, help});
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
    if ((p.isSet(http) || p.isSet(allowWrites)) && c.command != QLatin1String("serve"))
        return fail(QStringLiteral("--%1 goes with serve").arg(p.isSet(http) ? "http" : "allow-writes"));
    if (p.isSet(http) && !parseListenAddress(p.value(http), c.serve, error)) return false;
    c.serve.allowWrites = p.isSet(allowWrites);
    const QString& cmd = c.command;
    if ((cmd == QLatin1String("info") || cmd == QLatin1String("demo")) && !c.args.isEmpty())
        return fail(QStringLiteral("%1 takes no arguments").arg(cmd));
    if ((cmd == QLatin1String("watch") || cmd == QLatin1String("read") || cmd == QLatin1String("write") ||
         cmd == QLatin1String("serve")) &&
        c.args.isEmpty())
        return fail(QStringLiteral("%1 needs at least one address").arg(cmd));
    if (cmd.startsWith(QLatin1String("recipe-")) && c.args.size() != 1)
        return fail(QStringLiteral("%1 needs one CSV file").arg(cmd));
    if (cmd == QLatin1String("demo") && c.linkGiven)
        return fail(
            QStringLiteral("demo runs against the embedded simulator only; leave out --tcp and --serial"));
    if (cmd == QLatin1String("demo") || (cmd == QLatin1String("serve") && !c.linkGiven))
        c.host.liveSimulator = true;
    out = c;
    return true;
}

}  // namespace kvhost
