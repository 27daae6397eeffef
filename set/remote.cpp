#include "set/remote.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "set/launcher.h"
#include "set/messages.h"
#include "set/set_directory.h"

namespace vestra_set {

UniqueFd connect_to_set(const std::string &name, bool quietly) {
    // By way of the directory's descriptor, for a socket's address has room for 107 characters only.
    const UniqueFd directory(open(set_directory(name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/control.sock", directory.get());
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (directory.valid() && fd.valid() &&
        connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        return fd;
    }
    if (quietly) return {};
    std::cerr << "vestra-set: no set \"" << name << "\" is running";
    const auto sets = running_sets();
    if (!sets.empty()) std::cerr << "; running:";
    for (const RunningSet &set : sets) std::cerr << " " << set.name;
    if (sets.empty()) std::cerr << "; start one with \"vestra-set run\"";
    std::cerr << std::endl;
    return {};
}

int execute_in_set(const std::string &name, const std::vector<std::string> &argv) {
    const UniqueFd set = connect_to_set(name);
    if (!set.valid()) return kExitNotRunning;
    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM}) sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const UniqueFd signals(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));

    std::error_code ignored;
    const char *term = std::getenv("TERM");
    const nlohmann::json request = {{"op", "exec"},
                                    {"argv", argv},
                                    {"directory", std::filesystem::current_path(ignored).string()},
                                    {"term", term != nullptr ? term : ""}};
    if (!send_message(set.get(), request, {0, 1, 2})) {
        std::cerr << "vestra-set: " << std::strerror(errno) << std::endl;
        return kExitFailed;
    }
    for (;;) {
        pollfd waits[] = {{set.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        if (poll(waits, 2, -1) < 0) continue;
        signalfd_siginfo info;
        if (waits[1].revents != 0 && read(signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            send_message(set.get(), {{"op", "signal"}, {"number", info.ssi_signo}});
        }
        if (waits[0].revents == 0) continue;
        const auto message = receive_message(set.get());
        if (!message) {
            std::cerr << "vestra-set: the set \"" << name << "\" has ended" << std::endl;
            return kExitNotRunning;
        }
        if (message->contains("error")) std::cerr << "vestra-set: " << message->value("error", "") << std::endl;
        if (message->contains("signal")) return 128 + message->value("signal", 0);
        if (message->contains("exit")) return message->value("exit", 0);
    }
}

}  // namespace vestra_set
