// A library that looks like a driver but lacks most exports: the loader must refuse it and name them.
#include "kv3000_intf.h"

QString intf_getVersion() {
    return QStringLiteral("0.0");
}
