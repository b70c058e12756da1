// The demo: a short tour of the driver against the embedded simulator with
// live values.
#include "commands.h"
#include "output.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace kvhost {

namespace {

constexpr double kWatchSeconds = 3.0;
constexpr double kStatusEvery = 0.5;

bool writeText(const QString& path, const QString& text) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text.toUtf8()) >= 0;
}

class Demo {
public:
    Demo(Session& session, const Catalogue& catalogue) : session_(session), catalogue_(catalogue) {}

    int run() {
        const DriverApi& api = session_.api();
        printLine(QStringLiteral("kv3000-host demo: driver %1 %2 (%3)")
                      .arg(QStringLiteral("kv_3000"), api.getVersion(), QString::fromStdString(api.path)));
        printLine(QStringLiteral("link: ") + QString::fromStdString(session_.linkDescription()));
        // A closed output ends the tour between its steps.
        watch();
        if (outputClosed()) return 0;
        if (session_.stats().accepted() == 0) return 1;
        for (void (Demo::*step)() : {&Demo::write, &Demo::recipe, &Demo::readBack}) {
            (this->*step)();
            if (outputClosed()) return 0;
        }
        const QString local = session_.options().localWriteOnly
                                  ? QStringLiteral(
                                        "; the writes of step 2 were shown locally, not sent (local "
                                        "write only)")
                                  : QString();
        printLine(failures_ == 0 ? QStringLiteral("demo done: every value read back as written") + local
                                 : QStringLiteral("demo done with %1 failure(s)").arg(failures_));
        return failures_ == 0 ? 0 : 1;
    }

private:
    Address address(const QString& text, Access access) {
        Address a;
        QString why;
        if (!parseAddress(catalogue_, session_.api(), text, access, a, &why)) {
            printError(why);
            ++failures_;
        }
        return a;
    }

    void watch() {
        printLine(QString());
        printLine(
            QStringLiteral("1. watch DM0 (counts), DM1 (sine 0-1000), T0 and TC0 (a timer running to 50),"));
        printLine(QStringLiteral("   R0.00 (toggles every second) for %1 s").arg(kWatchSeconds));
        std::vector<Address> list;
        for (const char* t : {"DM0", "DM1", "T0", "TC0", "R0.00"})
            list.push_back(address(QLatin1String(t), Access::Read));
        if (failures_) return;
        Watcher watcher(session_, list);
        const int blocks = watcher.registerAll();
        std::map<QString, uint32_t> values;
        int changes = 0;
        auto take = [&](const std::vector<Watcher::Change>& cs) {
            for (const Watcher::Change& c : cs) values[c.address->unitName(c.unit)] = c.value;
            return static_cast<int>(cs.size());
        };
        SteadyClock clock;
        const Micros started = clock.now();
        session_.runUntil([&] { return watcher.cyclicReads() >= blocks; }, kWatchSeconds, true);
        take(watcher.snapshot());
        for (double t = kStatusEvery; t <= kWatchSeconds + 1e-9; t += kStatusEvery) {
            const double left = t - static_cast<double>(clock.now() - started) / 1e6;
            session_.runUntil(
                [&] {
                    changes += take(watcher.takeChanges());
                    return false;
                },
                left > 1e-3 ? left : 1e-3, true);
            QString line = QStringLiteral("   +%1 s ").arg(t, 0, 'f', 1);
            for (const Address& a : list)
                line += QStringLiteral("  %1=%2").arg(a.unitName(0)).arg(values[a.unitName(0)]);
            printLine(line);
        }
        printLine(QStringLiteral("   %1 change(s) reported through the callback").arg(changes));
        // Stop the cyclic reads for the rest of the tour.
        QList<KEY_ADDRESS> none;
        session_.api().addrMerge(none);
        session_.onChange(nullptr);
    }

    void write() {
        printLine(QString());
        printLine(QStringLiteral("2. write DM100:3=11,22,33 MR_bit10.05=1 TS5=2500"));
        std::vector<WriteRequest> writes;
        for (const char* t : {"DM100:3=11,22,33", "MR_bit10.05=1", "TS5=2500"}) {
            WriteRequest w;
            QString why;
            if (!parseWriteArgument(catalogue_, session_.api(), QLatin1String(t), w, &why)) {
                printError(why);
                ++failures_;
                return;
            }
            writes.push_back(w);
            expected_.push_back({w.address, w.values});
        }
        Session::RunResult run;
        const std::vector<WriteResult> results = writeAll(session_, writes, &run);
        for (size_t i = 0; i < results.size(); ++i) {
            if (results[i].ok) {
                QStringList v;
                for (uint32_t x : writes[i].values) v << QString::number(x);
                const QString line =
                    session_.options().localWriteOnly
                        ? QStringLiteral("   %1 = %2 shown locally, not sent (local write only)")
                        : QStringLiteral("   wrote %1 = %2");
                printLine(line.arg(writes[i].address.text, v.join(QLatin1Char(','))));
            } else {
                printError(
                    QStringLiteral("write %1 failed: %2").arg(writes[i].address.text, results[i].message));
                ++failures_;
            }
        }
    }

    void recipe() {
        printLine(QString());
        QTemporaryDir dir;
        const QString down = dir.path() + QStringLiteral("/download.csv");
        const QString up = dir.path() + QStringLiteral("/upload.csv");
        const QString text = QStringLiteral("DM200,1,2,3\nTC10,100000\n");
        printLine(QStringLiteral("3. recipe download of %1: DM200,1,2,3 and TC10,100000")
                      .arg(QDir::toNativeSeparators(down)));
        std::vector<RecipeRow> rows;
        QString why;
        if (!writeText(down, text) || !readRecipeFile(catalogue_, session_.api(), down, true, rows, &why)) {
            printError(QStringLiteral("recipe: ") + why);
            ++failures_;
            return;
        }
        RecipeResult r = recipeDownload(session_, rows);
        if (!r.ok) {
            printError(QStringLiteral("recipe download failed: ") + r.message);
            ++failures_;
            return;
        }
        printLine(QStringLiteral("   downloaded"));
        for (const RecipeRow& row : rows) expected_.push_back({row.address, row.values});

        printLine(QStringLiteral("   recipe upload of DM200:3 and TC10 into %1:")
                      .arg(QDir::toNativeSeparators(up)));
        std::vector<RecipeRow> back;
        if (!writeText(up, QStringLiteral("DM200:3\nTC10\n")) ||
            !readRecipeFile(catalogue_, session_.api(), up, false, back, &why)) {
            printError(QStringLiteral("recipe: ") + why);
            ++failures_;
            return;
        }
        r = recipeUpload(session_, back);
        if (!r.ok) {
            printError(QStringLiteral("recipe upload failed: ") + r.message);
            ++failures_;
            return;
        }
        writeText(up, formatRecipe(back));
        for (const QString& line : formatRecipe(back).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            printLine(QStringLiteral("   ") + line);
        if (formatRecipe(back) != text) {
            printError(QStringLiteral("the uploaded recipe differs from the downloaded one"));
            ++failures_;
        }
    }

    void readBack() {
        printLine(QString());
        printLine(QStringLiteral("4. read back with condition reads"));
        for (const auto& e : expected_) {
            const ReadResult r = readAddress(session_, e.first);
            if (!r.ok) {
                printError(QStringLiteral("read %1 failed: %2").arg(e.first.text, r.message));
                ++failures_;
                continue;
            }
            for (size_t i = 0; i < r.values.size(); ++i) {
                const bool same = i < e.second.size() && e.second[i] == r.values[i];
                printLine(QStringLiteral("   %1 = %2%3")
                              .arg(e.first.unitName(static_cast<int>(i)),
                                   formatValue(*e.first.reg, r.values[i]),
                                   same ? QString() : QStringLiteral("  (expected %1)").arg(e.second[i])));
                if (!same) ++failures_;
            }
        }
        printLine(QString());
    }

    Session& session_;
    const Catalogue& catalogue_;
    std::vector<std::pair<Address, std::vector<uint32_t>>> expected_;
    int failures_ = 0;
};

}  // namespace

int runDemo(Session& session, const Catalogue& catalogue) {
    return Demo(session, catalogue).run();
}

}  // namespace kvhost
