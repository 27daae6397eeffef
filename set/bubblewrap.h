// The command line that makes bubblewrap build a set's namespace.
#pragma once

#include <string>
#include <vector>

#include "set/launcher.h"

namespace vestra_set {

// False for a directory that a set has itself, or sees anyway. `path` is absolute and without links.
bool may_be_bound(const std::string &path);

// bubblewrap's arguments (its own name first) up to the program that it runs. `program` is the path of the set's program
// on the host. Bound at their own paths are its directory, the working directory, and the build and source tree of this
// program.
std::vector<std::string> bubblewrap_arguments(const LaunchPlan &plan, const std::string &program);

// Gives this process the environment that programs in a set have.
void set_environment_inside();

}  // namespace vestra_set
