// privileged_service.h -- client of the service that loads and unloads kernel modules.
//
// The set promises: a module is loaded from its file and unloaded by its name.
//
// linux: the machine's own kernel loads and unloads it, which needs CAP_SYS_MODULE.
//
// simulated: in a simulated set, whose state directory has a directory modules/, module NAME is loaded while the file
// modules/NAME exists. The simulated kernel module watches for that file; its control node appears and disappears with
// it. NAME is the base name of the module's file without ".ko", with '-' replaced by '_', as the kernel does. Where
// there is no modules/, as linux.
//
// PS_ErrorToString tells a file that is missing, a module of another kernel, one in use, and a missing permission apart; the
// log has the kernel's own error.
//
// In both, loading a loaded module succeeds, and its file need not exist then; in a simulated set it need not exist at
// all.
#pragma once

#include <cstddef>

extern "C" {

// Loads the module from the file `path`: `length` characters, or up to the first NUL. `flags` is 0. Returns 0, or a
// negative result. *retValue gets the same value; `retValue` may be null. Any thread.
int PS_Insmod_Fast(const char *path, size_t length, int flags, int *retValue);

// Unloads the module `name`. Fails if it is not loaded. Parameters and results as above.
int PS_Rmmod(const char *name, size_t length, int flags, int *retValue);

// A text for a result of either function. Never null; the caller does not free it.
const char *PS_ErrorToString(int result);

}  // extern "C"
