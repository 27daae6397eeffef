// privileged_service.h -- the set's client of the service that may load kernel modules.
//
// The set promises: a module is loaded from its file, or unloaded by its name. The stand-in: module NAME is loaded
// while the file modules/NAME is in the state directory; the simulated kernel module watches for it, and its control
// node appears and vanishes with it. NAME is the file's base name without ".ko", with '-' written as '_', as the kernel
// does. Differs from the set: the module's file need not exist; loading a module that is loaded succeeds.
#pragma once

#include <cstddef>

extern "C" {

// Loads the module in the file `path` (`length` characters, fewer where a NUL comes first; no NUL is needed); flags is
// 0. Returns 0 and *retValue 0, or a negative result and the same in *retValue, which may be null. Any thread.
int PS_Insmod_Fast(const char *path, size_t length, int flags, int *retValue);

// Unloads the module `name`; fails when it is not loaded. Results as above.
int PS_Rmmod(const char *name, size_t length, int flags, int *retValue);

// A text for a result of the two. Never null, never freed.
const char *PS_ErrorToString(int result);

}  // extern "C"
