#ifndef KV3000_RECEIVE_DISPATCH_H
#define KV3000_RECEIVE_DISPATCH_H

#include <QByteArray>
#include <QString>

QString getErrorInfo(QByteArray reply);
int dealReadFrameReturnSaveData(QByteArray reply);
void dealListWhenFinish();

#endif
