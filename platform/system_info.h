// system_info.h -- the set's system-information service.
//
// The set promises: texts about the product under keys like "com.vendor/group/name".
//
// The stand-in: system_info.ini in the state directory, in GLib's key-file format. The group is the key up to its last
// '/'; the name is the rest.
//
// Differs from the set: nothing known.
#pragma once

extern "C" {

// Stores the key's text in *value; the caller frees it. Returns 0, or -1 if there is none,
// with *value untouched. Any thread.
int system_info_get_custom_string(const char *key, char **value);

}  // extern "C"
