// Shared by the tests of the platform services: a state directory for each test, the log's text, a main loop.
#pragma once

#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "gmock/gmock.h"
#include "platform/dlog.h"
#include "platform/fault.h"
#include "platform/simulated/state_dir.h"
#include "support/files.h"

namespace vestra_test {

using namespace ::testing;

// What `body` writes to standard error, where the log goes.
inline std::string logged(const std::function<void()> &body) {
    internal::CaptureStderr();
    body();
    return internal::GetCapturedStderr();
}

// A fresh state directory with the launcher's subdirectories.
class PlatformTest : public Test {
  protected:
    PlatformTest() {
        std::string name = TempDir() + "vestra-platform-XXXXXX";
        root_ = mkdtemp(name.data());
        for (const char *sub : {"vconf", "usb", "keys", "modules"}) fs::create_directory(root_ / sub);
        setenv("VESTRA_SET_DIR", root_.c_str(), 1);
    }
    ~PlatformTest() override {
        dlog_set_threshold(DLOG_INFO);
        platform_faults_reset();
        fs::remove_all(root_);
    }

    void put(const std::string &relative, std::string_view text) const { write_file(root_ / relative, text); }
    std::string get(const std::string &relative) const { return read_file(root_ / relative); }

    // Runs the default main context until `done` or for `limit` seconds. Returns whether it was done in time.
    static bool run_loop_until(const std::function<bool()> &done, double limit = 30) {
        const auto end = g_get_monotonic_time() + static_cast<gint64>(limit * G_USEC_PER_SEC);
        while (!done()) {
            if (g_get_monotonic_time() > end) return false;
            if (!g_main_context_iteration(nullptr, FALSE)) usleep(1000);
        }
        return true;
    }

    fs::path root_;
};

// Runs `body` in a child process; its exit code.
inline int in_child(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vestra_test
