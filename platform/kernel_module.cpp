#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/module_service.h"
#include "platform/platform_log.h"

// What the kernel's refusal of a module means.
static ModuleResult refusal(int error) {
    switch (error) {
        case EPERM:
        case EACCES:
            return kModuleNotPermitted;
        case EBUSY:
        case EWOULDBLOCK:
            return kModuleInUse;
        case ENOSYS:
        case ENOMEM:
            return kModuleNoService;
        default:  // no module, or one of another kernel
            return kModuleWrongFile;
    }
}

ModuleResult load_into_kernel(const std::string &file, const std::string &name) {
    if (access(("/sys/module/" + name).c_str(), F_OK) == 0) return kModuleDone;
    // O_NONBLOCK: do not wait if someone put a pipe in the file's place.
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0 && (syscall(SYS_finit_module, fd, "", 0) == 0 || errno == EEXIST)) {
        close(fd);
        return kModuleDone;
    }
    const int error = errno;
    PLATFORM_LOGW("cannot load %s (%d:%m)", file.c_str(), error);
    if (fd < 0) return error == ENOENT || error == ENOTDIR ? kModuleNoFile : refusal(error);
    close(fd);
    return refusal(error);
}

ModuleResult unload_from_kernel(const std::string &name) {
    if (syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0) return kModuleDone;
    const int error = errno;
    PLATFORM_LOGW("cannot unload %s (%d:%m)", name.c_str(), error);
    return error == ENOENT ? kModuleNotLoaded : refusal(error);
}
