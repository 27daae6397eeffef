#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/module_service.h"
#include "platform/platform_log.h"

ModuleResult load_into_kernel(const std::string &file, const std::string &name) {
    if (access(("/sys/module/" + name).c_str(), F_OK) == 0) return kModuleDone;
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool loaded = fd >= 0 && (syscall(SYS_finit_module, fd, "", 0) == 0 || errno == EEXIST);
    if (!loaded) PLATFORM_LOGW("cannot load %s (%d:%m)", file.c_str(), errno);
    if (fd >= 0) close(fd);
    return loaded ? kModuleDone : kModuleNoService;
}

ModuleResult unload_from_kernel(const std::string &name) {
    if (syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0) return kModuleDone;
    PLATFORM_LOGW("cannot unload %s (%d:%m)", name.c_str(), errno);
    return errno == ENOENT ? kModuleNotLoaded : kModuleNoService;
}
