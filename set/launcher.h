// The outside half of a simulated set: builds the namespace with bubblewrap and stays until the set has ended.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "set/complain.h"
#include "set/set_directory.h"
#include "set/set_options.h"

namespace vestra_set {

struct LaunchPlan {
    SetOptions options;
    std::vector<std::string> program;       // path or name, and arguments
    ClaimedDirectory *directory = nullptr;  // bound at /run/vestra-set; null: a tmpfs that ends with the set
    std::vector<std::string> binds;         // more host paths that are bound, writable, at their own place
    std::vector<std::pair<std::string, std::string>> stick_dirs;  // label, host directory
    std::string log_file;  // host file that the daemon's log goes to; empty: as options.log says
    double grace = 3.0;    // seconds, for an orderly stop
    bool quiet = false;    // no word about the set going up and down
};

// Runs the set until its program ends. Returns the exit code to leave with; `*signal` becomes the number of the signal
// that ended the program, 0 otherwise. Throws Failure. Call once, from the main thread, before any other is started.
int launch(LaunchPlan plan, int *signal);

// Looks a program up as execvp would; an absolute path, or empty when there is none.
std::string find_program(const std::string &name);

// This program's own file.
std::string own_program();

}  // namespace vestra_set
