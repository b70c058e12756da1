// Where the host prints: results and traces on stdout, problems on stderr,
// one whole line at a time.
#ifndef KV3000_HOST_OUTPUT_H
#define KV3000_HOST_OUTPUT_H

#include <QString>

#include <string>

namespace kvhost {

void printLine(const QString& line);
void printLine(const std::string& line);
void printRaw(const std::string& text);  // already ends in '\n'
// "kv3000-host: <line>" on stderr.
void printError(const QString& line);
void printError(const std::string& line);
// "12:34:56.789", local time.
QString timeStamp();

}  // namespace kvhost

#endif
