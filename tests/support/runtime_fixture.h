// What the tests need of an HMI runtime: shared memory, a recipe buffer, the
// shared-memory mutex, a recording change callback, and a capture of the
// driver's Qt debug lines.
#ifndef KV3000_TEST_RUNTIME_FIXTURE_H
#define KV3000_TEST_RUNTIME_FIXTURE_H

#include "protocol.h"

#include <QMutex>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <vector>

struct CallbackRecord {
    int context;
    int station;
    QString name;
    int address;
    bool operator==(const CallbackRecord& o) const {
        return context == o.context && station == o.station && name == o.name && address == o.address;
    }
};
void PrintTo(const CallbackRecord& r, std::ostream* os);

// The runtime's side of one test: initialises the driver with `parameters`
// and records every change report.
class RuntimeFixture : public ::testing::Test {
protected:
    void SetUp() override { initDriver("1#0#0#3#10"); }
    void TearDown() override { intf_setAddrValueChangeCallBack(nullptr); }

    void initDriver(const char* parameters);
    // Bytes 60115 / 60116: recipe write / read requests.
    void requestRecipeWrite(bool on);
    void requestRecipeRead(bool on);
    unsigned char recipeWriteByte();
    unsigned char recipeReadByte();

    static std::vector<CallbackRecord>& calls();
    static void recordCall(int context, int station, const QString& name, int address);

    unsigned char shm[60117] = {};
    unsigned short recipe[4096] = {};
    QMutex shareMutex;
};

// Collects the lines written to the Qt debug output while it lives.
class DebugCapture {
public:
    DebugCapture();
    ~DebugCapture();
    QStringList lines() const;

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& msg);
    QtMessageHandler previous_;
};

#endif
