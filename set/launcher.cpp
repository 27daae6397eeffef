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
#include <memory>

#include "set/bubblewrap.h"
#include "set/fd.h"
#include "set/files.h"
#include "set/inner_init.h"
#include "set/layout.h"
#include "set/process.h"
#include "set/stop_watch.h"

namespace vestra_set {
namespace {

using nlohmann::json;

// Fails where it is clear before anything is started that there can be no control node here.
void check_fuse() {
    const UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (fuse.valid()) return;
    const std::string why = std::string(" (") + std::strerror(errno) + ")\n  ";
    if (errno == EACCES || errno == EPERM) {
        fail("the control node needs /dev/fuse, and you may not use it" + why +
                 "either run vestra-set as root, or let everybody use it, as desktops do: chmod 666 /dev/fuse",
             kExitNoSet);
    }
    fail("the control node needs /dev/fuse, and it cannot be opened" + why +
             "load the kernel module with: modprobe fuse\n"
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

// A descriptor for the signals that the launcher acts on; they no longer end it.
UniqueFd take_signals() {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    return UniqueFd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Starts bubblewrap and returns its process id. Whether it can build the namespace shows on `*link`, a socket to the
// set's first process.
pid_t start_bubblewrap(const LaunchPlan &plan, const std::string &program, UniqueFd *link) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail_errno("socketpair");
    link->reset(ends[0]);
    const UniqueFd inner_link(ends[1]);
    const UniqueFd options(memfd_create("set-options", MFD_CLOEXEC));
    const std::string text = json(plan.options).dump(-1, ' ', false, json::error_handler_t::replace);
    if (!write_all(options.get(), text) || lseek(options.get(), 0, SEEK_SET) != 0) fail_errno("the set's options");

    std::vector<std::string> args = bubblewrap_arguments(plan, program);
    args.insert(args.end(), {"--", kLauncher, "inner-init", std::to_string(options.get()),
                             std::to_string(inner_link.get()), "--", program});
    args.insert(args.end(), plan.program.begin() + 1, plan.program.end());
    const pid_t launcher = getpid();
    int error = 0;
    const pid_t bwrap = spawn(
        args,
        [&] {
            // bubblewrap asks for this too, but only once it runs: a launcher that is killed before would leave a set.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != launcher) _exit(kExitFailed);
            // Ctrl-C reaches every process of the terminal, and the end of timeout(1) all that it started; only the
            // launcher and the set's program act on it.
            for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
            for (const int fd : {options.get(), inner_link.get()}) fcntl(fd, F_SETFD, 0);
            set_environment_inside();
        },
        &error);
    if (bwrap > 0) return bwrap;
    if (error == ENOENT) {
        fail("bubblewrap is missing (no bwrap in PATH); install the package \"bubblewrap\"", kExitNoSet);
    }
    fail(std::string("bwrap: ") + std::strerror(error), kExitNoSet);
}

constexpr auto kSameSignal = std::chrono::milliseconds(200);

// Follows a set until it has ended.
class Follower {
  public:
    Follower(const LaunchPlan &plan, pid_t bwrap, int link, int signals)
        : plan_(plan), bwrap_(bwrap), link_(link), signals_(signals) {
        set_.name = plan.options.name;
        set_.launcher = getpid();
        set_.program = plan.program[0];
        set_.stop_signal = plan.options.daemon ? SIGRTMIN + 6 : SIGTERM;
    }

    // bubblewrap goes last of all.
    ~Follower() { wait_for(bwrap_); }
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

    // Returns the program's wait status; 0 for a daemon that was stopped, even by force or too early to handle the signal.
    int follow() {
        while (!ended_) {
            pollfd waits[] = {{link_, POLLIN, 0}, {signals_, POLLIN, 0}};
            // Signals that come before the set is up wait until then.
            poll(waits, up_ ? 2 : 1, stop_ != nullptr ? static_cast<int>(kStopLook.count()) : -1);
            if (waits[0].revents != 0) take_report();
            signalfd_siginfo info;
            while (up_ && read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) take(info);
            if (stop_ != nullptr) stop_->look();
        }
        const bool by_force =
            plan_.directory != nullptr && access((plan_.directory->path() + kForcedMark).c_str(), F_OK) == 0;
        const bool too_early = plan_.options.daemon && WIFSIGNALED(status_) && WTERMSIG(status_) == set_.stop_signal;
        return by_force || too_early ? 0 : status_;
    }

  private:
    void tell(const std::string &text) const {
        if (plan_.options.daemon && !plan_.quiet) say(text);
    }

    // The program gets the signal, except that the daemon is stopped in order, and by force at the second. One that
    // comes right after the first is the same: timeout(1) sends it to this process and then to its group.
    void take(const signalfd_siginfo &info) {
        const int number = static_cast<int>(info.ssi_signo);
        if (!plan_.options.daemon) {
            // From the terminal it has it already.
            if (info.ssi_code != SI_KERNEL) signal_process(program_, number);
        } else if (stop_ != nullptr) {
            if (stop_->age() > kSameSignal) stop_->force();
        } else {
            stop_ = std::make_unique<StopWatch>(set_, plan_.grace, [this](const std::string &line) { tell(line); });
        }
    }

    void take_report() {
        Report report{};
        if (recv(link_, &report, sizeof report, 0) != static_cast<ssize_t>(sizeof report)) {
            if (up_) fail("the set was killed");
            fail(geteuid() == 0 ? kNoNamespaceForRoot : kNoNamespace, kExitNoSet);
        }
        switch (report.kind) {
            case Report::kStarts:
                set_.process = report.number;
                program_ = open_process(set_.process);
                set_.start = start_time(program_);
                break;
            case Report::kUp:
                up_ = true;
                if (plan_.directory != nullptr && !plan_.directory->announce(set_)) {
                    say("the set cannot be reached: " + plan_.directory->path() + ".lock: " + std::strerror(errno));
                }
                tell("set \"" + set_.name + "\" is up; Ctrl-C or \"vestra-set stop --name " + set_.name + "\" ends it");
                break;
            case Report::kFailed:
                fail(report.text, report.number);
            case Report::kEnded:
                status_ = report.number;
                ended_ = true;
        }
    }

    const LaunchPlan &plan_;
    const pid_t bwrap_;
    const int link_;
    const int signals_;
    RunningSet set_;
    UniqueFd program_;
    bool up_ = false;
    bool ended_ = false;
    int status_ = 0;
    std::unique_ptr<StopWatch> stop_;
};

}  // namespace

int launch(LaunchPlan plan, int *signal) {
    *signal = 0;
    if (std::getenv("VESTRA_SET_INSIDE") != nullptr) {
        fail("this is inside a simulated set already; sets do not nest", kExitNoSet);
    }
    if (plan.options.node) check_fuse();
    const std::string program = find_program(plan.program.at(0));
    if (program.empty()) fail(plan.program[0] + ": there is no such program", 127);
    std::error_code ignored;
    if (plan.options.directory.empty()) plan.options.directory = std::filesystem::current_path(ignored);
    // Made here only so that a wrong option is reported before anything is built.
    std::string error;
    if (make_source(plan.options.source, &error) == nullptr) {
        fail("trace source: " + error, kExitUsage);
    }

    const UniqueFd signals = take_signals();
    UniqueFd link;
    const pid_t bwrap = start_bubblewrap(plan, program, &link);
    const int status = Follower(plan, bwrap, link.get(), signals.get()).follow();
    if (WIFSIGNALED(status)) *signal = WTERMSIG(status);
    return exit_code_of(status);
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
