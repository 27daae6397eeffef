// Exit codes, and the one way in which vestra-set complains.
#pragma once

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

namespace vestra_set {

// Exit codes of this program. The exit code of a program that runs in the set is passed on.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,      // the command could not be carried out
    kExitNoSet = 2,       // a set cannot be made here
    kExitNotRunning = 3,  // there is no running set of that name
    kExitUsage = 64,      // wrong options or arguments
};

// Writes "vestra-set: TEXT" to standard error.
inline void say(const std::string &text) {
    std::cerr << "vestra-set: " << text << std::endl;
}

// Ends the command: main says why, and exits with `code`.
struct Failure : std::runtime_error {
    Failure(const std::string &text, int exit_code) : std::runtime_error(text), code(exit_code) {}
    int code;
};
[[noreturn]] inline void fail(const std::string &text, int code = kExitFailed) {
    throw Failure(text, code);
}
// The same for a system call that failed on `what`.
[[noreturn]] inline void fail_errno(const std::string &what, int code = kExitFailed) {
    fail(what + ": " + std::strerror(errno), code);
}

}  // namespace vestra_set
