// kv3000-host: the reference HMI runtime. Loads the driver with dlopen, runs
// the communication loop over TCP, a serial line or an embedded simulator,
// and carries out one command.
#include "capture.h"
#include "commands.h"
#include "driver_loader.h"
#include "gateway.h"
#include "options.h"
#include "output.h"
#include "serve.h"
#include "session.h"

#include <QCoreApplication>

#include <signal.h>

#include <atomic>
#include <cstdio>

namespace {

std::atomic<bool> gStop{false};
bool gTraceDriver = false;

void onSignal(int) {
    gStop = true;
}

// The driver's progress lines go to the Qt debug output; they are shown
// only with --trace.
void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtDebugMsg || type == QtInfoMsg) {
        if (gTraceDriver) kvhost::printTrace("   driver: " + message.toStdString() + "\n");
        return;
    }
    std::fprintf(stderr, "kv3000-host: qt: %s\n", message.toLocal8Bit().constData());
}

int usage(const QString& why) {
    kvhost::printError(why);
    std::fprintf(stderr, "Try 'kv3000-host --help'.\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace kvhost;

    CommandLine cl;
    QString why;
    if (!parseCommandLine(QCoreApplication::arguments(), cl, &why)) return usage(why);
    if (cl.help) {
        std::fputs(helpText(), stdout);
        return 0;
    }
    gTraceDriver = cl.host.trace;
    qInstallMessageHandler(messageHandler);

    const std::string driverPath =
        cl.driverPath.empty() ? defaultDriverPath(QCoreApplication::applicationDirPath().toStdString())
                              : cl.driverPath;
    static DriverApi api;
    std::string error;
    if (!loadDriver(driverPath, api, &error)) {
        printError(error);
        return 1;
    }
    const Catalogue catalogue(api);
    if (cl.command == QLatin1String("info")) return runInfo(api, catalogue);

    PreparedCommand prepared;
    if (!prepareCommand(cl, catalogue, api, prepared, &why)) {
        printError(why);
        return 2;
    }

    HostCapture capture;
    if (!capture.prepare(cl, &error)) {
        printError(error);
        return 2;
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Session session(api, cl.host);
    if (!session.start(&error)) {
        printError(error);
        return 1;
    }
    session.setStopFlag(&gStop);
    capture.attach(session);

    int status = 0;
    const QString& cmd = cl.command;
    if (cmd == QLatin1String("watch"))
        status = runWatch(session, prepared, cl.forSeconds);
    else if (cmd == QLatin1String("read"))
        status = runRead(session, prepared);
    else if (cmd == QLatin1String("write"))
        status = runWrite(session, prepared);
    else if (cmd == QLatin1String("recipe-download"))
        status = runRecipeDownload(session, prepared);
    else if (cmd == QLatin1String("recipe-upload"))
        status = runRecipeUpload(session, prepared);
    else if (cmd == QLatin1String("serve"))
        status = runServe(session, catalogue, prepared, cl.serve);
    else if (cmd == QLatin1String("gateway"))
        status = runGateway(session, prepared, cl.gateway);
    else
        status = runDemo(session, catalogue);
    status = capture.finish(status);
    // A closed output ends a command without a failure; it gets no summary.
    if (outputClosed()) {
        if (outputError().empty()) return 0;
        printError("cannot write the results: " + outputError());
        return 1;
    }
    // Without --output, recipe-upload's standard output is the recipe itself.
    if (cmd == QLatin1String("recipe-upload") && cl.outputPath.isEmpty())
        printError(session.stats().summary());
    else
        session.printSummary();
    return status;
}
