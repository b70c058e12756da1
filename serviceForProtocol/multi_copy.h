#ifndef KV3000_MULTI_COPY_H
#define KV3000_MULTI_COPY_H

#include <QString>
#include <QVector>

int multiCp(QString reg, QString format, int start, int count, int step, QVector<QString>& texts,
            QVector<int>& addresses, int maxAddress, QString maxText);

#endif
