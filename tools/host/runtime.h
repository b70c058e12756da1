// What an HMI runtime owes the driver: a shared memory block with the two
// recipe request bytes, a recipe buffer, the mutex that guards the shared
// memory, the parameter string, and a change callback.
#ifndef KV3000_HOST_RUNTIME_H
#define KV3000_HOST_RUNTIME_H

#include "driver_loader.h"

#include <QMutex>
#include <QString>

#include <functional>
#include <string>
#include <vector>

namespace kvhost {

class Runtime {
public:
    static constexpr int kShareMemorySize = 65536;  // the driver uses bytes 60115 and 60116
    static constexpr int kRecipeWriteByte = 60115;
    static constexpr int kRecipeReadByte = 60116;
    static constexpr int kRecipeWords = 32768;

    using ChangeHandler = std::function<void(int context, int station, const QString& name, int address)>;

    // Only one Runtime may exist at a time: the driver is one object.
    explicit Runtime(const DriverApi& api);
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    // intf_initProperty with "1#0#0#3#10"-style parameters, then the callback.
    void init(const std::string& parameters);
    void setChangeHandler(ChangeHandler handler) { handler_ = std::move(handler); }

    // The recipe request bytes, read and written under the shared-memory mutex.
    void requestRecipeWrite() { setShareByte(kRecipeWriteByte, 1); }
    void requestRecipeRead() { setShareByte(kRecipeReadByte, 1); }
    bool recipeWritePending() const { return shareByte(kRecipeWriteByte) != 0; }
    bool recipeReadPending() const { return shareByte(kRecipeReadByte) != 0; }

    unsigned short* recipeBuffer() { return recipe_.data(); }
    const DriverApi& api() const { return api_; }

private:
    static void onChange(int context, int station, const QString& name, int address);
    void setShareByte(int position, unsigned char value);
    unsigned char shareByte(int position) const;

    static Runtime* current_;
    const DriverApi& api_;
    std::vector<unsigned char> shareMemory_;
    std::vector<unsigned short> recipe_;
    mutable QMutex shareMutex_;
    int status_ = 0;
    ChangeHandler handler_;
};

}  // namespace kvhost

#endif
