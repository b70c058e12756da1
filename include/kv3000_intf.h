// Runtime side of libkv_3000.so: the records, the change callback type and
// the exported functions, all with C linkage and unmangled names.
//
// Threading contract
// ------------------
// Every intf_ function may be called from any thread at any time. The
// communication loop (intf_getSendFrame / intf_dealRcvFrame) is meant to run
// on one thread, alternating; screens may call intf_setData, intf_getData,
// intf_addConditionRead, intf_addrMerge and intf_setRcpAddress concurrently
// from others. The driver serialises its state with one recursive lock, so
// the change callback (which always runs synchronously inside the driver call
// that noticed the change) may itself call intf_getData, intf_setData and
// intf_addConditionRead. The callback runs with that lock held (never with
// the driver's write-queue lock or the shared-memory mutex): it must not wait
// for another thread that is itself calling into the driver. Do not call into
// the driver while holding the shared-memory mutex handed to
// intf_initProperty: the driver takes that mutex only to read or clear the two
// recipe request bytes.
//
// Result codes
// ------------
// intf_getSendFrame: 1 a frame was copied out, 0 nothing to send.
// intf_dealRcvFrame: 0 no frame outstanding, 1 reply accepted, 2 retries used
//   up and the transaction abandoned (message names the frame), 8 reply
//   rejected, the same frame is handed out again.
// intf_checkAddr / intf_checkAddrValidity: 0 valid, 1 wrong kind (bit/word),
//   2 out of range, 3 unknown register, 4 malformed address text,
//   5 data type not allowed for a 32-bit register, 6 register is read-only.
// intf_multiCopy: 0 unknown register, 1 done, 2 clipped at the highest address.
#ifndef KV3000_INTF_H
#define KV3000_INTF_H

#include "kv3000_records.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

class QMutex;

// The runtime's change report: (context, station, register name, address).
// Value reports pass (protocolId, station, name, unit address); recipe words
// read pass (0, -1, "RWI", buffer word); the end of the last condition read
// passes (-1, -1, "-1", 0 on success or -1 on failure).
typedef void (*ValueChangeCallBack)(int, int, const QString&, int);

// The result codes by name. The functions return them as int.
enum KvDealResult {
    KV_DEAL_IDLE = 0,       // no frame was outstanding
    KV_DEAL_ACCEPTED = 1,   // reply accepted
    KV_DEAL_ABANDONED = 2,  // retries used up, transaction abandoned
    KV_DEAL_RETRY = 8,      // reply rejected, the same frame is handed out again
};
enum KvAddrCheck {
    KV_ADDR_OK = 0,
    KV_ADDR_WRONG_KIND = 1,  // bit access to a word register or the other way round
    KV_ADDR_OUT_OF_RANGE = 2,
    KV_ADDR_UNKNOWN_REGISTER = 3,
    KV_ADDR_MALFORMED = 4,      // the address text cannot be read
    KV_ADDR_BAD_DATA_TYPE = 5,  // data type not allowed for a 32-bit register
    KV_ADDR_READ_ONLY = 6,
};
// FRAME_PRO::id of every frame of a cyclic read block; the frames of writes and
// condition reads carry the id the runtime gave intf_setData or intf_addConditionRead.
enum { KV_CYCLIC_READ_ID = 4 };
enum KvMultiCopyResult {
    KV_COPY_UNKNOWN_REGISTER = 0,
    KV_COPY_DONE = 1,
    KV_COPY_CLIPPED = 2,  // clipped at the register's highest address
};

#define KV_EXPORT extern "C" __attribute__((visibility("default")))

KV_EXPORT int intf_initProperty(unsigned char* shareMemory, void* initArg2, unsigned short* recipeBuffer,
                                int* status, const char* parameter, QMutex* shareMutex);
KV_EXPORT void intf_getProtocolType(int* type);
KV_EXPORT void intf_getDriverParameter(QString& out);
KV_EXPORT void intf_getDriverPropertyPage(QString& out);
KV_EXPORT void intf_SetDriverPropertyPage(const QString& page);
KV_EXPORT void intf_setAddrValueChangeCallBack(ValueChangeCallBack callback);
KV_EXPORT QString intf_getVersion();

KV_EXPORT int intf_getSendFrame(FRAME_PRO* out);
KV_EXPORT int intf_dealRcvFrame(QByteArray* reply, QString* message);

KV_EXPORT int intf_getRegListByType(int type, QList<QString>& names);
KV_EXPORT int intf_getRegDiscription(const QString& name, QList<QString>& description);
KV_EXPORT int intf_checkAddrValidity(const QString& reg, const QString& text, int& address, int length,
                                     int wordAccess);
KV_EXPORT int intf_checkAddr(const QString& reg, const QString& text, int& address, int dataType, int length,
                             int accessMode);
KV_EXPORT int intf_multiCopy(QString reg, int start, int count, int step, QVector<QString>& texts,
                             QVector<int>& addresses);

KV_EXPORT int intf_addrMerge(QList<KEY_ADDRESS>& keys);
KV_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO>& entries);

KV_EXPORT int intf_getData(int station, QString reg, int address, int len, unsigned char* data);
KV_EXPORT int intf_setData(int station, QString* reg, int address, int length, unsigned char* data, int id);
KV_EXPORT int intf_addConditionRead(const KEY_ADDRESS& key, int id);

#endif
