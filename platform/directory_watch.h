// directory_watch.h -- watches a directory of state files and reports changes on the main loop.
#pragma once

#include <string>

// Calls `changed` with a file's name whenever a file in the directory `path` is replaced, moved there, or written and
// closed. Calls come from GLib's default main context; changes that happen before the loop
// runs are delivered once it does.
//
// There is one watch for each `changed`, as long as the process. A second call for the same directory does nothing,
// unless the directory was recreated meanwhile: then the new one is watched instead, as is another `path`.
//
// Returns false, with a log line, if the directory cannot be watched. What `changed` throws is caught and logged. Any
// thread without a thread-default main context.
bool watch_directory(const std::string &path, void (*changed)(const std::string &name));
