// vconf.h -- the set's key-value configuration service.
//
// The set promises: typed values under textual keys, shared by all processes, and a callback on the caller's main loop
// for every change.
//
// Both of ours: each key is a small file (percent-encoded) in /var/lib/vestrad/keys (linux) or vconf/ in the state
// directory (simulated), which is replaced atomically. The first line is the type, "int" or "string"; the value
// follows: "int\n5", "string\nTEXT". A file larger than 64 KiB is not a valid value. A text that contains a NUL byte
// ends there for its readers. Reading and writing work without a main loop.
//
// Callbacks run on the thread of GLib's default main context, for changes by any process, even if the value stays the
// same. Changes between registration and the start of the loop are delivered when the loop runs. A callback gets the
// value at the time of the call: after two quick changes both calls may see the second value, but it is never missed.
//
// Callbacks need a loop on the default context, and a key cannot be removed.
//
// Unless noted otherwise, functions return 0 for success and a negative value for failure. Any thread.
#pragma once

extern "C" {

typedef struct keynode_t keynode_t;  // one change, as passed to a callback; valid during the call
typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);
enum { VCONF_TYPE_NONE = 0, VCONF_TYPE_STRING = 40, VCONF_TYPE_INT = 41 };

// Calls `cb` for every change of `key`. Fails if the same pair is registered already, or without a directory to watch.
int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data);

// Removes exactly that pair; also from inside the callback. Fails if it is not registered.
int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb);

// vconf_get_int fails if the key does not exist or has another type, and leaves *value untouched.
int vconf_get_int(const char *key, int *value);
int vconf_set_int(const char *key, int value);

// vconf_get_str returns a copy of the text that the caller frees, or null on failure.
char *vconf_get_str(const char *key);
int vconf_set_str(const char *key, const char *value);

// The parts of a change: key, type (VCONF_TYPE_NONE without a readable value), integer (0 for other types), text
// (null for other types). The node owns the texts.
char *vconf_keynode_get_name(keynode_t *node);
int vconf_keynode_get_type(keynode_t *node);
int vconf_keynode_get_int(keynode_t *node);
char *vconf_keynode_get_str(keynode_t *node);

}  // extern "C"
