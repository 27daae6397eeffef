// The daemon in its own process, with its real threads and waits, in a set with a control node.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "platform/vestra_api.h"
#include "set/config_file.h"
#include "support/shell.h"

namespace vestra_test {

using namespace ::testing;
using nlohmann::json;

constexpr char kLog[] = "/tmp/vestrad.log";
constexpr char kPrinted[] = "/tmp/vestrad.out";
constexpr char kErrors[] = "/tmp/vestrad.err";  // of the daemon's child programs
constexpr char kHistoryKey[] = "memory/SHM/trigger_db_write";
constexpr char kDatabase[] = "/opt/usr/home/owner/share/tvhistory.db";

// How often a text contains a part.
inline size_t count(const std::string &text, const std::string &part) {
    size_t times = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++times;
    return times;
}

// Looks again every 10 ms for at most a minute.
inline bool comes_true(const std::function<bool()> &condition) {
    for (int look = 0; look < 6000; ++look) {
        if (condition()) return true;
        poll(nullptr, 0, 10);
    }
    return condition();
}

// A child that runs `body`, or what it executes; it is killed with this object, and with the test.
class Child {
  public:
    explicit Child(const std::function<void()> &body) : pid_(fork()) {
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() { end(); }

    pid_t pid() const { return pid_; }
    void end() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        wait();
    }
    // Its exit code, or minus the signal that ended it.
    int wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool runs() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    pid_t pid_;
};

inline Ran remote(const std::string &words) {
    return run(VESTRA_SET_PROGRAM " " + words);
}

// The module's status at this moment.
inline json module_status() {
    return json::parse(read_file("/tv/node/status"), nullptr, false);
}
inline int64_t handed_out(const char *what) {
    return module_status().value(what, int64_t{-1});
}

// One question by a new client; its answer goes to `answer`. Returns a VESTRA_API_ result.
inline int ask(int type, int window, int timeout_ms, vestra_api_data *answer = nullptr) {
    vestra_api_data request = {type, window, 0, 0, 0, 0, 0, 0};
    const vestra_api_h client = vestra_api_open();
    const int result = vestra_api_ask(client, &request, 1, timeout_ms);
    vestra_api_close(client);
    if (answer != nullptr) *answer = request;
    return result;
}

// The segment, mapped as a misbehaving client could.
struct Segment {
    Segment() {
        const int fd = shm_open("/vestra_api", O_RDWR, 0);
        struct stat info = {};
        fstat(fd, &info);
        size = static_cast<size_t>(info.st_size);
        void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (address == MAP_FAILED) _exit(99);
        record = static_cast<vestra_shm_record *>(address);
    }
    Segment(const Segment &) = delete;
    Segment &operator=(const Segment &) = delete;
    ~Segment() { munmap(record, size); }
    bool posted() const { return __atomic_load_n(&record->state, __ATOMIC_ACQUIRE) == VESTRA_REQUEST_POSTED; }

    vestra_shm_record *record;
    size_t size;
};

class SetTest : public Test {
  protected:
    SetTest() {
        // Removes what an earlier test in the same set left.
        run("cd " + state_path("") +
            " && rm -rf usb/* keys/* notifications.jsonl module/inject /tmp/fault /tmp/stick "
            "/tmp/vestrad.* /tmp/vestra_processes /tmp/temp-vestra*");
        fs::create_directories(kStick);
        fs::create_directories("/tmp/fault");
        write_file("/etc/prd_info.ini", kVersionText);
        // Without a stick the daemon looks for one for three seconds.
        usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
        configure({});
    }
    ~SetTest() override {
        daemon_.reset();
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
    void start(std::vector<std::string> arguments = {}) {
        fs::remove(kLog);
        arguments.insert(arguments.begin(), VESTRAD_PROGRAM);
        daemon_ = std::make_unique<Child>([&] {
            std::vector<char *> argv;
            for (std::string &argument : arguments) argv.push_back(argument.data());
            argv.push_back(nullptr);
            setenv("VESTRA_DLOG_FILE", kLog, 1);
            dup2(open(kPrinted, O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(kErrors, O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        });
        ASSERT_TRUE(comes_true([] { return logged("INFO: waiting for threads to join..."); }));
        for (const char *name : {"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"})
            EXPECT_THAT(threads(), HasSubstr(name));
    }
    static bool logged(const std::string &text, size_t times = 1) { return count(read_file(kLog), text) >= times; }

    // Their names, a line each.
    std::string threads() const { return run("cat /proc/" + std::to_string(daemon_->pid()) + "/task/*/comm").out; }

    void pause() const {
        int status = 0;
        kill(daemon_->pid(), SIGSTOP);
        ASSERT_EQ(waitpid(daemon_->pid(), &status, WUNTRACED), daemon_->pid());
    }
    void resume() const { kill(daemon_->pid(), SIGCONT); }

    // Lets the daemon have `blocks` more, then none, and waits until it has taken in the last.
    void fill_ring(int64_t blocks) const {
        const int64_t wanted = handed_out("blocks") + blocks;
        ASSERT_TRUE(comes_true([&] { return handed_out("blocks") >= wanted; }));
        write_file(inject_, "empty 1000000000\n");
        const auto empty = [] { return module_status()["reads"].value("empty", 0); };
        const int before = empty();
        ASSERT_TRUE(comes_true([&] { return empty() >= before + 2; }));
    }

    // The dumps in a directory, the newest last.
    static std::vector<std::string> dumps(const std::string &directory = kStick) {
        std::vector<std::string> found;
        for (const std::string &name : names_in(directory)) {
            if (name.rfind("0000000000_", 0) == 0) found.push_back(directory + "/" + name);
        }
        return found;
    }

    std::unique_ptr<Child> daemon_;

  private:
    const std::string inject_ = state_path("module/inject");
};

}  // namespace vestra_test
