// The outside half of a simulated set: builds the namespace with bubblewrap and stays until the set has ended.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "set/set_options.h"

namespace vestra_set {

// Exit codes of this program; what a program in the set returns is passed through beside them.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,      // the command could not be carried out
    kExitNoSet = 2,       // a set cannot be made here
    kExitNotRunning = 3,  // there is no running set of that name
    kExitUsage = 64,      // wrong options or arguments
};

struct LaunchPlan {
    SetOptions options;
    std::vector<std::string> program;  // path or name, and arguments
    std::string state_dir;             // bound at /run/vestra-set; empty: a tmpfs that ends with the set
    std::vector<std::string> binds;    // more host paths that are bound, writable, at their own place
    std::vector<std::pair<std::string, std::string>> stick_dirs;  // label, host directory
    std::string log_file;  // host file that the daemon's log goes to; empty: as options.log says
    double grace = 3.0;    // seconds, for an orderly stop
    bool quiet = false;    // no word about the set going up and down
};

// Runs the set until its program ends. Returns the exit code to leave with; `*signal` becomes the number of the signal
// that ended the program, 0 otherwise. Messages go to standard error. Call once, from the main thread, before any other
// is started.
int launch(LaunchPlan plan, int *signal);

// Looks a program up as execvp would; an absolute path, or empty when there is none.
std::string find_program(const std::string &name);

// This program's own file.
std::string own_program();

}  // namespace vestra_set
