// For the main function of a test program that needs a set's files: started by hand, it starts itself again in a
// sandbox.
//
//   int main(int argc, char **argv) {
//       const int code = vestra_set::run_in_sandbox_unless_inside(argc, argv, false);
//       if (code >= 0) return code;
//       ...
#pragma once

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vestra_set {

// Inside a set: -1, go on. Outside: replaces this process by "vestra-set sandbox [--node] -- " with the program's own
// file and its arguments, and so does not return; when that cannot be done, a message is on standard error and the
// result is exit code 2. vestra-set is found by the environment's VESTRA_SET_PROGRAM, by the macro of that name where
// it is defined, or in PATH. Call first thing in main.
inline int run_in_sandbox_unless_inside(int argc, char **argv, bool node) {
    if (std::getenv("VESTRA_SET_INSIDE") != nullptr) return -1;
    const char *launcher = std::getenv("VESTRA_SET_PROGRAM");
#ifdef VESTRA_SET_PROGRAM
    if (launcher == nullptr) launcher = VESTRA_SET_PROGRAM;
#endif
    if (launcher == nullptr) launcher = "vestra-set";

    static char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length < 0) {
        std::fprintf(stderr, "/proc/self/exe: %s\n", std::strerror(errno));
        return 2;
    }
    self[length] = '\0';
    static char sandbox[] = "sandbox";
    static char with_node[] = "--node";
    static char rest[] = "--";
    std::vector<char *> words{const_cast<char *>(launcher), sandbox};
    if (node) words.push_back(with_node);
    words.push_back(rest);
    words.push_back(self);
    for (int i = 1; i < argc; ++i) words.push_back(argv[i]);
    words.push_back(nullptr);
    execvp(launcher, words.data());
    std::fprintf(stderr, "%s: %s (VESTRA_SET_PROGRAM gives the path of vestra-set)\n", launcher, std::strerror(errno));
    return 2;
}

}  // namespace vestra_set
