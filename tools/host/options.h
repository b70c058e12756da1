// The fixed command line of kv3000-host.
#ifndef KV3000_HOST_OPTIONS_H
#define KV3000_HOST_OPTIONS_H

#include "session.h"

#include <QString>
#include <QStringList>

#include <string>

namespace kvhost {

// serve: where the web HMI listens, and whether it may write.
struct ServeOptions {
    std::string host = "127.0.0.1";
    uint16_t port = 8080;  // 0: a free one
    bool allowWrites = false;
};

// gateway: where the Modbus server listens, which unit id it answers, and
// whether it may write.
struct GatewayOptions {
    std::string host = "127.0.0.1";  // an IPv4 address
    uint16_t port = 5020;            // 0: a free one
    int unit = -1;                   // -1: every unit id
    bool allowWrites = false;
};

struct CommandLine {
    HostOptions host;
    bool linkGiven = false;
    std::string driverPath;  // empty: the default driver
    QString command = QStringLiteral("demo");
    QStringList args;
    double forSeconds = 0;  // watch --for; 0 = until interrupted
    ServeOptions serve;
    GatewayOptions gateway;
    QString forText;     // --for as typed
    QString outputPath;  // recipe-upload --output; empty: standard output
    bool help = false;
    std::string capturePath;      // --capture: every frame into this pcap file
    std::string replayCheckPath;  // --replay-check: the sent frames compared with this capture's
};

// arguments includes the program name first. false with a message on a
// usage error (exit status 2).
bool parseCommandLine(const QStringList& arguments, CommandLine& out, QString* error);

// The manual page printed by --help.
const char* helpText();

}  // namespace kvhost

#endif
