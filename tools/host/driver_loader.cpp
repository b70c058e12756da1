#include "driver_loader.h"

#include <dlfcn.h>
#include <unistd.h>

namespace kvhost {

namespace {

#ifndef KV_HOST_LIBDIR
#define KV_HOST_LIBDIR "lib"
#endif

const char kSoname[] = "libkv_3000.so.2";

template <typename F>
void resolve(void* handle, const char* name, F& slot, std::string& missing) {
    slot = reinterpret_cast<F>(dlsym(handle, name));
    if (!slot) missing += missing.empty() ? name : std::string(", ") + name;
}

}  // namespace

bool loadDriver(const std::string& path, DriverApi& api, std::string* error) {
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        if (error) *error = "cannot load the driver " + path + ": " + (why ? why : "unknown error");
        return false;
    }
    DriverApi a;
    std::string missing;
    resolve(handle, "intf_initProperty", a.initProperty, missing);
    resolve(handle, "intf_getProtocolType", a.getProtocolType, missing);
    resolve(handle, "intf_getDriverParameter", a.getDriverParameter, missing);
    resolve(handle, "intf_getDriverPropertyPage", a.getDriverPropertyPage, missing);
    resolve(handle, "intf_SetDriverPropertyPage", a.setDriverPropertyPage, missing);
    resolve(handle, "intf_setAddrValueChangeCallBack", a.setAddrValueChangeCallBack, missing);
    resolve(handle, "intf_getVersion", a.getVersion, missing);
    resolve(handle, "intf_getSendFrame", a.getSendFrame, missing);
    resolve(handle, "intf_dealRcvFrame", a.dealRcvFrame, missing);
    resolve(handle, "intf_getRegListByType", a.getRegListByType, missing);
    resolve(handle, "intf_getRegDiscription", a.getRegDiscription, missing);
    resolve(handle, "intf_checkAddrValidity", a.checkAddrValidity, missing);
    resolve(handle, "intf_checkAddr", a.checkAddr, missing);
    resolve(handle, "intf_multiCopy", a.multiCopy, missing);
    resolve(handle, "intf_addrMerge", a.addrMerge, missing);
    resolve(handle, "intf_setRcpAddress", a.setRcpAddress, missing);
    resolve(handle, "intf_getData", a.getData, missing);
    resolve(handle, "intf_setData", a.setData, missing);
    resolve(handle, "intf_addConditionRead", a.addConditionRead, missing);
    if (!missing.empty()) {
        if (error) *error = "the driver " + path + " lacks the export(s) " + missing;
        dlclose(handle);
        return false;
    }
    a.path = path;
    api = a;
    return true;
}

std::vector<std::string> defaultDriverCandidates(const std::string& executableDir) {
    const std::string up = executableDir + "/..";
    std::vector<std::string> c = {up + "/libkv_3000.so", up + "/" KV_HOST_LIBDIR "/" + kSoname,
                                  up + "/lib/" + kSoname, executableDir + "/libkv_3000.so"};
    c.push_back(kSoname);
    return c;
}

std::string defaultDriverPath(const std::string& executableDir) {
    const std::vector<std::string> c = defaultDriverCandidates(executableDir);
    for (const std::string& path : c)
        if (path.find('/') != std::string::npos && access(path.c_str(), R_OK) == 0) return path;
    return c.back();
}

}  // namespace kvhost
