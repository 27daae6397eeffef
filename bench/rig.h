// Shared by crash, soak and load: the daemon as a child process in a set with a control node, and the triggers that
// other programs of a set would use. One thread unless noted otherwise.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "client/vestra_api.h"
#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"
#include "platform/vconf.h"

namespace rig {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kLog[] = "/tmp/vestrad.log";
constexpr char kReports[] = "/tmp/reports";  // directory of fault dumps
constexpr char kStick[] = "/media/STICK";
constexpr char kDodFolder[] = "/media/STICK/issue_report_agent_DOD/Vestra";
constexpr char kHistoryKey[] = "memory/SHM/trigger_db_write";

inline double ms_since(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}
inline void pause_ms(double ms) {
    usleep(static_cast<useconds_t>(ms * 1000));
}

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Checks every 2 ms. Returns false if the condition has not come true within `ms`.
inline bool comes_true(const std::function<bool()> &condition, double ms) {
    for (const auto begin = Clock::now(); !condition(); pause_ms(2)) {
        if (ms_since(begin) > ms) return false;
    }
    return true;
}

// The module's current status.
inline nlohmann::json module() {
    return nlohmann::json::parse(read_file("/tv/node/status"), nullptr, false);
}
inline uint64_t blocks_handed_out() {
    return module().value("blocks", uint64_t{0});
}
inline bool hand_out_nothing_more() {
    std::ofstream(state_path("module/inject")) << "empty 1000000000\n";
    const auto empty = [] { return module()["reads"].value("empty", 0); };
    const int before = empty();
    return comes_true([&] { return empty() > before + 40; }, 20000);  // the reader tries twenty times a round
}

// Quantile of sorted figures; `share` is 0 to 1.
template <class Figure>
Figure at_share(const std::vector<Figure> &sorted, double share) {
    return sorted.empty()
               ? Figure{}
               : sorted[std::min(sorted.size() - 1, static_cast<size_t>(share * static_cast<double>(sorted.size())))];
}

class Daemon {
  public:
    explicit Daemon(std::string program) : program_(std::move(program)) {}
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;
    ~Daemon() { kill_now(); }

    // `log` gets lines of `level` and above. Returns at once.
    void start(std::vector<std::string> arguments, const char *log, const char *level) {
        arguments.insert(arguments.begin(), program_);
        pid_ = fork();
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("VESTRA_DLOG_FILE", log, 1);
        setenv("VESTRA_DLOG_LEVEL", level, 1);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        std::vector<char *> argv;
        for (std::string &argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        execv(program_.c_str(), argv.data());
        _exit(127);
    }
    bool alive() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }
    void kill_now() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    pid_t pid() const { return pid_; }

  private:
    const std::string program_;
    pid_t pid_ = -1;
};

// Requests that other programs of a set may make at any moment. Every fault report names another
// process, so no dump is overwritten.
class Triggers {
  public:
    explicit Triggers(uint64_t seed) : random_(seed) {}

    enum Kind { kKey, kFault, kHistory, kDod, kFilter, kKinds };
    int count[kKinds] = {};

    void fire(Kind kind) {
        ++count[kind];
        switch (kind) {
            case kKey:
                key_combination_drop(87);
                break;
            case kFault:
                vconf_set_str("system/vestra/robust",
                              (std::string(kReports) + "|procd|" + std::to_string(++reports_)).c_str());
                break;
            case kHistory:
                vconf_set_int(kHistoryKey, 1);
                break;
            case kDod:
                vconf_set_int("system/DOD/test_monitor", static_cast<int>(below(2)));
                break;
            default: {
                static constexpr const char *kNames[] = {"ui-shell", "browser", "tuner", "epg", "netd", "voice"};
                std::error_code ignored;  // an old list is replaced
                std::ofstream("/tmp/list") << kNames[below(6)] << '\n' << kNames[below(6)] << '\n';
                fs::remove("/tmp/vestra_processes/processes.txt", ignored);
                fs::create_hard_link("/tmp/list", "/tmp/vestra_processes/processes.txt", ignored);
                fs::remove("/tmp/list", ignored);
            }
        }
    }
    // Any trigger but the key: while a key press waits for a full chain, nothing else is served.
    void fire_any() { fire(static_cast<Kind>(kFault + below(kKinds - kFault))); }

    uint64_t below(uint64_t limit) { return random_() % limit; }
    double between(double low, double high) { return std::uniform_real_distribution<double>(low, high)(random_); }

  private:
    std::mt19937_64 random_;
    int reports_ = 0;
};

inline int history_key() {
    int value = -1;
    vconf_get_int(kHistoryKey, &value);
    return value;
}

inline std::vector<std::string> files_in(const std::string &directory) {
    std::vector<std::string> files;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(directory, none)) {
        if (entry.is_regular_file(none)) files.push_back(entry.path().string());
    }
    return files;
}

inline void make_rooms() {
    fs::create_directories(kReports);
    fs::create_directories(kDodFolder);
    std::ofstream("/etc/prd_info.ini", std::ios::binary) << "Model=QX-55\nBuild=1234.5\r\n";
}

// Removes all dumps, unfinished dumps, and key presses that were not taken.
inline void sweep() {
    for (const char *directory : {kReports, kStick, kDodFolder}) {
        for (const std::string &file : files_in(directory)) fs::remove(file);
    }
    for (const std::string &file : files_in("/tmp")) {
        if (file.rfind("/tmp/temp-vestra", 0) == 0) fs::remove(file);
    }
    for (const std::string &press : files_in(state_path("keys"))) fs::remove(press);
}

}  // namespace rig
