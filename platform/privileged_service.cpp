#include "platform/privileged_service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

std::string module_file(const std::string &name) {
    return state_path("modules/" + encode_name(name));
}

// The launcher of a simulated set makes the directory. Without it, this is a machine whose kernel loads modules.
bool is_simulated_set() {
    struct stat info;
    return stat(state_path("modules").c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

Result load_into_kernel(const std::string &file) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool loaded = fd >= 0 && (syscall(SYS_finit_module, fd, "", 0) == 0 || errno == EEXIST);
    if (!loaded) PLATFORM_LOGW("cannot load %s (%d:%m)", file.c_str(), errno);
    if (fd >= 0) close(fd);
    return loaded ? kDone : kNoService;
}

int unload_from_kernel(const std::string &name) {
    return static_cast<int>(syscall(SYS_delete_module, name.c_str(), O_NONBLOCK));
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
                                   const std::string name = module_name(file);
                                   if (name.empty()) return kRefused;
                                   if (!is_simulated_set()) return load_into_kernel(file);
                                   return replace_state_file(module_file(name), file) ? kDone : kNoService;
                               }),
                  retValue);
}

int PS_Rmmod(const char *name, size_t length, int /*flags*/, int *retValue) {
    if (name == nullptr || platform_fault(FAULT_RMMOD)) return report(kRefused, retValue);
    return report(guarded<int>(kNoService,
                               [&] {
                                   const std::string module = module_name(std::string(name, strnlen(name, length)));
                                   if (module.empty()) return kRefused;
                                   const int result = is_simulated_set() ? unlink(module_file(module).c_str())
                                                                         : unload_from_kernel(module);
                                   if (result == 0) return kDone;
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
