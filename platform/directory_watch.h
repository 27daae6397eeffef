// directory_watch.h -- changes in a state directory, delivered on the main loop.
#pragma once

#include <string>

// Calls `changed` with a file's name whenever a file of `relative` (a subdirectory of the state directory) has been
// replaced, moved there or written and closed. Calls come from GLib's default main context, so that a change that comes
// before the loop runs waits for it. The watch lasts as long as the process; asking again for a directory that is
// watched changes nothing, and one that was made anew, or lies elsewhere by now, is watched instead of the old one.
// False, with a log line, when the directory cannot be watched. `changed` may throw; it is caught and logged. Any
// thread that has no main context of its own.
bool watch_state_directory(const char *relative, void (*changed)(const std::string &name));
