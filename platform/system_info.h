// system_info.h -- the set's system-information service.
//
// The set promises: texts about the product under keys like "com.vendor/group/name". The stand-in: the state
// directory's system_info.ini in GLib's key-file format; the group is the key up to its last '/', the name is what
// follows. Differs from the set: nothing known.
#pragma once

extern "C" {

// The key's text in *value, a block that the caller frees. 0, or -1 with *value untouched when there is none. Any
// thread.
int system_info_get_custom_string(const char *key, char **value);

}  // extern "C"
