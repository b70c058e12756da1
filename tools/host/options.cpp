#include "options.h"

#include "link_tcp.h"

#include <QCommandLineParser>

namespace kvhost {

namespace {

const QStringList kCommands = {
    QStringLiteral("info"),  QStringLiteral("watch"),           QStringLiteral("read"),
    QStringLiteral("write"), QStringLiteral("recipe-download"), QStringLiteral("recipe-upload"),
    QStringLiteral("demo")};

bool parseParams(const QString& text, HostOptions& host, QString* error) {
    const QStringList f = text.split(QLatin1Char('#'));
    if (f.size() < 5) {
        *error = QStringLiteral("--params '%1' needs five fields ID#LOCAL#X#RETRIES#BLOCK, e.g. 1#0#0#3#10")
                     .arg(text);
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
    if (v[4] < 1 || v[4] > 120) {
        *error = QStringLiteral("--params '%1': the block length (field 5) must be 1 to 120").arg(text);
        return false;
    }
    host.params = text.toStdString();
    host.protocolId = v[0];
    host.retries = v[3];
    return true;
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
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption capture(QStringLiteral("capture"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption replayCheck(QStringLiteral("replay-check"), QString(), QStringLiteral("FILE"));
    p.addOptions(
        {tcp, serial, serialParams, params, timeout, trace, driver, forOption, help, capture, replayCheck});
    if (!p.parse(arguments)) {
        *error = p.errorText();
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
        c.forSeconds = p.value(forOption).toDouble(&ok);
        if (!ok || !(c.forSeconds > 0) || c.forSeconds > 1e7)
            return fail(QStringLiteral("bad --for '%1' (seconds, more than 0)").arg(p.value(forOption)));
    }
    const QString& cmd = c.command;
    if ((cmd == QLatin1String("info") || cmd == QLatin1String("demo")) && !c.args.isEmpty())
        return fail(QStringLiteral("%1 takes no arguments").arg(cmd));
    if ((cmd == QLatin1String("watch") || cmd == QLatin1String("read") || cmd == QLatin1String("write")) &&
        c.args.isEmpty())
        return fail(QStringLiteral("%1 needs at least one address").arg(cmd));
    if (cmd.startsWith(QLatin1String("recipe-")) && c.args.size() != 1)
        return fail(QStringLiteral("%1 needs one CSV file").arg(cmd));
    if (cmd == QLatin1String("demo") && c.linkGiven)
        return fail(
            QStringLiteral("demo runs against the embedded simulator only; leave out --tcp and --serial"));
    if (cmd == QLatin1String("demo")) c.host.liveSimulator = true;
    out = c;
    return true;
}

}  // namespace kvhost
