// What tests that start programs share.
#pragma once

#include <sys/wait.h>

#include <cstdio>

#include "support/files.h"

namespace vestra_test {

struct Ran {
    int code;
    std::string out, err;
};

// A command of the shell's.
inline Ran run(const std::string &command) {
    FILE *pipe = popen((command + " 2>/tmp/run.err").c_str(), "re");
    Ran ran = {};
    char piece[4096];
    for (size_t size = 0; (size = fread(piece, 1, sizeof piece, pipe)) > 0;) ran.out.append(piece, size);
    ran.code = WEXITSTATUS(pclose(pipe));
    ran.err = read_file("/tmp/run.err");
    return ran;
}

}  // namespace vestra_test
