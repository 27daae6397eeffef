// module_service.h -- how an implementation of the platform loads and unloads a kernel module.
#pragma once

#include <string>

enum ModuleResult : int {
    kModuleDone = 0,
    kModuleRefused = -1,
    kModuleNotLoaded = -2,
    kModuleNoService = -3,
    kModuleNoFile = -4,
    kModuleWrongFile = -5,
    kModuleNotPermitted = -6,
    kModuleInUse = -7
};

// `file` is the module's file, `name` its name in the kernel, which is not empty. Failures have a log line. Any thread.
ModuleResult load_module(const std::string &file, const std::string &name);
ModuleResult unload_module(const std::string &name);

// The same with this machine's own kernel, which needs CAP_SYS_MODULE. A module that is loaded already need not have a
// file.
ModuleResult load_into_kernel(const std::string &file, const std::string &name);
ModuleResult unload_from_kernel(const std::string &name);
