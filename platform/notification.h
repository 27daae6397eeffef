// notification.h -- the set's on-screen notices.
//
// The set promises: a posted notice is shown. The stand-in: each posted notice is one JSON object, a line of the state
// directory's notifications.jsonl: {"text", "hide_timeout", "auto_remove", "applist", "type", "time"}; bytes that are
// no UTF-8 are replaced. Differs from the set: nothing is shown and nothing is removed after a time; the launcher shows
// the file.
//
// All return 0 for success and a negative value for failure; a null handle is a failure. One handle belongs to one
// thread.
#pragma once

extern "C" {

typedef struct notification_s *notification_h;

// A new notice of `type` (0: plain), owned by the caller until notification_free; null on failure.
notification_h notification_create(int type);
int notification_set_hide_timeout(notification_h notification, int seconds);
int notification_set_auto_remove(notification_h notification, bool auto_remove);

// `text_type` 1 is the content text, the only one that is kept. `key` (translation) and the arguments behind
// `args_type` (-1: none) are not used.
int notification_set_text(notification_h notification, int text_type, const char *text, const char *key, int args_type,
                          ...);
int notification_set_display_applist(notification_h notification, int applist);
int notification_post(notification_h notification);
int notification_free(notification_h notification);

}  // extern "C"
