#include "platform/module_service.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform_log.h"
#include "platform/simulated/state_dir.h"

static std::string module_file(const std::string &name) {
    return state_path("modules/" + encode_name(name));
}

// The launcher of a simulated set makes the directory. Without it, the machine's own kernel loads modules.
static bool is_simulated_module() {
    struct stat info;
    return stat(state_path("modules").c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

ModuleResult load_module(const std::string &file, const std::string &name) {
    if (!is_simulated_module()) return load_into_kernel(file, name);
    return replace_state_file(module_file(name), file) ? kModuleDone : kModuleNoService;
}

ModuleResult unload_module(const std::string &name) {
    if (!is_simulated_module()) return unload_from_kernel(name);
    if (unlink(module_file(name).c_str()) == 0) return kModuleDone;
    PLATFORM_LOGW("cannot unload %s (%d:%m)", name.c_str(), errno);
    return errno == ENOENT ? kModuleNotLoaded : kModuleNoService;
}
