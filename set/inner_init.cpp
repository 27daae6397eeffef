#include "set/inner_init.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "set/complain.h"
#include "set/fd.h"
#include "set/files.h"
#include "set/layout.h"
#include "set/node_server.h"
#include "set/process.h"
#include "set/set_options.h"

namespace vestra_set {
namespace {

constexpr auto kLinksInterval = std::chrono::milliseconds(250);  // between looks at the process ids given out
constexpr int kLinksAhead = 4096;                                // process ids that /proc has a link for in advance
constexpr int kLinksLimit = 65536;  // and the last that gets one: each costs about a kilobyte

UniqueFd g_link;

void report(Report::Kind kind, int number = 0, const std::string &text = "") {
    Report packet{kind, number, {}};
    std::snprintf(packet.text, sizeof packet.text, "%s", text.c_str());
    send(g_link.get(), &packet, sizeof packet, MSG_NOSIGNAL);
}

// The file system is mounted here, so that it is there before the program starts. Returns the server's process id.
pid_t start_node(const SourceOptions &source) {
    UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse.valid()) fail_errno("/dev/fuse");
    const std::string data = "fd=" + std::to_string(fuse.get()) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (mount("vestra-set", kNodeDir, "fuse.vestra-set", MS_NOSUID | MS_NODEV, data.c_str()) != 0) {
        fail_errno("mounting the control node");
    }
    const pid_t server = fork();
    if (server < 0) fail_errno("fork");
    if (server == 0) {
        g_link.reset();
        _exit(serve_node(fuse.get(), source));
    }
    // The server has the only descriptor now: this waits for its first answer, and fails if it ends before.
    fuse.reset();
    struct stat ignored;
    if (stat(kNodeDir, &ignored) != 0) fail("the control node's server did not start");
    return server;
}

pid_t start_program(const SetOptions &options, const std::vector<std::string> &program) {
    int error = 0;
    const pid_t child = spawn(
        program,
        [&] {
            std::error_code ignored;
            const auto self = std::filesystem::read_symlink(kHostDir + std::string("/proc/self"), ignored);
            report(Report::kStarts, static_cast<int>(std::strtol(self.c_str(), nullptr, 10)));
            // Ctrl-C is for the launcher, which then stops the daemon in order.
            if (options.daemon) setpgid(0, 0);
            if (!options.log.empty()) setenv("VESTRA_DLOG_FILE", options.log.c_str(), 1);
            if (!options.log_level.empty()) setenv("VESTRA_DLOG_LEVEL", options.log_level.c_str(), 1);
            enter_directory(options.directory);
        },
        &error);
    if (child < 0) fail(program[0] + ": " + std::strerror(error), exit_code_of_failed_run(error));
    return child;
}

// Takes the status of children that have ended. When the program has, so does everything.
void reap(pid_t program, pid_t node) {
    int status = 0;
    pid_t child = 0;
    while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
        if (child == node) say("the control node's server has ended");
        if (child != program) continue;
        report(Report::kEnded, status);
        _exit(0);
    }
}

[[noreturn]] void run(int options_file, const std::vector<std::string> &program) {
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    const auto options = nlohmann::json::parse(read_all(options_file).value_or("")).get<SetOptions>();
    close(options_file);
    make_layout(options);
    const pid_t node = options.node ? start_node(options.source) : -1;
    const pid_t child = start_program(options, program);
    hide_host();
    report(Report::kUp);
    for (auto links_made = std::chrono::steady_clock::now();;) {
        const timespec limit{0, std::chrono::nanoseconds(kLinksInterval).count()};
        sigtimedwait(&children, nullptr, &limit);
        reap(child, node);
        pollfd link{g_link.get(), 0, 0};
        if (poll(&link, 1, 0) > 0) _exit(kExitFailed);  // the launcher is gone
        if (std::chrono::steady_clock::now() - links_made < kLinksInterval) continue;
        links_made = std::chrono::steady_clock::now();
        extend_process_links(std::min(newest_process_id() + kLinksAhead, kLinksLimit));
    }
}

}  // namespace

int inner_init(int options, int link, const std::vector<std::string> &program) {
    for (const int fd : {options, link}) fcntl(fd, F_SETFD, FD_CLOEXEC);
    g_link.reset(link);
    try {
        run(options, program);
    } catch (const Failure &failure) {
        report(Report::kFailed, failure.code == kExitFailed ? kExitNoSet : failure.code, failure.what());
    } catch (const std::exception &problem) {
        report(Report::kFailed, kExitFailed, std::string("inside the set: ") + problem.what());
    }
    return kExitFailed;
}

}  // namespace vestra_set
