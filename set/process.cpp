#include "set/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "set/fd.h"

namespace vestra_set {
namespace {

[[noreturn]] void run_child(const Spawn &what, std::vector<char *> &argv, int report) {
    if (what.place == Spawn::kOwnGroup) setpgid(0, 0);
    if (what.place == Spawn::kOwnSession) setsid();
    for (int number = 1; number < _NSIG; ++number) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (size_t i = 0; i < what.stdio.size() && i < 3; ++i) dup2(what.stdio[i], static_cast<int>(i));
    for (const auto &[name, value] : what.environment) setenv(name.c_str(), value.c_str(), 1);
    if (what.directory.empty() || chdir(what.directory.c_str()) != 0) {
        if (chdir("/") != 0) _exit(126);
    }
    execvp(argv[0], argv.data());
    const int error = errno;
    // When even this fails the parent takes the program for started, and sees it end with 126 at once.
    if (write(report, &error, sizeof error) < 0) _exit(126);
    _exit(exit_code_of_failed_run(error));
}

}  // namespace

pid_t spawn(const Spawn &what, int *error) {
    std::vector<char *> argv;
    for (const std::string &argument : what.argv) argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    int ends[2];
    if (what.argv.empty() || pipe2(ends, O_CLOEXEC) != 0) {
        *error = what.argv.empty() ? EINVAL : errno;
        return -1;
    }
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) run_child(what, argv, writer.get());
    if (child < 0) {
        *error = errno;
        return -1;
    }
    writer.reset();
    // The pipe closes with the exec: nothing to read is success.
    ssize_t count;
    do {
        count = read(reader.get(), error, sizeof *error);
    } while (count < 0 && errno == EINTR);
    return count == static_cast<ssize_t>(sizeof *error) ? -1 : child;
}

}  // namespace vestra_set
