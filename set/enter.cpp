#include "set/enter.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "set/bubblewrap.h"
#include "set/complain.h"
#include "set/launcher.h"
#include "set/layout.h"
#include "set/process.h"
#include "set/set_directory.h"

namespace vestra_set {
namespace {

volatile pid_t g_helper;  // leads a process group of what runs in the set

void pass_on(int number) {
    kill(-g_helper, number);
}

}  // namespace

// This process -> nsenter, which enters the namespaces and waits -> execute_inside -> the program. Each link of the
// chain ends when the one before it is killed. The helpers ignore the signals that are passed on to the whole group.
int execute_in_set(const std::string &name, const std::vector<std::string> &argv) {
    const RunningSet set = find_running_set(name);
    const std::string nsenter = find_program("nsenter");
    if (nsenter.empty()) fail("nsenter is missing (none in PATH); install the package \"util-linux\"", kExitNoSet);
    const UniqueFd process = open_program(set);
    const std::string namespaces = process_path(process) + "/ns/";
    std::vector<std::string> args{nsenter, "-m" + namespaces + "mnt", "-p" + namespaces + "pid",
                                  "-i" + namespaces + "ipc"};
    if (geteuid() != 0) args.insert(args.end(), {"-U" + namespaces + "user", "--preserve-credentials"});
    std::error_code ignored;
    args.insert(args.end(), {"--", kLauncher, "inner-exec", std::filesystem::current_path(ignored).string(), "--"});
    args.insert(args.end(), argv.begin(), argv.end());

    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM}) sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const pid_t self = getpid();
    int error = 0;
    g_helper = spawn(
        args,
        [&] {
            setsid();
            for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != self) _exit(kExitFailed);
            set_environment_inside();
        },
        &error);
    if (g_helper < 0) fail(argv[0] + ": " + std::strerror(error), exit_code_of_failed_run(error));
    for (const int number : {SIGINT, SIGQUIT, SIGTERM}) signal(number, pass_on);
    sigprocmask(SIG_UNBLOCK, &mask, nullptr);
    const int status = wait_for(g_helper);

    // nsenter itself fails with 1, and is killed only with the set.
    const bool failed = WIFSIGNALED(status) || WEXITSTATUS(status) == kExitFailed;
    if (failed && (WIFSIGNALED(status) || !open_program(set).valid())) {
        fail("the set \"" + name + "\" has ended", kExitNotRunning);
    }
    return exit_code_of(status);
}

int execute_inside(const std::string &directory, const std::vector<std::string> &argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int error = 0;
    const pid_t child = spawn(
        argv,
        [&] {
            prctl(PR_SET_PDEATHSIG, SIGHUP);
            enter_directory(directory);
        },
        &error);
    if (child < 0) fail(argv[0] + ": " + std::strerror(error), exit_code_of_failed_run(error));
    return exit_code_of(wait_for(child));
}

}  // namespace vestra_set
