// directory_watch.h -- changes in a state directory, delivered on the main loop.
#pragma once

#include <string>

// Calls `changed` with a file's name whenever a file of `relative` (a subdirectory of the state directory) has been
// replaced, moved there or written and closed. Calls come on the thread of GLib's default main context. The watch lasts
// as long as the process. False, with a log line, when the directory cannot be watched. `changed` may throw; it is
// caught and logged.
bool watch_state_directory(const char *relative, void (*changed)(const std::string &name));
