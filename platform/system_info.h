// system_info.h -- the set's system-information service.
//
// The set promises: texts about the product under keys like "com.vendor/group/name".
//
// linux: /etc/vestrad/system.conf; simulated: system_info.ini in the state directory. Both in GLib's key-file format:
// the group is the key up to its last '/'; the name is the rest.
#pragma once

extern "C" {

// Stores the key's text in *value; the caller frees it. Returns 0, or -1 if there is none,
// with *value untouched. Any thread.
int system_info_get_custom_string(const char *key, char **value);

}  // extern "C"
