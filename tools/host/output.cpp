#include "output.h"

#include <QTime>

#include <cstdio>

namespace kvhost {

void printLine(const QString& line) {
    printLine(line.toStdString());
}

void printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void printRaw(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void printTrace(const std::string& text) {
    std::fflush(stdout);
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

void printError(const QString& line) {
    printError(line.toStdString());
}

void printError(const std::string& line) {
    std::fflush(stdout);
    std::fprintf(stderr, "kv3000-host: %s\n", line.c_str());
    std::fflush(stderr);
}

QString timeStamp() {
    return QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"));
}

}  // namespace kvhost
