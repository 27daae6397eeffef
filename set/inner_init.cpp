#include "set/inner_init.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <list>
#include <memory>
#include <optional>

#include "set/launcher.h"
#include "set/layout.h"
#include "set/messages.h"
#include "set/node_server.h"
#include "set/process.h"
#include "set/set_options.h"
#include "set/stop_watch.h"

namespace vestra_set {
namespace {

using nlohmann::json;

constexpr int kIdleMs = 250;     // when nothing happens
constexpr int kStoppingMs = 20;  // between looks at a program that has been asked to end
constexpr auto kLinksInterval = std::chrono::milliseconds(250);  // between looks at the process ids given out
constexpr int kLinksAhead = 4096;                                // process ids that /proc has a link for in advance
constexpr int kLinksLimit = 65536;  // and the last that gets one: each costs about a kilobyte

json outcome(int status) {
    if (WIFSIGNALED(status)) return {{"signal", WTERMSIG(status)}};
    return {{"exit", WEXITSTATUS(status)}};
}

struct Client {
    UniqueFd socket;
    pid_t child = 0;          // what it had executed
    bool waits_stop = false;  // is told how the stop goes
    bool gone = false;
};

class Init {
  public:
    explicit Init(int link) : link_(link) {}

    int run(const std::vector<std::string> &program) {
        if (!prepare()) return 1;
        if (!start(program)) return 1;
        send_message(link_.get(), {{"ready", true}});
        for (;;) step();
    }

  private:
    bool fail(const std::string &text, int code = kExitNoSet) {
        send_message(link_.get(), {{"error", text}, {"exit", code}});
        return false;
    }
    bool fail_errno(const std::string &what) { return fail(what + ": " + std::strerror(errno)); }

    bool prepare() {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGCHLD);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        signal(SIGPIPE, SIG_IGN);
        signals_.reset(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!signals_.valid()) return fail_errno("signalfd");

        const auto message = receive_message(link_.get());
        if (!message) return false;
        options_ = message->get<SetOptions>();
        std::string error;
        if (!make_layout(options_, &error)) return fail(error);
        return (!options_.node || start_node()) && listen_for_clients();
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

    bool listen_for_clients() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kControlSocket, sizeof address.sun_path - 1);
        listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        unlink(kControlSocket);
        if (!listener_.valid() || bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            chmod(kControlSocket, 0600) != 0 || listen(listener_.get(), 16) != 0) {
            return fail_errno(kControlSocket);
        }
        return true;
    }

    bool start(const std::vector<std::string> &program) {
        Spawn what;
        what.argv = program;
        what.directory = options_.directory;
        if (options_.daemon) {
            // Ctrl-C is for the launcher, which then stops the daemon in order.
            what.place = Spawn::kOwnGroup;
            if (!options_.log.empty()) what.environment.emplace_back("VESTRA_DLOG_FILE", options_.log);
            if (!options_.log_level.empty()) what.environment.emplace_back("VESTRA_DLOG_LEVEL", options_.log_level);
        }
        int error = 0;
        program_name_ = program.empty() ? "" : program[0];
        program_ = spawn(what, &error);
        if (program_ > 0) return true;
        return fail(program_name_ + ": " + std::strerror(error), exit_code_of_failed_run(error));
    }

    void step() {
        std::vector<pollfd> waits{{signals_.get(), POLLIN, 0}, {link_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const Client &client : clients_) waits.push_back({client.socket.get(), POLLIN, 0});
        const int ready = poll(waits.data(), waits.size(), stop_ ? kStoppingMs : kIdleMs);
        if (ready < 0 && errno != EINTR) _exit(1);
        const auto now = std::chrono::steady_clock::now();
        if (now - links_made_ >= kLinksInterval) {
            links_made_ = now;
            extend_process_links(std::min(newest_process_id() + kLinksAhead, kLinksLimit));
        }
        if (ready > 0) {
            if (waits[0].revents != 0) reap();
            if (waits[1].revents != 0) handle_link();
            // Clients before the listener, which adds to them.
            size_t i = 3;
            for (Client &client : clients_) {
                if (waits[i++].revents == 0 || client.gone) continue;
                try {
                    handle_client(client);
                } catch (const json::exception &) {
                    client.gone = true;  // not a request of ours
                }
            }
            clients_.remove_if([](const Client &client) { return client.gone; });
            if (waits[2].revents != 0) accept_client();
        }
        if (stop_ && !forced_ && stop_->time_to_force()) {
            forced_ = true;
            kill(program_, SIGKILL);
        }
    }

    void reap() {
        signalfd_siginfo info;
        while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        }
        int status;
        pid_t child;
        while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
            if (child == program_) finish(status);
            if (child == node_) tell("the control node's server has ended " + outcome(status).dump());
            for (Client &client : clients_) {
                if (client.child != child) continue;
                client.child = 0;
                client.gone = true;
                send_message(client.socket.get(), outcome(status));
            }
        }
    }

    // The set's program has ended: so does everything.
    [[noreturn]] void finish(int status) {
        json result = outcome(status);
        if (stop_) {
            char text[96];
            if (forced_) {
                std::snprintf(text, sizeof text, "ended by force after %.1f s", stop_->elapsed_seconds());
                result = {{"exit", 0}};
            } else {
                std::snprintf(text, sizeof text, "ended by itself after %.1f s, %s %d", stop_->elapsed_seconds(),
                              WIFSIGNALED(status) ? "by signal" : "exit code",
                              WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
            }
            tell(text);
            for (const Client &client : clients_) {
                if (client.waits_stop) send_message(client.socket.get(), {{"exit", 0}});
            }
        }
        send_message(link_.get(), result);
        _exit(0);
    }

    // One line about what is happening, to the launcher and to who asked for the stop.
    void tell(const std::string &line) {
        send_message(link_.get(), {{"text", line}});
        for (const Client &client : clients_) {
            if (client.waits_stop) send_message(client.socket.get(), {{"text", line}});
        }
    }

    void begin_stop(double grace) {
        if (stop_) return;
        const int number = options_.daemon ? SIGRTMIN + 6 : SIGTERM;
        stop_ = std::make_unique<StopWatch>(std::string(kRealProc) + "/" + std::to_string(program_), grace,
                                            [this](const std::string &line) { tell(line); });
        tell("sending " + std::string(options_.daemon ? "SIGRTMIN+6" : "SIGTERM") + " to " + program_name_);
        kill(program_, number);
    }

    void handle_link() {
        const auto message = receive_message(link_.get());
        if (!message) _exit(1);  // the launcher has gone
        const std::string op = message->value("op", "");
        if (op == "stop") begin_stop(message->value("grace", 3.0));
        if (op == "signal") kill(program_, message->value("number", 0));
        if (op == "kill") kill(program_, SIGKILL);
    }

    void accept_client() {
        const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) clients_.emplace_back().socket.reset(fd);
    }

    void handle_client(Client &client) {
        std::vector<UniqueFd> fds;
        const auto message = receive_message(client.socket.get(), &fds);
        if (!message) {
            client.gone = true;
            if (client.child > 0) kill(-client.child, SIGHUP);
            return;
        }
        const std::string op = message->value("op", "");
        if (op == "exec") {
            execute(client, *message, fds);
        } else if (op == "signal" && client.child > 0) {
            kill(-client.child, message->value("number", 0));
        } else if (op == "stop") {
            client.waits_stop = true;
            begin_stop(message->value("grace", 3.0));
        } else if (op == "info") {
            send_message(
                client.socket.get(),
                {{"name", options_.name}, {"program", program_name_}, {"pid", program_}, {"daemon", options_.daemon}});
        }
    }

    void execute(Client &client, const json &message, const std::vector<UniqueFd> &fds) {
        Spawn what;
        what.argv = message.value("argv", std::vector<std::string>());
        what.directory = message.value("directory", "/");
        const std::string term = message.value("term", "");
        if (!term.empty()) what.environment.emplace_back("TERM", term);
        for (const UniqueFd &fd : fds) what.stdio.push_back(fd.get());
        what.place = Spawn::kOwnSession;
        int error = EINVAL;
        const pid_t child = client.child == 0 && fds.size() == 3 ? spawn(what, &error) : -1;
        if (child < 0) {
            send_message(client.socket.get(),
                         {{"error", (what.argv.empty() ? "exec" : what.argv[0]) + ": " + std::strerror(error)},
                          {"exit", exit_code_of_failed_run(error)}});
            return;
        }
        client.child = child;
    }

    UniqueFd link_;
    UniqueFd signals_;
    UniqueFd listener_;
    SetOptions options_;
    std::string program_name_;
    pid_t program_ = -1;
    pid_t node_ = -1;
    std::list<Client> clients_;
    std::unique_ptr<StopWatch> stop_;
    bool forced_ = false;
    std::chrono::steady_clock::time_point links_made_ = std::chrono::steady_clock::now();
};

}  // namespace

int inner_init(int link, const std::vector<std::string> &program) {
    fcntl(link, F_SETFD, FD_CLOEXEC);
    try {
        return Init(link).run(program);
    } catch (const std::exception &problem) {
        send_message(link, {{"error", std::string("inside the set: ") + problem.what()}, {"exit", 1}});
        return 1;
    }
}

}  // namespace vestra_set
