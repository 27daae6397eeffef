#include "platform/module_service.h"

ModuleResult load_module(const std::string &file, const std::string &name) {
    return load_into_kernel(file, name);
}

ModuleResult unload_module(const std::string &name) {
    return unload_from_kernel(name);
}
