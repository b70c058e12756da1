// kv3000-host: plays the HMI runtime. For now it loads the driver as a
// runtime would and prints its identity.
#include "kv3000_intf.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTextStream>

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QString libPath = QCoreApplication::applicationDirPath() + QStringLiteral("/../libkv_3000.so");
    void* lib = dlopen(QFileInfo(libPath).absoluteFilePath().toLocal8Bit().constData(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "kv3000-host: cannot load the driver: %s\n", dlerror());
        return 1;
    }
    auto getVersion = reinterpret_cast<QString (*)()>(dlsym(lib, "intf_getVersion"));
    auto getParameter = reinterpret_cast<void (*)(QString&)>(dlsym(lib, "intf_getDriverParameter"));
    auto getRegList = reinterpret_cast<int (*)(int, QList<QString>&)>(dlsym(lib, "intf_getRegListByType"));
    if (!getVersion || !getParameter || !getRegList) {
        std::fprintf(stderr, "kv3000-host: the driver lacks an intf_ export\n");
        return 1;
    }
    QTextStream out(stdout);
    QString parameter;
    getParameter(parameter);
    QList<QString> bits, words;
    getRegList(0, bits);
    getRegList(1, words);
    out << "driver:     " << libPath << "\n"
        << "version:    " << getVersion() << "\n"
        << "parameters: " << parameter << "\n"
        << "bit registers:  " << QStringList(bits).join(QLatin1Char(' ')) << "\n"
        << "word registers: " << QStringList(words).join(QLatin1Char(' ')) << "\n";
    return 0;
}
