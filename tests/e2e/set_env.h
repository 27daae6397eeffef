// The daemon as a process of its own, with its real threads and waits, in a set with a control node; and what people
// and other programs do to it.
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
constexpr char kErrors[] = "/tmp/vestrad.err";  // what the daemon's child programs have to say
constexpr char kHistoryKey[] = "memory/SHM/trigger_db_write";
constexpr char kDatabase[] = "/opt/usr/home/owner/share/tvhistory.db";

// How often a part stands in a text.
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
    // Waits until it stands still.
    bool stops() const {
        int status = 0;
        return waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
    }
    bool runs() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    pid_t pid_;
};

inline Ran remote(const std::string &words) {
    return run(VESTRA_SET_PROGRAM " " + words);
}

// The module's word about itself, of this moment.
inline json module_status() {
    return json::parse(read_file("/tv/node/status"), nullptr, false);
}
inline int64_t handed_out(const char *what) {
    return module_status().value(what, int64_t{-1});
}

// One question by a client of its own; its answer goes to `answer`. A VESTRA_API_ result.
inline int ask(int type, int window, int timeout_ms, vestra_api_data *answer = nullptr) {
    vestra_api_data request = {};
    request.packet_type = type;
    request.window = window;
    const vestra_api_h client = vestra_api_open();
    const int result = vestra_api_ask(client, &request, 1, timeout_ms);
    vestra_api_close(client);
    if (answer != nullptr) *answer = request;
    return result;
}

// The segment, mapped as a client that knows no manners would.
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
        // What a test before this one in the same set has left.
        for (const char *file : {kLog, kErrors, kPrinted, "/tmp/fault", "/tmp/vestra_processes"}) fs::remove_all(file);
        for (const std::string &name : names_in("/tmp")) {
            if (name.rfind("temp-vestra", 0) == 0) fs::remove("/tmp/" + name);
        }
        for (const char *room : {"usb", "keys"}) {
            for (const std::string &name : names_in(state_path(room))) fs::remove(state_path(room) + "/" + name);
        }
        fs::remove(state_path("notifications.jsonl"));
        fs::remove(inject_);
        fs::remove_all(kStick);
        fs::create_directories(kStick);
        fs::create_directories("/tmp/fault");
        write_file("/etc/prd_info.ini", kVersionText);
        // Without a stick the daemon looks for one, three seconds long.
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
        EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
    }
    static bool logged(const std::string &text, size_t times = 1) { return count(read_file(kLog), text) >= times; }

    std::vector<std::string> threads() const {
        std::vector<std::string> names;
        const std::string tasks = "/proc/" + std::to_string(daemon_->pid()) + "/task/";
        for (const std::string &id : names_in(tasks)) {
            const std::string name = read_file(tasks + id + "/comm");
            names.push_back(name.substr(0, name.find('\n')));
        }
        return names;
    }

    void pause() const {
        kill(daemon_->pid(), SIGSTOP);
        ASSERT_TRUE(daemon_->stops());
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
