// The outside end of a running set's control socket.
#pragma once

#include <string>
#include <vector>

#include "set/fd.h"

namespace vestra_set {

// Connects to the set `name`. Not valid when there is no such set; with a message on standard error, unless `quietly`.
UniqueFd connect_to_set(const std::string &name, bool quietly = false);

// Runs a program inside the set `name` with this process's standard streams, in this working directory where the set
// has it. Interrupt, quit and termination signals are passed on. Returns the program's exit code, 128 + the signal that
// ended it, or an exit code of ours.
int execute_in_set(const std::string &name, const std::vector<std::string> &argv);

}  // namespace vestra_set
