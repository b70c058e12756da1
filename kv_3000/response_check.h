// Acceptance check of a reply against the outstanding frame (head of driver.frameList).
#ifndef KV3000_RESPONSE_CHECK_H
#define KV3000_RESPONSE_CHECK_H

#include "kv3000_records.h"

#include <QByteArray>
#include <QList>

// 0 bad reply, 1 good reply carrying values, 2 good reply without values.
// May end the handshake. frameList must not be empty.
int check_rcv_data(unsigned char* reply, QList<VARIABLE> list, int size);
// The same check, without the unused list.
int checkReply(const unsigned char* reply, int size);
int allMix_GetDataStartPosition(QByteArray reply, QList<VARIABLE> list, int n);
int allMix_GetRecvLenFromReadList(QList<VARIABLE> list);

#endif
