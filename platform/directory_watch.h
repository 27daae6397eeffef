// directory_watch.h -- watches a state directory and reports changes on the main loop.
#pragma once

#include <string>

// Calls `changed` with a file's name whenever a file in `relative` (a subdirectory of the state directory) is replaced,
// moved there, or written and closed. Calls come from GLib's default main context; changes that happen before the loop
// runs are delivered once it does.
//
// The watch lasts as long as the process. A second call for the same directory does nothing, unless the directory was
// recreated or moved meanwhile: then the new one is watched instead.
//
// Returns false, with a log line, if the directory cannot be watched. What `changed` throws is caught and logged. Any
// thread without a thread-default main context.
bool watch_state_directory(const char *relative, void (*changed)(const std::string &name));
