#include "platform/privileged_service.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/state_dir.h"

namespace {

enum Result : int { kDone = 0, kRefused = -1, kNotLoaded = -2, kNoService = -3 };

std::string module_file(std::string name) {
    name.erase(0, name.rfind('/') + 1);
    static constexpr char kExtension[] = ".ko";
    const size_t end = name.size() < 3 ? 0 : name.size() - 3;
    if (name.compare(end, 3, kExtension) == 0) name.resize(end);
    std::replace(name.begin(), name.end(), '-', '_');
    return state_path("modules/" + encode_name(name));
}

int report(int result, int *retValue) {
    if (retValue != nullptr) *retValue = result;
    return result;
}

}  // namespace

int PS_Insmod_Fast(const char *path, size_t length, int /*flags*/, int *retValue) {
    if (path == nullptr || length == 0 || platform_fault(FAULT_INSMOD)) return report(kRefused, retValue);
    return report(guarded<int>(kNoService,
                               [&] {
                                   const std::string file(path, strnlen(path, length));
                                   return replace_state_file(module_file(file), file) ? kDone : kNoService;
                               }),
                  retValue);
}

int PS_Rmmod(const char *name, size_t length, int /*flags*/, int *retValue) {
    if (name == nullptr || length == 0 || platform_fault(FAULT_RMMOD)) return report(kRefused, retValue);
    return report(guarded<int>(kNoService,
                               [&] {
                                   const std::string file = module_file(std::string(name, strnlen(name, length)));
                                   if (unlink(file.c_str()) == 0) return kDone;
                                   PLATFORM_LOGW("cannot unload %s (%d:%m)", name, errno);
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
