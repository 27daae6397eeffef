#include "set/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "set/fd.h"

namespace vestra_set {
namespace {

[[noreturn]] void run_child(std::vector<char *> &argv, const std::function<void()> &prepare, int report) {
    for (int number = 1; number < _NSIG; ++number) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prepare();
    execvp(argv[0], argv.data());
    const int error = errno;
    // If even this fails, the parent takes the program for started and sees it end with 126 at once.
    if (write(report, &error, sizeof error) < 0) _exit(126);
    _exit(exit_code_of_failed_run(error));
}

}  // namespace

pid_t spawn(const std::vector<std::string> &argv, const std::function<void()> &prepare, int *error) {
    std::vector<char *> words;
    for (const std::string &argument : argv) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        *error = errno;
        return -1;
    }
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) run_child(words, prepare, writer.get());
    if (child < 0) {
        *error = errno;
        return -1;
    }
    writer.reset();
    // The exec closes the pipe: nothing to read means success.
    ssize_t count;
    do {
        count = read(reader.get(), error, sizeof *error);
    } while (count < 0 && errno == EINTR);
    if (count != static_cast<ssize_t>(sizeof *error)) return child;
    wait_for(child);
    return -1;
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace vestra_set
