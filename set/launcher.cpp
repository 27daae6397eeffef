#include "set/launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "set/bubblewrap.h"
#include "set/fd.h"
#include "set/files.h"
#include "set/inner_init.h"
#include "set/layout.h"
#include "set/process.h"

namespace vestra_set {
namespace {

using nlohmann::json;

// Fails where it is clear before anything is started that a set cannot be made here.
void check_needs(const LaunchPlan &plan) {
    if (find_program("bwrap").empty()) {
        fail("bubblewrap is missing (no bwrap in PATH); install the package \"bubblewrap\"", kExitNoSet);
    }
    if (!plan.options.node) return;
    const UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (fuse.valid()) return;
    if (errno == EACCES || errno == EPERM) {
        fail("the control node needs /dev/fuse, and you may not use it (" + std::string(std::strerror(errno)) +
                 ")\n  either run vestra-set as root, or let everybody use it, as desktops do: chmod 666 /dev/fuse",
             kExitNoSet);
    }
    fail("the control node needs /dev/fuse, and it cannot be opened (" + std::string(std::strerror(errno)) +
             ")\n  load the kernel module with: modprobe fuse\n"
             "  in a container, pass the device in: --device /dev/fuse",
         kExitNoSet);
}

constexpr const char *kNoNamespaceForRoot =
    "bubblewrap could not build the set's namespace (its own words are above)\n"
    "  in a container, root needs the right to mount: --privileged, or --cap-add SYS_ADMIN with\n"
    "  --security-opt seccomp=unconfined --security-opt apparmor=unconfined";
constexpr const char *kNoNamespace =
    "bubblewrap could not build the set's namespace (its own words are above)\n"
    "  either run vestra-set as root, or let everybody have user namespaces:\n"
    "  sysctl -w user.max_user_namespaces=10000; on some hosts also kernel.unprivileged_userns_clone=1 or\n"
    "  kernel.apparmor_restrict_unprivileged_userns=0";

// A descriptor for the signals that the launcher acts on, which it no longer dies of.
UniqueFd take_signals() {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    return UniqueFd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
}

// A set that is being made, or runs. It ends with this object.
struct Launched {
    UniqueFd link;      // to its first process
    pid_t bwrap = -1;   // child of this process; it is there for as long as anything of the set is
    pid_t init = 0;     // the first process; 0 when there never was one
    UniqueFd init_dir;  // its directory in /proc

    ~Launched() {
        if (bwrap < 0) return;
        // Already gone, except for a set that was interrupted while it was being made.
        if (!signal_process(init_dir, SIGKILL)) kill(bwrap, SIGKILL);
        wait_for(bwrap);
    }
};

// False with errno set when bubblewrap cannot be started. Whether it can build the namespace shows on the link.
bool start_bubblewrap(const LaunchPlan &plan, const std::string &program, Launched *set) {
    int link[2];
    int info[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, link) != 0) return false;
    set->link.reset(link[0]);
    UniqueFd inner_link(link[1]);
    if (pipe2(info, O_CLOEXEC) != 0) return false;
    const UniqueFd info_reader(info[0]);
    UniqueFd info_writer(info[1]);
    const UniqueFd options(memfd_create("set-options", MFD_CLOEXEC));
    const std::string text = json(plan.options).dump(-1, ' ', false, json::error_handler_t::replace);
    if (!options.valid() || !write_all(options.get(), text) || lseek(options.get(), 0, SEEK_SET) != 0) return false;

    std::vector<std::string> args = bubblewrap_arguments(plan, program);
    args.insert(args.end(), {"--info-fd", std::to_string(info_writer.get()), "--", kLauncher, "inner-init",
                             std::to_string(options.get()), std::to_string(inner_link.get()), "--", program});
    args.insert(args.end(), plan.program.begin() + 1, plan.program.end());
    const pid_t launcher = getpid();
    set->bwrap = spawn(
        args,
        [&] {
            // bubblewrap asks for this too, but only once it runs: a launcher that is killed before would leave a set.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != launcher) _exit(kExitFailed);
            // Ctrl-C reaches every process of the terminal; only the launcher and the set's program act on it.
            for (const int number : {SIGINT, SIGQUIT, SIGHUP}) signal(number, SIG_IGN);
            for (const int fd : {options.get(), inner_link.get(), info_writer.get()}) fcntl(fd, F_SETFD, 0);
            set_environment_inside();
        },
        &errno);
    if (set->bwrap < 0) return false;
    info_writer.reset();
    // An object with the first process's id; nothing when bubblewrap has failed before it made one.
    const json child = json::parse(read_all(info_reader.get()).value_or(""), nullptr, false);
    set->init = child.is_object() ? child.value("child-pid", 0) : 0;
    set->init_dir = open_process(set->init);
    return true;
}

// Hands a signal to the set: its program gets it, except that the daemon is stopped in order, by force at the second.
void pass_signal(const signalfd_siginfo &info, const Launched &set, const LaunchPlan &plan, bool *stopping) {
    if (plan.options.daemon) {
        request_stop(set.init_dir, *stopping ? 0 : plan.grace);
        *stopping = true;
    } else if (info.ssi_code != SI_KERNEL) {  // from the terminal the program has it already
        signal_process(set.init_dir, static_cast<int>(info.ssi_signo));
    }
}

void set_is_up(const LaunchPlan &plan, const Launched &set) {
    if (plan.directory != nullptr && !plan.directory->announce(set.init, set.init_dir, plan.program[0])) {
        say("the set cannot be reached from outside: " + plan.directory->path() + ".lock: " + std::strerror(errno));
    }
    if (plan.options.daemon && !plan.quiet) {
        say("set \"" + plan.options.name + "\" is up; Ctrl-C or \"vestra-set stop --name " + plan.options.name +
            "\" ends it");
    }
}

// Follows the set until it has ended. Returns the exit code, and the signal that ended the program or 0.
int follow(const Launched &set, int signals, const LaunchPlan &plan, int *signal_number) {
    bool up = false;
    bool stopping = false;
    for (;;) {
        pollfd waits[] = {{set.link.get(), POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(waits, 2, -1) < 0) continue;
        signalfd_siginfo info;
        while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            if (up) {
                pass_signal(info, set, plan, &stopping);
            } else {
                *signal_number = static_cast<int>(info.ssi_signo);  // not started yet, so nothing to end in order
                return 128 + *signal_number;
            }
        }
        if (waits[0].revents == 0) continue;
        Report report{};
        if (recv(set.link.get(), &report, sizeof report, 0) != static_cast<ssize_t>(sizeof report)) {
            if (up) fail("the set was killed");
            fail(geteuid() == 0 ? kNoNamespaceForRoot : kNoNamespace, kExitNoSet);
        }
        switch (report.kind) {
            case Report::kUp:
                up = true;
                set_is_up(plan, set);
                break;
            case Report::kText:
                if (!plan.quiet) say(report.text);
                break;
            case Report::kFailed:
                fail(report.text, report.status);
            case Report::kEnded:
                if (WIFSIGNALED(report.status)) *signal_number = WTERMSIG(report.status);
                return exit_code_of(report.status);
        }
    }
}

}  // namespace

int launch(LaunchPlan plan, int *signal) {
    *signal = 0;
    if (std::getenv("VESTRA_SET_INSIDE") != nullptr) {
        fail("this is inside a simulated set already; sets do not nest", kExitNoSet);
    }
    check_needs(plan);
    const std::string program = find_program(plan.program.at(0));
    if (program.empty()) fail(plan.program[0] + ": there is no such program", 127);
    std::error_code ignored;
    if (plan.options.directory.empty()) plan.options.directory = std::filesystem::current_path(ignored);
    // Made here only so that a wrong option is reported before anything is built.
    std::string error;
    if (plan.options.node && make_source(plan.options.source, &error) == nullptr) {
        fail("trace source: " + error, kExitUsage);
    }

    const UniqueFd signals = take_signals();
    Launched set;
    if (!start_bubblewrap(plan, program, &set)) fail_errno("starting bubblewrap");
    return follow(set, signals.get(), plan, signal);
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
