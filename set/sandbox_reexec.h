// For the main function of a test program that needs a set's files: when it is started by hand, it starts itself again
// in a sandbox.
//
//   int main(int argc, char **argv) {
//       const int code = vestra_set::run_in_sandbox_unless_inside(argc, argv, false);
//       if (code >= 0) return code;
//       ...
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace vestra_set {

// Inside a set: returns -1, go on. Outside: replaces this process by "vestra-set sandbox [--node] -- " and this program
// with its arguments; if that fails, prints a message and returns exit code 2. The path of vestra-set is the
// environment's VESTRA_SET_PROGRAM, or the macro of that name; otherwise PATH is searched. Call it first in main.
inline int run_in_sandbox_unless_inside(int argc, char **argv, bool node) {
    if (std::getenv("VESTRA_SET_INSIDE") != nullptr) return -1;
    const char *launcher = std::getenv("VESTRA_SET_PROGRAM");
#ifdef VESTRA_SET_PROGRAM
    if (launcher == nullptr) launcher = VESTRA_SET_PROGRAM;
#endif
    if (launcher == nullptr) launcher = "vestra-set";
    std::error_code ignored;
    std::string self = std::filesystem::read_symlink("/proc/self/exe", ignored);
    std::string words[] = {launcher, "sandbox", "--node", "--"};
    std::vector<char *> command{words[0].data(), words[1].data()};
    if (node) command.push_back(words[2].data());
    command.push_back(words[3].data());
    command.push_back(self.data());
    for (int i = 1; i < argc; ++i) command.push_back(argv[i]);
    command.push_back(nullptr);
    execvp(launcher, command.data());
    std::perror((words[0] + " (VESTRA_SET_PROGRAM gives the path of vestra-set)").c_str());
    return 2;
}

}  // namespace vestra_set
