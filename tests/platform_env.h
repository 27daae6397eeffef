// What the tests of the platform services share: a state directory of their own, the log's text, a main loop.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/dlog.h"
#include "platform/fault.h"
#include "platform/state_dir.h"

// What `body` writes to standard error, where the log goes.
template <typename Body>
std::string logged(const Body &body) {
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3), file = memfd_create("log", MFD_CLOEXEC);
    dup2(file, STDERR_FILENO);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    close(file);
    return text;
}

// A fresh state directory with the launcher's subdirectories.
class PlatformTest : public ::testing::Test {
  protected:
    PlatformTest() {
        std::string name = ::testing::TempDir() + "vestra-platform-XXXXXX";
        root_ = mkdtemp(name.data());
        for (const char *sub : {"vconf", "usb", "keys", "modules"}) std::filesystem::create_directory(root_ / sub);
        setenv("VESTRA_SET_DIR", root_.c_str(), 1);
    }
    ~PlatformTest() override {
        dlog_set_threshold(DLOG_INFO);
        platform_faults_reset();
        std::filesystem::remove_all(root_);
    }

    void put(const std::string &relative, std::string_view text) const {
        std::ofstream(root_ / relative, std::ios::binary) << text;
    }
    std::string get(const std::string &relative) const {
        std::ifstream file(root_ / relative, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    size_t files_in(const std::string &relative) const {
        const std::filesystem::directory_iterator files(root_ / relative);
        return static_cast<size_t>(std::distance(begin(files), end(files)));
    }

    // Runs the default main context until `done`, at most 30 s. False when that never came.
    static bool run_loop_until(const std::function<bool()> &done) {
        const gint64 limit = g_get_monotonic_time() + gint64{30} * G_USEC_PER_SEC;
        while (!done()) {
            if (g_get_monotonic_time() > limit) return false;
            if (!g_main_context_iteration(nullptr, FALSE)) usleep(1000);
        }
        return true;
    }
    // Runs it for a while in which nothing should come.
    static void run_loop_briefly() {
        const gint64 limit = g_get_monotonic_time() + G_USEC_PER_SEC / 5;
        run_loop_until([limit] { return g_get_monotonic_time() > limit; });
    }

    std::filesystem::path root_;
};

// Runs `body` in a child process; its exit code.
template <typename Body>
int in_child(const Body &body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
