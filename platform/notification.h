// notification.h -- the set's on-screen notices.
//
// The set promises: a posted notice is shown on the screen.
//
// linux: org.freedesktop.Notifications on the D-Bus bus that system.conf names, or on the session bus; posting waits up
// to 3 s and fails if that service does not answer. Where there is no bus, a notice is a line in the log, and that is
// success. Invalid UTF-8 is replaced.
//
// simulated: each posted notice becomes one line of JSON in the state directory's notifications.jsonl: {"text",
// "hide_timeout", "auto_remove", "applist", "type", "time"}. Invalid UTF-8 is replaced.
//
// Nothing is shown on a screen or removed after a time. The launcher shows the file.
//
// Unless noted otherwise, functions return 0 for success and a negative value for failure; a null handle is a failure.
// A handle belongs to one thread.
#pragma once

extern "C" {

typedef struct notification_s *notification_h;

// Returns a new notice of `type` (0: plain), which the caller releases with notification_free. Null on failure.
notification_h notification_create(int type);
int notification_set_hide_timeout(notification_h notification, int seconds);
int notification_set_auto_remove(notification_h notification, bool auto_remove);

// Sets a text. Only `text_type` 1, the content, is kept. `key` (for translations), `args_type` (-1: no arguments)
// and the arguments are not used.
int notification_set_text(notification_h notification, int text_type, const char *text, const char *key, int args_type,
                          ...);
int notification_set_display_applist(notification_h notification, int applist);
int notification_post(notification_h notification);
int notification_free(notification_h notification);

}  // extern "C"
