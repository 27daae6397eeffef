#include "platform/privileged_service.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/state_dir.h"

namespace {

enum Result : int { kDone = 0, kRefused = -1, kNotLoaded = -2, kNoService = -3 };

// Path of the state file of a loaded module. Empty if `name` names no module.
std::string module_file(std::string name) {
    name.erase(0, name.rfind('/') + 1);
    static constexpr std::string_view kExtension = ".ko";
    if (name.size() >= kExtension.size() && name.substr(name.size() - kExtension.size()) == kExtension) {
        name.resize(name.size() - kExtension.size());
    }
    std::replace(name.begin(), name.end(), '-', '_');
    return name.empty() ? std::string() : state_path("modules/" + encode_name(name));
}

int report(int result, int *retValue) {
    if (retValue != nullptr) *retValue = result;
    return result;
}

}  // namespace

int PS_Insmod_Fast(const char *path, size_t length, int /*flags*/, int *retValue) {
    if (path == nullptr || platform_fault(FAULT_INSMOD)) return report(kRefused, retValue);
    return report(guarded<int>(kNoService,
                               [&] {
                                   const std::string file(path, strnlen(path, length));
                                   const std::string module = module_file(file);
                                   if (module.empty()) return kRefused;
                                   return replace_state_file(module, file) ? kDone : kNoService;
                               }),
                  retValue);
}

int PS_Rmmod(const char *name, size_t length, int /*flags*/, int *retValue) {
    if (name == nullptr || platform_fault(FAULT_RMMOD)) return report(kRefused, retValue);
    return report(guarded<int>(kNoService,
                               [&] {
                                   const std::string module = module_file(std::string(name, strnlen(name, length)));
                                   if (module.empty()) return kRefused;
                                   if (unlink(module.c_str()) == 0) return kDone;
                                   PLATFORM_LOGW("cannot unload %s (%d:%m)", module.c_str(), errno);
                                   return errno == ENOENT ? kNotLoaded : kNoService;
                               }),
                  retValue);
}

const char *PS_ErrorToString(int result) {
    switch (result) {
        case kDone:
            return "success";
        case kRefused:
            return "refused";
        case kNotLoaded:
            return "module not loaded";
        case kNoService:
            return "service not available";
        default:
            return "unknown error";
    }
}
