// The first process of a set: makes its files, starts the control node's server and the set's program, and ends, and
// with it everything in the set, when that program ends or the launcher is gone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vestra_set {

// What the first process reports to the launcher. One report is one packet of their socket.
struct Report {
    enum Kind : int32_t {
        kStarts,  // the program is being started; `number` is its process id as the launcher sees it
        kUp,      // it runs
        kFailed,  // the set cannot be made: why, and in `number` the exit code
        kEnded,   // the program has ended, with wait status `number`
    } kind;
    int32_t number;
    char text[504];  // kFailed
};

// Runs as a set's first process: reads the options, a SetOptions as JSON, from descriptor `options` and reports on the
// socket `link`. Returns an exit code.
int inner_init(int options, int link, const std::vector<std::string> &program);

}  // namespace vestra_set
