#ifndef KV3000_WRITE_RESULT_H
#define KV3000_WRITE_RESULT_H

#include <QString>

// Settles the units of one write request: result 1 accepted, anything else failed.
void _write_FailOrSuc(int station, QString reg, int address, int len, int result);
// The one path of a write that will not reach the controller (abandoned,
// dropped from a full queue, never sendable): its units are settled as
// failed, and one warning line names it and says why.
void failWrite(int station, const QString& reg, int address, int length, const QString& why);
// Marks the units of one monitored block; always 0.
int _setDataAreaMonitorFlag(int station, QString reg, int address, int len);

#endif
