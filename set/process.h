// Starting programs.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

namespace vestra_set {

// Starts a program; `argv[0]` is looked up in PATH. In the child no signal is blocked or ignored; `prepare` then runs
// there. Returns the process id when the program runs; -1 with `*error` (an errno) when it could not be run.
pid_t spawn(const std::vector<std::string> &argv, const std::function<void()> &prepare, int *error);

// Waits until a child has ended and returns its wait status.
int wait_for(pid_t child);

// The exit code that a shell reports for a program that could not be run, and for one that ended with `status`.
inline int exit_code_of_failed_run(int error) {
    return error == ENOENT ? 127 : 126;
}
inline int exit_code_of(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace vestra_set
