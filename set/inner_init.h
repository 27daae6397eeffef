// The first process of a set: makes its files, starts the control node's server and the set's program, and ends, and
// with it everything in the set, when that program ends or the launcher is gone.
//
// SIGINT, SIGQUIT, SIGTERM and SIGHUP are passed on to the program, unless they came from the terminal, which sends
// them to the program itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "set/fd.h"

namespace vestra_set {

// What the first process reports to the launcher. One report is one packet of their socket.
struct Report {
    enum Kind : int32_t {
        kUp,      // the program runs
        kText,    // something that happens, for people
        kFailed,  // the set cannot be made: why, and in `status` the exit code
        kEnded,   // the program has ended, with wait status `status`
    } kind;
    int32_t status;
    char text[504];  // kText, kFailed
};

// Asks a set to end; `init` is the directory of its first process in /proc. The program gets the signal that stops it
// (the daemon SIGRTMIN+6, another SIGTERM), and SIGKILL once only that will end it, or after `grace` seconds. A second
// request with a `grace` of 0 ends it at once. False with errno set when the set has ended.
bool request_stop(const UniqueFd &init, double grace);

// Runs as a set's first process: reads the options, a SetOptions as JSON, from descriptor `options` and reports on the
// socket `link`. Returns only on failure, with an exit code: it has then been reported.
int inner_init(int options, int link, const std::vector<std::string> &program);

}  // namespace vestra_set
