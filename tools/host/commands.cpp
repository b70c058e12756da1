#include "commands.h"

#include "output.h"

#include <QSaveFile>
#include <QStringList>

#include <algorithm>

namespace kvhost {

namespace {

QString sizeText(kvreg::Unit u) {
    switch (u) {
        case kvreg::Unit::Bit:
        case kvreg::Unit::BitInWord:
            return QStringLiteral("bit");
        case kvreg::Unit::Word:
            return QStringLiteral("16-bit");
        case kvreg::Unit::DWord:
            return QStringLiteral("32-bit");
        case kvreg::Unit::None:
            break;
    }
    return QString();
}

// The values as they were typed: "1,2,3", "-1", "7 (each)" for one value
// given for all units; a long list is shortened.
QString valuesText(const WriteRequest& w) {
    const QStringList& typed = w.valueTexts;
    if (typed.size() == 1 && w.address.count > 1) return QStringLiteral("%1 (each)").arg(typed[0]);
    QStringList parts = typed.mid(0, 8);
    if (typed.size() > 8) parts << QStringLiteral("... (%1 values)").arg(typed.size());
    return parts.join(QLatin1Char(','));
}

}  // namespace

bool parseWriteArgument(const Catalogue& catalogue, const DriverApi& api, const QString& text,
                        WriteRequest& out, QString* error) {
    const int eq = text.indexOf(QLatin1Char('='));
    if (eq < 0) {
        *error = text + QStringLiteral(": expected ADDR=VALUE");
        return false;
    }
    QString addressText = text.left(eq).trimmed();
    const QStringList valueTexts = text.mid(eq + 1).split(QLatin1Char(','));
    if (!addressText.contains(QLatin1Char(':')) && valueTexts.size() > 1)
        addressText += QStringLiteral(":%1").arg(valueTexts.size());
    WriteRequest w;
    if (!parseAddress(catalogue, api, addressText, Access::Write, w.address, error)) return false;
    if (valueTexts.size() != 1 && valueTexts.size() != w.address.count) {
        *error = QStringLiteral("%1: %2 values for %3 units (give one for all, or one per unit)")
                     .arg(text)
                     .arg(valueTexts.size())
                     .arg(w.address.count);
        return false;
    }
    for (const QString& v : valueTexts) {
        uint32_t value = 0;
        QString why;
        if (!parseValue(*w.address.reg, v, value, &why)) {
            *error = text + QStringLiteral(": ") + why;
            return false;
        }
        w.values.push_back(value);
        w.valueTexts << v.trimmed();
    }
    if (w.values.size() == 1) w.values.assign(static_cast<size_t>(w.address.count), w.values.front());
    out = w;
    return true;
}

bool prepareCommand(const CommandLine& cl, const Catalogue& catalogue, const DriverApi& api,
                    PreparedCommand& out, QString* error) {
    PreparedCommand p;
    const QString& cmd = cl.command;
    if (cmd == QLatin1String("watch") || cmd == QLatin1String("read") || cmd == QLatin1String("serve")) {
        for (const QString& a : cl.args) {
            Address address;
            if (!parseAddress(catalogue, api, a, Access::Read, address, error)) return false;
            p.addresses.push_back(address);
        }
        p.forText = cl.forText;
    } else if (cmd == QLatin1String("write")) {
        for (const QString& a : cl.args) {
            WriteRequest w;
            if (!parseWriteArgument(catalogue, api, a, w, error)) return false;
            p.writes.push_back(w);
        }
    } else if (cmd == QLatin1String("gateway")) {
        for (const QString& a : cl.args) {
            GatewayMap m;
            if (!parseGatewayMap(catalogue, api, a, m, error)) return false;
            p.maps.push_back(m);
        }
        if (!checkGatewayMaps(p.maps, error)) return false;
    } else if (cmd.startsWith(QLatin1String("recipe-"))) {
        p.file = cl.args.first();
        p.output = cl.outputPath;
        const bool download = cmd == QLatin1String("recipe-download");
        if (!readRecipeFile(catalogue, api, p.file, download, p.rows, error)) return false;
    }
    out = p;
    return true;
}

void printValues(const Address& address, const std::vector<uint32_t>& values) {
    for (size_t i = 0; i < values.size(); ++i)
        printLine(address.unitName(static_cast<int>(i)) + QStringLiteral(" = ") +
                  formatValue(*address.reg, values[i]));
}

int runInfo(const DriverApi& api, const Catalogue& catalogue) {
    QString parameter, page;
    int type = -1;
    api.getDriverParameter(parameter);
    api.getDriverPropertyPage(page);
    api.getProtocolType(&type);
    printLine(QStringLiteral("driver:         ") + QString::fromStdString(api.path));
    printLine(QStringLiteral("version:        ") + api.getVersion());
    printLine(QStringLiteral("parameters:     ") + parameter);
    printLine(QStringLiteral("protocol type:  ") + QString::number(type));
    printLine(QStringLiteral("property page:  ") + page);
    printLine(QStringLiteral("registers (%1):").arg(catalogue.registers().size()));
    printLine(QStringLiteral("  %1 %2 %3 %4 %5 %6")
                  .arg(QStringLiteral("NAME"), -8)
                  .arg(QStringLiteral("FORMAT"), -10)
                  .arg(QStringLiteral("MIN"), -6)
                  .arg(QStringLiteral("MAX"), -10)
                  .arg(QStringLiteral("SIZE"), -7)
                  .arg(QStringLiteral("ACCESS")));
    for (const RegisterInfo& r : catalogue.registers()) {
        printLine(QStringLiteral("  %1 %2 %3 %4 %5 %6")
                      .arg(r.name, -8)
                      .arg(r.format, -10)
                      .arg(r.min, -6)
                      .arg(r.max, -10)
                      .arg(sizeText(r.unit()), -7)
                      .arg(r.writable() ? QStringLiteral("read/write") : QStringLiteral("read only")));
    }
    return 0;
}

int runWatch(Session& session, const PreparedCommand& cmd, double forSeconds) {
    Watcher watcher(session, cmd.addresses);
    session.onLinkEvent([&](LinkEvent e, const std::string& text) {
        if (e == LinkEvent::Lost)
            printLine(timeStamp() + QStringLiteral("  link lost: ") + QString::fromStdString(text));
        else if (e == LinkEvent::Connected)
            printLine(timeStamp() + QStringLiteral("  connected: ") + QString::fromStdString(text));
        else if (e == LinkEvent::NotAController)
            printLine(timeStamp() + QStringLiteral("  ") + QString::fromStdString(text));
    });
    const int blocks = watcher.registerAll();
    printLine(QStringLiteral("watching %1 address(es) in %2 read block(s) over %3%4")
                  .arg(cmd.addresses.size())
                  .arg(blocks)
                  .arg(QString::fromStdString(session.linkDescription()))
                  .arg(forSeconds > 0 ? QStringLiteral(" for %1 s").arg(cmd.forText)
                                      : QStringLiteral("; Ctrl-C stops")));
    const int attempts = session.options().retries;
    auto printEvents = [&] {
        for (const Watcher::BlockEvent& e : watcher.takeBlockEvents())
            printLine(timeStamp() + QStringLiteral("  ") + e.block +
                      (e.failing ? QStringLiteral(" failing: no valid reply after %1 attempt%2")
                                       .arg(attempts)
                                       .arg(attempts == 1 ? "" : "s")
                                 : QStringLiteral(" read again")));
    };
    auto print = [&](const std::vector<Watcher::Change>& changes) {
        for (const Watcher::Change& c : changes)
            printLine(timeStamp() + QStringLiteral("  ") + c.address->unitName(c.unit) +
                      QStringLiteral(" = ") + formatValue(*c.address->reg, c.value));
    };
    SteadyClock clock;
    const Micros started = clock.now();
    auto remaining = [&]() -> double {
        if (forSeconds <= 0) return 0;
        const double left = forSeconds - static_cast<double>(clock.now() - started) / 1e6;
        return left > 1e-3 ? left : 1e-3;
    };
    // The first values come with the first pass over the read blocks; units
    // of blocks that failed come when they are first read.
    Session::RunResult r = session.runUntil(
        [&] {
            printEvents();
            return watcher.cyclicReads() >= blocks;
        },
        remaining(), true);
    if (r == Session::RunResult::Done) {
        print(watcher.snapshot());
        r = session.runUntil(
            [&] {
                printEvents();
                print(watcher.takeChanges());
                return false;
            },
            remaining(), true);
    }
    if (r == Session::RunResult::OutputClosed) return 0;
    if (watcher.allRead()) return 0;
    const QString unread = watcher.unreadText();
    if (!unread.isEmpty()) printError(QStringLiteral("never read: ") + unread);
    return 1;
}

int runRead(Session& session, const PreparedCommand& cmd) {
    int status = 0;
    for (size_t i = 0; i < cmd.addresses.size(); ++i) {
        const Address& a = cmd.addresses[i];
        const ReadResult r = readAddress(session, a);
        if (r.run == Session::RunResult::OutputClosed) return 0;
        if (r.ok) {
            printValues(a, r.values);
            continue;
        }
        printError(QStringLiteral("read %1 failed: %2").arg(a.text, r.message));
        status = 1;
        if (r.run != Session::RunResult::Done) {
            QStringList rest;
            for (size_t j = i + 1; j < cmd.addresses.size(); ++j) rest << cmd.addresses[j].text;
            if (!rest.isEmpty()) printError(QStringLiteral("not read: ") + rest.join(QStringLiteral(", ")));
            break;
        }
    }
    return status;
}

int runWrite(Session& session, const PreparedCommand& cmd) {
    Session::RunResult run;
    const std::vector<WriteResult> results = writeAll(session, cmd.writes, &run);
    if (run == Session::RunResult::OutputClosed) return 0;
    const bool local = session.options().localWriteOnly;
    int status = 0;
    for (size_t i = 0; i < results.size(); ++i) {
        const WriteRequest& w = cmd.writes[i];
        if (results[i].ok) {
            if (local)
                printLine(QStringLiteral("%1 = %2 shown locally, not sent (local write only)")
                              .arg(w.address.text, valuesText(w)));
            else
                printLine(QStringLiteral("wrote %1 = %2").arg(w.address.text, valuesText(w)));
        } else {
            printError(QStringLiteral("write %1 failed: %2").arg(w.address.text, results[i].message));
            status = 1;
        }
    }
    return status;
}

int runRecipeDownload(Session& session, const PreparedCommand& cmd) {
    const RecipeResult r = recipeDownload(session, cmd.rows);
    if (r.run == Session::RunResult::OutputClosed) return 0;
    if (!r.ok) {
        printError(QStringLiteral("recipe download failed: ") + r.message);
        return 1;
    }
    // Every row was transferred: rows naming a unit twice are refused before.
    int values = 0;
    for (const RecipeRow& row : cmd.rows) values += static_cast<int>(row.values.size());
    printLine(QStringLiteral("recipe downloaded: %1 row(s), %2 value(s) from %3")
                  .arg(cmd.rows.size())
                  .arg(values)
                  .arg(cmd.file));
    return 0;
}

int runRecipeUpload(Session& session, PreparedCommand& cmd) {
    const RecipeResult r = recipeUpload(session, cmd.rows);
    if (r.run == Session::RunResult::OutputClosed) return 0;
    if (!r.ok) {
        printError(QStringLiteral("recipe upload failed: ") + r.message);
        return 1;
    }
    const QString text = formatRecipe(cmd.rows);
    printRaw(text.toStdString());
    if (cmd.output.isEmpty()) return 0;
    // Written whole or not at all: a failed write leaves the file as it was.
    QSaveFile file(cmd.output);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit()) {
        printError(QStringLiteral("cannot write %1: %2").arg(cmd.output, file.errorString()));
        return 1;
    }
    printLine(
        QStringLiteral("recipe uploaded: %1 row(s) written to %2").arg(cmd.rows.size()).arg(cmd.output));
    return 0;
}

}  // namespace kvhost
