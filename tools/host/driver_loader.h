// Loads libkv_3000.so as an HMI runtime does: dlopen, then every intf_
// export by its unmangled name. The host never links the driver.
#ifndef KV3000_HOST_DRIVER_LOADER_H
#define KV3000_HOST_DRIVER_LOADER_H

#include "kv3000_intf.h"

#include <string>
#include <vector>

namespace kvhost {

struct DriverApi {
    decltype(&intf_initProperty) initProperty = nullptr;
    decltype(&intf_getProtocolType) getProtocolType = nullptr;
    decltype(&intf_getDriverParameter) getDriverParameter = nullptr;
    decltype(&intf_getDriverPropertyPage) getDriverPropertyPage = nullptr;
    decltype(&intf_SetDriverPropertyPage) setDriverPropertyPage = nullptr;
    decltype(&intf_setAddrValueChangeCallBack) setAddrValueChangeCallBack = nullptr;
    decltype(&intf_getVersion) getVersion = nullptr;
    decltype(&intf_getSendFrame) getSendFrame = nullptr;
    decltype(&intf_dealRcvFrame) dealRcvFrame = nullptr;
    decltype(&intf_getRegListByType) getRegListByType = nullptr;
    decltype(&intf_getRegDiscription) getRegDiscription = nullptr;
    decltype(&intf_checkAddrValidity) checkAddrValidity = nullptr;
    decltype(&intf_checkAddr) checkAddr = nullptr;
    decltype(&intf_multiCopy) multiCopy = nullptr;
    decltype(&intf_addrMerge) addrMerge = nullptr;
    decltype(&intf_setRcpAddress) setRcpAddress = nullptr;
    decltype(&intf_getData) getData = nullptr;
    decltype(&intf_setData) setData = nullptr;
    decltype(&intf_addConditionRead) addConditionRead = nullptr;

    std::string path;  // the file that was loaded
};

// Opens the library and resolves every export. On failure returns false and
// error says why: the dlopen message, or the names of the missing exports.
// A loaded library stays loaded for the life of the process.
bool loadDriver(const std::string& path, DriverApi& api, std::string* error);

// Where the default driver is looked for, in order: the build tree beside
// the executable, the installed library directory, then the soname through
// the loader's own search path.
std::vector<std::string> defaultDriverCandidates(const std::string& executableDir);

// The first candidate that exists (the soname when none does).
std::string defaultDriverPath(const std::string& executableDir);

}  // namespace kvhost

#endif
