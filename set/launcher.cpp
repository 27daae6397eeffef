#include "set/launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>

#include "set/bubblewrap.h"
#include "set/layout.h"
#include "set/messages.h"

namespace vestra_set {
namespace {

using nlohmann::json;

void say(const std::string &text) {
    std::cerr << "vestra-set: " << text << std::endl;
}

// What can be told before anything is started. False when a set cannot be made here.
bool possible_here(const LaunchPlan &plan) {
    if (find_program("bwrap").empty()) {
        say("bubblewrap is missing (no bwrap in PATH); install the package \"bubblewrap\"");
        return false;
    }
    if (!plan.options.node) return true;
    const UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (fuse.valid()) return true;
    if (errno == EACCES || errno == EPERM) {
        say("the control node needs /dev/fuse, and you may not use it (" + std::string(std::strerror(errno)) +
            ")\n  either run vestra-set as root, or let everybody use it, as desktops do: chmod 666 /dev/fuse");
    } else {
        say("the control node needs /dev/fuse, and it cannot be opened (" + std::string(std::strerror(errno)) +
            ")\n  load the kernel module with: modprobe fuse\n  in a container, pass the device in: --device "
            "/dev/fuse");
    }
    return false;
}

void say_namespace_refused() {
    if (geteuid() == 0) {
        say("bubblewrap could not build the set's namespace (its own words are above)\n"
            "  in a container, root needs the right to mount: --privileged, or --cap-add SYS_ADMIN with\n"
            "  --security-opt seccomp=unconfined --security-opt apparmor=unconfined");
    } else {
        say("bubblewrap could not build the set's namespace (its own words are above)\n"
            "  either run vestra-set as root, or let everybody have user namespaces:\n"
            "  sysctl -w user.max_user_namespaces=10000; on some hosts also kernel.unprivileged_userns_clone=1 or\n"
            "  kernel.apparmor_restrict_unprivileged_userns=0");
    }
}

// A descriptor for the signals that the launcher acts on, which it no longer dies of.
UniqueFd take_signals() {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    return UniqueFd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
}

pid_t start_bubblewrap(const LaunchPlan &plan, const std::string &program, int link) {
    std::vector<std::string> args = bubblewrap_arguments(plan, program);
    args.insert(args.end(), {"--", kLauncher, "inner-init", std::to_string(link), "--", program});
    args.insert(args.end(), plan.program.begin() + 1, plan.program.end());
    std::vector<char *> argv;
    for (std::string &argument : args) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const std::string bwrap = find_program("bwrap");

    const pid_t launcher = getpid();
    const pid_t child = fork();
    if (child != 0) return child;
    // bubblewrap asks for this too, but only once it runs: a launcher that is killed before would leave a set behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != launcher) _exit(127);
    // Ctrl-C reaches every process of the terminal; only the launcher and the set's program are to act on it.
    for (const int number : {SIGINT, SIGQUIT, SIGHUP}) signal(number, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    fcntl(link, F_SETFD, 0);
    execv(bwrap.c_str(), argv.data());
    _exit(127);
}

// Hands signals to the set: its program gets them, except that the daemon is stopped in order, by force at the second.
void pass_signals(int signals, int link, const LaunchPlan &plan, bool *stopping) {
    signalfd_siginfo info;
    while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        const int number = static_cast<int>(info.ssi_signo);
        if (!plan.options.daemon) {
            // From the terminal it has them already.
            if (info.ssi_code != SI_KERNEL) send_message(link, {{"op", "signal"}, {"number", number}});
        } else if (!*stopping) {
            *stopping = true;
            send_message(link, {{"op", "stop"}, {"grace", plan.grace}});
        } else {
            send_message(link, {{"op", "kill"}});
        }
    }
}

// Follows the set until it has ended. Returns the exit code, and the signal that ended the program or 0.
int follow(int link, int signals, const LaunchPlan &plan, int *signal_number) {
    bool stopping = false;
    bool heard = false;
    for (;;) {
        pollfd waits[] = {{link, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(waits, 2, -1) < 0) continue;
        if (waits[1].revents != 0) pass_signals(signals, link, plan, &stopping);
        if (waits[0].revents == 0) continue;
        const auto message = receive_message(link);
        if (!message) {
            if (heard) {
                say("the set was killed");
                return kExitFailed;
            }
            say_namespace_refused();
            return kExitNoSet;
        }
        heard = true;
        if (message->contains("error")) say(message->value("error", ""));
        if (message->contains("ready") && plan.options.daemon && !plan.quiet) {
            say("set \"" + plan.options.name + "\" is up; Ctrl-C or \"vestra-set stop --name " + plan.options.name +
                "\" ends it");
        }
        if (message->contains("text") && !plan.quiet) say(message->value("text", ""));
        if (message->contains("signal")) {
            *signal_number = message->value("signal", 0);
            return 128 + *signal_number;
        }
        if (message->contains("exit")) return message->value("exit", 0);
    }
}

}  // namespace

int launch(LaunchPlan plan, int *signal) {
    *signal = 0;
    if (std::getenv("VESTRA_SET_INSIDE") != nullptr) {
        say("this is inside a simulated set already; sets do not nest");
        return kExitNoSet;
    }
    if (!possible_here(plan)) return kExitNoSet;
    const std::string program = find_program(plan.program.at(0));
    if (program.empty()) {
        say(plan.program[0] + ": there is no such program");
        return 127;
    }
    std::error_code ignored;
    if (plan.options.directory.empty()) plan.options.directory = std::filesystem::current_path(ignored);

    // Made here as well, so that a wrong option is reported before anything is built.
    std::string error;
    if (plan.options.node && make_source(plan.options.source, &error) == nullptr) {
        say("trace source: " + error);
        return kExitUsage;
    }
    UniqueFd link;
    UniqueFd inner_link;
    if (!message_pair(&link, &inner_link)) {
        say(std::string("socketpair: ") + std::strerror(errno));
        return kExitFailed;
    }
    const UniqueFd signals = take_signals();
    const pid_t bwrap = start_bubblewrap(plan, program, inner_link.get());
    inner_link.reset();
    if (bwrap < 0) {
        say(std::string("fork: ") + std::strerror(errno));
        return kExitFailed;
    }
    send_message(link.get(), json(plan.options));
    const int code = follow(link.get(), signals.get(), plan, signal);

    // Gone only when bubblewrap is: nothing of the set is left after that.
    link.reset();
    while (waitpid(bwrap, nullptr, 0) < 0 && errno == EINTR) {
    }
    return code;
}

std::string find_program(const std::string &name) {
    const auto usable = [](const std::string &path) -> std::string {
        std::error_code ignored;
        if (access(path.c_str(), X_OK) != 0 || std::filesystem::is_directory(path, ignored)) return {};
        return std::filesystem::absolute(path, ignored).lexically_normal();
    };
    if (name.empty()) return {};
    if (name.find('/') != std::string::npos) return usable(name);
    const char *variable = std::getenv("PATH");
    std::string_view rest = variable != nullptr ? variable : "/usr/bin:/bin";
    while (!rest.empty()) {
        const std::string_view directory = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(rest.size(), directory.size() + 1));
        std::string found = usable((directory.empty() ? "." : std::string(directory)) + "/" + name);
        if (!found.empty()) return found;
    }
    return {};
}

std::string own_program() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

}  // namespace vestra_set
