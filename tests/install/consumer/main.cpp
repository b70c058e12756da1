// A program of an integrator: built against the installed driver only.
#include "kv3000_intf.h"

#include <cstdio>

int main() {
    const QString version = intf_getVersion();
    QString parameter;
    intf_getDriverParameter(parameter);
    const QString expectedStart = QStringLiteral("0,9600,8,EVEN,1,0,0,192.168.1.100,8000,kv_3000,MR_bit,");
    if (version != QLatin1String("2.0.0.0") || !parameter.startsWith(expectedStart)) {
        std::fprintf(stderr, "unexpected driver answers: version \"%s\", parameter \"%s\"\n",
                     qPrintable(version), qPrintable(parameter));
        return 1;
    }
    std::printf("driver %s: %s\n", qPrintable(version), qPrintable(parameter));
    return 0;
}
