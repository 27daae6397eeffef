// What the tests of the daemon's clients share: the daemon as a process of its own, in a set with a control node.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "gtest/gtest.h"
#include "platform/state_dir.h"
#include "platform/vestra_api.h"

namespace vestra_test {

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Looks again every 10 ms for at most `seconds`.
inline bool comes_true(const std::function<bool()> &condition, int seconds = 30) {
    for (int look = 0; look < seconds * 100; ++look) {
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

class ClientTest : public ::testing::Test {
  protected:
    static constexpr const char *kLog = "/tmp/vestrad.log";

    ClientTest() {
        unlink(inject_.c_str());
        blocks_before_ = module().value("blocks", uint64_t{0});
    }
    ~ClientTest() override {
        daemon_.reset();
        if (HasFailure()) printf("%s\n", read_file(kLog).c_str());
    }

    // Starts the daemon and waits until it answers.
    void start() {
        unlink(kLog);
        daemon_ = std::make_unique<Child>([] {
            setenv("VESTRA_DLOG_FILE", kLog, 1);
            const int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(out, STDOUT_FILENO);
            execl(VESTRAD_PROGRAM, VESTRAD_PROGRAM, nullptr);
            _exit(127);
        });
        ASSERT_TRUE(comes_true([] { return ask(0, 0, 1000) == VESTRA_API_OK; }));
    }
    void pause() const {
        kill(daemon_->pid(), SIGSTOP);
        ASSERT_TRUE(daemon_->stops());
    }
    void resume() const { kill(daemon_->pid(), SIGCONT); }

    // Lets the daemon have at least `blocks`, then no more, and waits until it has taken in the last.
    void fill_ring(uint64_t blocks) {
        ASSERT_TRUE(comes_true([&] { return module().value("blocks", uint64_t{0}) >= blocks_before_ + blocks; }));
        std::ofstream(inject_) << "empty 1000000000\n";
        const auto empty = [] { return module()["reads"].value("empty", 0); };
        const int before = empty();
        ASSERT_TRUE(comes_true([&] { return empty() >= before + 2; }));
        blocks_ = module().value("blocks", uint64_t{0});
    }

    // The module's word about itself, of this moment.
    static nlohmann::json module() { return nlohmann::json::parse(read_file("/tv/node/status"), nullptr, false); }

    // One question by a client of its own; its answer goes to `answer`.
    static int ask(int type, int window, int timeout_ms, vestra_api_data *answer = nullptr) {
        vestra_api_data request = {};
        request.packet_type = type;
        request.window = window;
        const vestra_api_h client = vestra_api_open();
        const int result = vestra_api_ask(client, &request, 1, timeout_ms);
        vestra_api_close(client);
        if (answer != nullptr) *answer = request;
        return result;
    }

    std::unique_ptr<Child> daemon_;
    uint64_t blocks_before_ = 0;  // that the module had handed out when the test began, ...
    uint64_t blocks_ = 0;         // and when the ring was full

  private:
    const std::string inject_ = state_path("module/inject");
};

}  // namespace vestra_test
