#include "platform/privileged_service.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/module_service.h"

namespace {

// The kernel's name of a module or of its file. Empty if `name` names no module.
std::string module_name(std::string name) {
    name.erase(0, name.rfind('/') + 1);
    static constexpr std::string_view kExtension = ".ko";
    if (name.size() >= kExtension.size() && name.substr(name.size() - kExtension.size()) == kExtension) {
        name.resize(name.size() - kExtension.size());
    }
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

int report(int result, int *retValue) {
    if (retValue != nullptr) *retValue = result;
    return result;
}

}  // namespace

int PS_Insmod_Fast(const char *path, size_t length, int /*flags*/, int *retValue) {
    if (path == nullptr || platform_fault(FAULT_INSMOD)) return report(kModuleRefused, retValue);
    return report(guarded<int>(kModuleNoService,
                               [&]() -> int {
                                   const std::string file(path, strnlen(path, length));
                                   const std::string name = module_name(file);
                                   return name.empty() ? kModuleRefused : load_module(file, name);
                               }),
                  retValue);
}

int PS_Rmmod(const char *name, size_t length, int /*flags*/, int *retValue) {
    if (name == nullptr || platform_fault(FAULT_RMMOD)) return report(kModuleRefused, retValue);
    return report(guarded<int>(kModuleNoService,
                               [&]() -> int {
                                   const std::string module = module_name(std::string(name, strnlen(name, length)));
                                   return module.empty() ? kModuleRefused : unload_module(module);
                               }),
                  retValue);
}

const char *PS_ErrorToString(int result) {
    switch (result) {
        case kModuleDone:
            return "success";
        case kModuleRefused:
            return "refused";
        case kModuleNotLoaded:
            return "module not loaded";
        case kModuleNoService:
            return "service not available";
        case kModuleNoFile:
            return "no such file";
        case kModuleWrongFile:
            return "not a module of this kernel";
        case kModuleNotPermitted:
            return "not permitted";
        case kModuleInUse:
            return "module in use";
        default:
            return "unknown error";
    }
}
