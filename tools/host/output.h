// Where the host prints: results on stdout, traces and problems on stderr,
// one whole line at a time.
#ifndef KV3000_HOST_OUTPUT_H
#define KV3000_HOST_OUTPUT_H

#include <QString>

#include <string>

namespace kvhost {

void printLine(const QString& line);
void printLine(const std::string& line);
void printRaw(const std::string& text);  // already ends in '\n'
// Trace lines (already ending in '\n') on stderr, apart from the results.
void printTrace(const std::string& text);
// "kv3000-host: <line>" on stderr.
void printError(const QString& line);
void printError(const std::string& line);
// The results cannot go anywhere any more: standard output is a pipe whose
// reader has gone, or a write to it failed. Nothing more is written to it.
bool outputClosed();
// Why a write failed other than by a closed pipe ("No space left on device"),
// or empty.
std::string outputError();
// "12:34:56.789", local time.
QString timeStamp();
// "12:34:56.789  text" from any thread: on stdout, or on stderr for a problem.
// The threads that log take turns: localtime's time-zone state is guarded by
// a lock inside the C library that a thread checker cannot see.
void logLine(const QString& text, bool error);

}  // namespace kvhost

#endif
