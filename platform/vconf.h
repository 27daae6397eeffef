// vconf.h -- the set's key-value configuration service.
//
// The set promises: typed values under textual keys, shared by all processes; a callback on the caller's main loop for
// every change. The stand-in: one small file a key in the state directory, vconf/KEY (KEY percent-encoded), replaced in
// one step. Contents are the type on the first line, "int" or "string", then the value: "int\n5", "string\nTEXT".
// Larger than 64 KiB is no value. Callbacks run on the thread of GLib's default main context, for changes by any
// process, also when the new value equals the old one. Reading and writing work without a loop; changes that happen
// between registration and the loop's start are delivered when it runs. A callback gets the value as it is when the
// callback runs: of two quick changes both calls may see the later value, which is never missed. A text that holds a
// NUL byte ends there for its readers. Differs from the set: the callbacks need the default context's loop; a key is
// never removed.
//
// All return 0 for success and a negative value for failure unless said otherwise. Any thread.
#pragma once

extern "C" {

typedef struct keynode_t keynode_t;  // one change as a callback sees it; valid during the call
typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);
enum { VCONF_TYPE_NONE = 0, VCONF_TYPE_STRING = 40, VCONF_TYPE_INT = 41 };

// Calls `cb` for every change of `key`. The same pair may be registered once. Fails without a state directory.
int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data);

// Ends exactly that pair's calls; also from inside the callback. Fails when it is not registered.
int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb);

// Fail when the key does not exist or holds another type; *value is untouched then.
int vconf_get_int(const char *key, int *value);
int vconf_set_int(const char *key, int value);

// The text in a block that the caller frees; null on failure.
char *vconf_get_str(const char *key);
int vconf_set_str(const char *key, const char *value);

// Of a change: the key; the type (VCONF_TYPE_NONE when there is no readable value); the integer (0 when it is none);
// the text (null when it is none). Texts are owned by the node.
char *vconf_keynode_get_name(keynode_t *node);
int vconf_keynode_get_type(keynode_t *node);
int vconf_keynode_get_int(keynode_t *node);
char *vconf_keynode_get_str(keynode_t *node);

}  // extern "C"
