#include "runtime.h"

#include <QMutexLocker>

namespace kvhost {

Runtime* Runtime::current_ = nullptr;

Runtime::Runtime(const DriverApi& api)
    : api_(api), shareMemory_(kShareMemorySize, 0), recipe_(kRecipeWords, 0) {
    current_ = this;
}

Runtime::~Runtime() {
    if (api_.setAddrValueChangeCallBack) api_.setAddrValueChangeCallBack(nullptr);
    if (current_ == this) current_ = nullptr;
}

void Runtime::init(const std::string& parameters) {
    api_.initProperty(shareMemory_.data(), nullptr, recipe_.data(), &status_, parameters.c_str(),
                      &shareMutex_);
    api_.setAddrValueChangeCallBack(&Runtime::onChange);
}

void Runtime::onChange(int context, int station, const QString& name, int address) {
    Runtime* self = current_;
    if (self && self->handler_) self->handler_(context, station, name, address);
}

void Runtime::setShareByte(int position, unsigned char value) {
    QMutexLocker lock(&shareMutex_);
    shareMemory_[static_cast<size_t>(position)] = value;
}

unsigned char Runtime::shareByte(int position) const {
    QMutexLocker lock(&shareMutex_);
    return shareMemory_[static_cast<size_t>(position)];
}

}  // namespace kvhost
