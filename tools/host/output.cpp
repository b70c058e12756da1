#include "output.h"

#include <QTime>

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace kvhost {

namespace {

bool gClosed = false;
std::string gError;

// Writes text to stdout unless it is closed; a failed write closes it.
void emit(const char* text) {
    if (gClosed) return;
    std::fputs(text, stdout);
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return;
    if (errno != EPIPE) gError = std::strerror(errno);
    gClosed = true;
}

}  // namespace

bool outputClosed() {
    // A pipe whose reader has gone shows an error condition before anything is written to it.
    pollfd p{STDOUT_FILENO, 0, 0};
    if (!gClosed && ::poll(&p, 1, 0) == 1 && (p.revents & POLLERR)) gClosed = true;
    return gClosed;
}

std::string outputError() {
    return gError;
}

void printLine(const QString& line) {
    printLine(line.toStdString());
}

void printLine(const std::string& line) {
    emit((line + "\n").c_str());
}

void printRaw(const std::string& text) {
    emit(text.c_str());
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

void logLine(const QString& text, bool error) {
    static std::mutex logMutex;
    std::lock_guard<std::mutex> lock(logMutex);
    const QString line = timeStamp() + QStringLiteral("  ") + text;
    if (error)
        printError(line);
    else
        printRaw((line + QLatin1Char('\n')).toStdString());
}

}  // namespace kvhost
