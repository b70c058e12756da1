#include "runtime_fixture.h"

#include <QMutexLocker>

#include <mutex>
#include <ostream>

void PrintTo(const CallbackRecord& r, std::ostream* os) {
    *os << "(" << r.context << ", " << r.station << ", \"" << r.name.toStdString() << "\", " << r.address
        << ")";
}

std::vector<CallbackRecord>& RuntimeFixture::calls() {
    static std::vector<CallbackRecord> c;
    return c;
}

void RuntimeFixture::recordCall(int context, int station, const QString& name, int address) {
    calls().push_back({context, station, name, address});
}

void RuntimeFixture::initDriver(const char* parameters) {
    int status = -1;
    ASSERT_EQ(intf_initProperty(shm, nullptr, recipe, &status, parameters, &shareMutex), 1);
    ASSERT_EQ(status, 0);
    calls().clear();
    intf_setAddrValueChangeCallBack(&RuntimeFixture::recordCall);
}

void RuntimeFixture::requestRecipeWrite(bool on) {
    QMutexLocker l(&shareMutex);
    shm[60115] = on ? 1 : 0;
}
void RuntimeFixture::requestRecipeRead(bool on) {
    QMutexLocker l(&shareMutex);
    shm[60116] = on ? 1 : 0;
}
unsigned char RuntimeFixture::recipeWriteByte() {
    QMutexLocker l(&shareMutex);
    return shm[60115];
}
unsigned char RuntimeFixture::recipeReadByte() {
    QMutexLocker l(&shareMutex);
    return shm[60116];
}

namespace {
std::mutex captureMutex;
QStringList* captured = nullptr;
}  // namespace

DebugCapture::DebugCapture() {
    std::lock_guard<std::mutex> l(captureMutex);
    captured = new QStringList;
    previous_ = qInstallMessageHandler(&DebugCapture::handler);
}

DebugCapture::~DebugCapture() {
    qInstallMessageHandler(previous_);
    std::lock_guard<std::mutex> l(captureMutex);
    delete captured;
    captured = nullptr;
}

QStringList DebugCapture::lines() const {
    std::lock_guard<std::mutex> l(captureMutex);
    return captured ? *captured : QStringList();
}

void DebugCapture::handler(QtMsgType, const QMessageLogContext&, const QString& msg) {
    std::lock_guard<std::mutex> l(captureMutex);
    if (captured) captured->append(msg);
}
