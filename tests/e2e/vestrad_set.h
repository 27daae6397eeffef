// The daemon itself, with its real threads and waits, in a set with a control node. The set hands out whole blocks
// (131072 bytes) at every read: a chain of 1 MiB is full after some five seconds.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "set/config_file.h"

namespace vestra_test {

namespace fs = std::filesystem;

constexpr char kLog[] = "/tmp/vestrad.log";
constexpr char kErrors[] = "/tmp/vestrad.err";  // what the daemon's child programs have to say
constexpr char kStick[] = "/media/stick";
constexpr char kTrailer[] = "1234.5/QX-55\n\x0d";

inline std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_file(const fs::path &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> names_in(const fs::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    return names;
}

// Looks again every 20 ms for at most a minute.
inline bool comes_true(const std::function<bool()> &condition) {
    for (int look = 0; look < 3000; ++look) {
        if (condition()) return true;
        poll(nullptr, 0, 20);
    }
    return condition();
}

inline nlohmann::json module_status() {
    return nlohmann::json::parse(read_file(state_path("module/status.json")), nullptr, false);
}

class VestradSet : public ::testing::Test {
  protected:
    VestradSet() {
        // What a test before this one in the same set has left.
        for (const char *file : {kLog, kErrors, "/tmp/vestrad.out", "/tmp/fault", "/tmp/vestra_processes"}) {
            fs::remove_all(file);
        }
        for (const std::string &name : names_in("/tmp")) {
            if (name.rfind("temp-vestra", 0) == 0) fs::remove("/tmp/" + name);
        }
        for (const char *room : {"usb", "keys"}) {
            for (const std::string &name : names_in(state_path(room))) fs::remove(state_path(room) + "/" + name);
        }
        fs::remove(state_path("notifications.jsonl"));
        fs::remove_all(kStick);
        fs::create_directories(kStick);
        write_file("/etc/prd_info.ini", "Model=QX-55\nBuild=1234.5\r\n");
        write_file("/sys/devices/platform/soc/thermal/temperature", "57\n");
        usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
        configure({});
    }
    ~VestradSet() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (HasFailure()) printf("%s\n%s\n", read_file(kErrors).c_str(), read_file(kLog).c_str());
    }

    static void configure(std::vector<std::string> settings) {
        settings.insert(settings.begin(), "max_file_size=1");
        std::string error;
        const std::string text = vestra_set::make_config(settings, &error);
        ASSERT_FALSE(text.empty()) << error;
        write_file("/opt/data/vestraDir/orna_vestra_config.xml", text);
    }

    // Starts the daemon and waits until all its threads are there.
    void start(const std::vector<const char *> &arguments = {}) {
        std::vector<char *> argv = {const_cast<char *>(VESTRAD_PROGRAM)};
        for (const char *argument : arguments) argv.push_back(const_cast<char *>(argument));
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            setenv("VESTRA_DLOG_FILE", kLog, 1);
            setenv("VESTRA_DLOG_LEVEL", log_level_, 1);
            dup2(open("/tmp/vestrad.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(kErrors, O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            execv(VESTRAD_PROGRAM, argv.data());
            _exit(127);
        }
        ASSERT_TRUE(comes_true([&] { return logged("INFO: waiting for threads to join..."); }));
        EXPECT_THAT(threads(),
                    ::testing::IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
    }

    static bool logged(const std::string &text, int times = 1) {
        const std::string log = read_file(kLog);
        for (size_t at = 0; times > 0; --times) {
            at = log.find(text, at);
            if (at == std::string::npos) return false;
            at += text.size();
        }
        return true;
    }

    std::vector<std::string> threads() const {
        std::vector<std::string> names;
        const std::string tasks = "/proc/" + std::to_string(pid_) + "/task/";
        for (const std::string &id : names_in(tasks)) {
            std::string name = read_file(tasks + id + "/comm");
            names.push_back(name.substr(0, name.find('\n')));
        }
        return names;
    }

    bool alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

    // The dumps on the stick, the newest last.
    static std::vector<fs::path> dumps(const char *stick = kStick) {
        std::vector<fs::path> found;
        for (const std::string &name : names_in(stick)) {
            if (name.rfind("0000000000_", 0) == 0) found.push_back(fs::path(stick) / name);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    const char *log_level_ = "info";
    pid_t pid_ = -1;
};

}  // namespace vestra_test
