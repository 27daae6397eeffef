#include "set/inner_init.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>

#include "set/complain.h"
#include "set/files.h"
#include "set/layout.h"
#include "set/node_server.h"
#include "set/process.h"
#include "set/set_directory.h"
#include "set/set_options.h"
#include "set/stop_watch.h"

namespace vestra_set {
namespace {

constexpr double kDefaultGrace = 3.0;  // seconds, for a request that says nothing
constexpr int kIdleMs = 250;           // when nothing happens
constexpr int kStoppingMs = 20;        // between looks at a program that has been asked to end
constexpr auto kLinksInterval = std::chrono::milliseconds(250);  // between looks at the process ids given out
constexpr int kLinksAhead = 4096;                                // process ids that /proc has a link for in advance
constexpr int kLinksLimit = 65536;  // and the last that gets one: each costs about a kilobyte

int stop_signal() {
    return SIGRTMIN + 6;
}

std::string in_words(int status) {
    return WIFSIGNALED(status) ? "by signal " + std::to_string(WTERMSIG(status))
                               : "exit code " + std::to_string(WEXITSTATUS(status));
}

class Init {
  public:
    explicit Init(int link) : link_(link) {}

    int run(int options, const std::vector<std::string> &program) {
        if (!prepare(options) || !start(program)) return 1;
        report(Report::kUp);
        for (;;) step();
    }

    void report(Report::Kind kind, int status = 0, const std::string &text = "") {
        Report packet{kind, status, {}};
        std::snprintf(packet.text, sizeof packet.text, "%s", text.c_str());
        // Never waits: a launcher that is held up must not hold up the set.
        send(link_.get(), &packet, sizeof packet, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

  private:
    bool fail(const std::string &text, int code = kExitNoSet) {
        report(Report::kFailed, code, text);
        return false;
    }
    bool fail_errno(const std::string &what) { return fail(what + ": " + std::strerror(errno)); }

    bool prepare(int options) {
        sigset_t mask;
        sigemptyset(&mask);
        for (const int number : {SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP, stop_signal()}) sigaddset(&mask, number);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        signals_.reset(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!signals_.valid()) return fail_errno("signalfd");
        const UniqueFd file(options);
        options_ = nlohmann::json::parse(read_all(options).value_or("")).get<SetOptions>();
        std::string error;
        if (!make_layout(options_, &error)) return fail(error);
        return !options_.node || start_node();
    }

    // The file system is mounted here, so that it is there before the set's program starts.
    bool start_node() {
        UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
        if (!fuse.valid()) return fail_errno("/dev/fuse");
        const std::string data =
            "fd=" + std::to_string(fuse.get()) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
        if (mount("vestra-set", kNodeDir, "fuse.vestra-set", MS_NOSUID | MS_NODEV, data.c_str()) != 0) {
            return fail_errno("mounting the control node");
        }
        node_ = fork();
        if (node_ < 0) return fail_errno("fork");
        if (node_ == 0) {
            link_.reset();
            signals_.reset();
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            _exit(serve_node(fuse.get(), options_.source));
        }
        // The server has the only descriptor now: this waits for its first answer, and fails if it ends before.
        fuse.reset();
        struct stat ignored;
        if (stat(kNodeDir, &ignored) != 0) return fail("the control node's server did not start");
        hide_host();
        return true;
    }

    bool start(const std::vector<std::string> &program) {
        program_name_ = program[0];
        int error = 0;
        program_ = spawn(
            program,
            [this] {
                // Ctrl-C is for the launcher, which then stops the daemon in order.
                if (options_.daemon) setpgid(0, 0);
                if (!options_.log.empty()) setenv("VESTRA_DLOG_FILE", options_.log.c_str(), 1);
                if (!options_.log_level.empty()) setenv("VESTRA_DLOG_LEVEL", options_.log_level.c_str(), 1);
                enter_directory(options_.directory);
            },
            &error);
        return program_ > 0 || fail(program_name_ + ": " + std::strerror(error), exit_code_of_failed_run(error));
    }

    void step() {
        pollfd waits[] = {{signals_.get(), POLLIN, 0}, {link_.get(), 0, 0}};
        poll(waits, 2, stop_ ? kStoppingMs : kIdleMs);
        if (waits[1].revents != 0) _exit(1);  // the launcher is gone
        signalfd_siginfo info;
        while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) take_signal(info);
        const auto now = std::chrono::steady_clock::now();
        if (now - links_made_ >= kLinksInterval) {
            links_made_ = now;
            extend_process_links(std::min(newest_process_id() + kLinksAhead, kLinksLimit));
        }
        if (stop_ && !forced_ && stop_->time_to_force()) force();
    }

    void take_signal(const signalfd_siginfo &info) {
        const int number = static_cast<int>(info.ssi_signo);
        if (number == SIGCHLD) {
            reap();
        } else if (number == stop_signal()) {
            const double grace = info.ssi_code == SI_QUEUE ? info.ssi_int / 1000.0 : kDefaultGrace;
            if (!stop_) {
                begin_stop(grace);
            } else if (grace <= 0) {
                force();
            }
        } else if (info.ssi_code != SI_KERNEL) {
            kill(program_, number);
        }
    }

    void reap() {
        int status;
        pid_t child;
        while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
            if (child == program_) finish(status);
            if (child == node_) tell("the control node's server has ended, " + in_words(status));
        }
    }

    // The set's program has ended: so does everything.
    [[noreturn]] void finish(int status) {
        if (stop_) {
            char seconds[32];
            std::snprintf(seconds, sizeof seconds, "%.1f s", stop_->elapsed_seconds());
            tell(forced_ ? std::string("ended by force after ") + seconds
                         : std::string("ended by itself after ") + seconds + ", " + in_words(status));
        }
        report(Report::kEnded, forced_ ? 0 : status);
        _exit(0);
    }

    // One line about what happens, for the launcher and for those who have asked for the stop.
    void tell(const std::string &line) {
        report(Report::kText, 0, line);
        const UniqueFd file(open(kStopLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        write_all(file.get(), line + "\n");
    }

    void begin_stop(double grace) {
        stop_ = std::make_unique<StopWatch>(std::string(kRealProc) + "/" + std::to_string(program_), grace,
                                            [this](const std::string &line) { tell(line); });
        tell("sending " + std::string(options_.daemon ? "SIGRTMIN+6" : "SIGTERM") + " to " + program_name_);
        kill(program_, options_.daemon ? SIGRTMIN + 6 : SIGTERM);
    }

    void force() {
        forced_ = true;
        kill(program_, SIGKILL);
    }

    UniqueFd link_;
    UniqueFd signals_;
    SetOptions options_;
    std::string program_name_;
    pid_t program_ = -1;
    pid_t node_ = -1;
    std::unique_ptr<StopWatch> stop_;
    bool forced_ = false;
    std::chrono::steady_clock::time_point links_made_ = std::chrono::steady_clock::now();
};

}  // namespace

bool request_stop(const UniqueFd &init, double grace) {
    return signal_process(init, stop_signal(), static_cast<int>(std::lround(grace * 1000)));
}

int inner_init(int options, int link, const std::vector<std::string> &program) {
    for (const int fd : {options, link}) fcntl(fd, F_SETFD, FD_CLOEXEC);
    Init init(link);
    try {
        return init.run(options, program);
    } catch (const std::exception &problem) {
        init.report(Report::kFailed, kExitFailed, std::string("inside the set: ") + problem.what());
        return kExitFailed;
    }
}

}  // namespace vestra_set
