// Running a program inside a running set, from outside.
#pragma once

#include <string>
#include <vector>

namespace vestra_set {

// Runs a program inside the set `name` with this process's standard streams, in this working directory if the set has
// it. Interrupt, quit and termination signals are passed on; if this process is killed, the program gets SIGHUP.
// Returns the program's exit code, 128 + the signal that ended it, or an exit code of ours. Call from the main thread
// before any other is started.
int execute_in_set(const std::string &name, const std::vector<std::string> &argv);

// The inner half: what nsenter runs inside the set. Returns the exit code.
int execute_inside(const std::string &directory, const std::vector<std::string> &argv);

}  // namespace vestra_set
