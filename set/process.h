// Starting a program inside the set.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vestra_set {

struct Spawn {
    std::vector<std::string> argv;                                 // looked up in PATH
    std::string directory;                                         // used where it exists, "/" otherwise
    std::vector<std::pair<std::string, std::string>> environment;  // added
    std::vector<int> stdio;                                        // three descriptors, or none: this process's own
    // Whose signals from a terminal it gets: this process's group's, none (own group), or it stands apart altogether
    // (own session), so that it may read a terminal that belongs to another.
    enum { kSameGroup, kOwnGroup, kOwnSession } place = kSameGroup;
};

// Starts it with no signal blocked or ignored. Returns its process id; -1 with `*error` (an errno) when it could not be
// run.
pid_t spawn(const Spawn &what, int *error);

// The exit code with which a shell tells that a program could not be run.
inline int exit_code_of_failed_run(int error) {
    return error == 2 /* ENOENT */ ? 127 : 126;
}

}  // namespace vestra_set
