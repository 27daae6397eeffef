// The daemon itself, with its real threads and waits, in a set with a control node. The set hands out whole blocks
// (131072 bytes) at every read: a chain of 1 MiB is full after some five seconds.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/key_combination.h"
#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "platform/vconf.h"
#include "set/config_file.h"
#include "set/files.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using vestra_set::write_file;

constexpr char kLog[] = "/tmp/vestrad.log";
constexpr char kStick[] = "/media/stick";
constexpr char kTrailer[] = "1234.5/QX-55\n\x0d";

std::string contents(const fs::path &path) {
    return vestra_set::read_file(path).value_or("");
}

std::vector<std::string> names_in(const fs::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    return names;
}

// Looks again every 20 ms for at most a minute.
bool comes_true(const std::function<bool()> &condition) {
    for (int look = 0; look < 3000; ++look, usleep(20'000)) {
        if (condition()) return true;
    }
    return false;
}

nlohmann::json module_status() {
    return nlohmann::json::parse(contents(state_path("module/status.json")), nullptr, false);
}

class VestradSet : public ::testing::Test {
  protected:
    VestradSet() {
        fs::create_directories(kStick);
        write_file("/etc/prd_info.ini", "Model=QX-55\nBuild=1234.5\r\n");
        write_file("/sys/devices/platform/soc/thermal/temperature", "57\n");
        usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
        std::string error;
        write_file("/opt/data/vestraDir/orna_vestra_config.xml", vestra_set::make_config({"max_file_size=1"}, &error));
    }
    ~VestradSet() override {
        if (pid_ > 0) kill(pid_, SIGKILL);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
        if (HasFailure()) printf("%s\n", contents(kLog).c_str());
    }

    // Starts the daemon and waits until all its threads are there.
    void start(const std::vector<const char *> &arguments = {}) {
        std::vector<char *> argv = {const_cast<char *>(VESTRAD_PROGRAM)};
        for (const char *argument : arguments) argv.push_back(const_cast<char *>(argument));
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            setenv("VESTRA_DLOG_FILE", kLog, 1);
            dup2(open("/tmp/vestrad.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            execv(VESTRAD_PROGRAM, argv.data());
            _exit(127);
        }
        ASSERT_TRUE(comes_true([&] { return logged("INFO: waiting for threads to join..."); }));
        EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
    }

    static bool logged(const std::string &text, int times = 1) {
        const std::string log = contents(kLog);
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
            const std::string name = contents(tasks + id + "/comm");
            names.push_back(name.substr(0, name.find('\n')));
        }
        return names;
    }

    bool alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

    static std::vector<fs::path> dumps(const char *directory = kStick) {
        std::vector<fs::path> found;
        for (const std::string &name : names_in(directory)) {
            if (name.rfind("0000000000_", 0) == 0) found.push_back(fs::path(directory) / name);
        }
        return found;
    }

    pid_t pid_ = -1;
};

TEST_F(VestradSet, ThreadsRunTheModuleIsToldAndAllButOneEndAtAStop) {
    start();
    EXPECT_TRUE(comes_true([] {
        const auto status = module_status();
        return status.value("tracing", false) && status.value("disk_read", false) &&
               status.value("disk_write", false) && status["temperature"] == 57 && status.value("blocks", 0) > 2;
    })) << module_status();
    EXPECT_EQ(module_status().value("refused", -1), 0);
    ASSERT_TRUE(comes_true([] { return fs::is_directory("/tmp/vestra_processes"); }));
    EXPECT_TRUE(comes_true([] {
        // Written until it is taken: the watch comes right behind the directory.
        write_file("/tmp/vestra_processes/processes.txt", "tvs-engine\nlauncher x\n");
        usleep(100'000);
        return module_status()["filter"]["names"] == nlohmann::json::array({"tvs-engine", "launcher x"});
    })) << module_status();

    kill(pid_, SIGRTMIN + 6);
    EXPECT_TRUE(comes_true([&] {
        const auto names = threads();
        return std::none_of(names.begin(), names.end(), [](const std::string &name) {
            return name == "QXReadData" || name == "QXClientProcess" || name == "QXUserDataHndl";
        });
    }));
    EXPECT_TRUE(comes_true([] { return logged("INFO: main loop exit"); }));
    usleep(500'000);
    EXPECT_THAT(threads(), IsSupersetOf({"QXProcess", "vestrad"})) << "main waits for a thread that does not end";
    EXPECT_TRUE(alive());
    EXPECT_FALSE(logged("INFO: Stop the vestra driver"));
    EXPECT_EQ(module_status().value("tracing", false), true);
    EXPECT_THAT(contents("/tmp/vestrad.out"),
                testing::AllOf(HasSubstr("SIGRTMIN+6 handled\n"), EndsWith("[Vestra]  INFO: main loop exit\n")));
}

TEST_F(VestradSet, KeyWritesTheChainToTheStickAndSoDoesASecondOne) {
    start();
    key_combination_drop(87);
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }));
    const auto files = dumps();
    ASSERT_EQ(files.size(), 2U) << "each waits for a full chain of its own";
    for (const fs::path &file : files) {
        EXPECT_THAT(file, HasSubstr("/0000000000_" + std::to_string(pid_) + "_vestrad_"));
        const std::string bytes = contents(file);
        EXPECT_LE(bytes.size(), (1U << 20) + strlen(kTrailer));
        EXPECT_GT(bytes.size(), 7U << 17) << "full but for a part of a block";
        EXPECT_THAT(bytes, EndsWith(kTrailer));
    }
    EXPECT_TRUE(comes_true([] {
        const std::string text = contents(state_path("notifications.jsonl"));
        return std::count(text.begin(), text.end(), '\n') == 2 && text.find("Successfully Done") != std::string::npos;
    }));
}

TEST_F(VestradSet, StickPulledWhileTheKeyWaitsCostsOneDump) {
    ASSERT_EQ(mount("stick", kStick, "tmpfs", 0, "size=8m"), 0);
    start();
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO: Waiting for buffer to fill.."); }));
    usb_device_unplug("stick");
    umount2(kStick, MNT_DETACH);
    fs::remove_all(kStick);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }));
    EXPECT_THAT(names_in("/tmp"), testing::Contains(testing::StartsWith("temp-vestra-user_"))) << "still there";
    fs::create_directories("/media/other");
    usb_device_plug("other", "/media/other", USB_DEVICE_CLASS_MASS_STORAGE);
    fs::create_directories(kStick);  // as an automounter leaves it behind: the cached directory stays good
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }));
    EXPECT_EQ(dumps().size(), 1U);
    EXPECT_TRUE(alive());
}

TEST_F(VestradSet, RobustnessAndDodKeysAreAnsweredWithDumps) {
    const std::string folder = std::string(kStick) + "/issue_report_agent_DOD/Vestra";
    start({"1", "2"});  // two arguments: the reader's clock counts seconds
    fs::create_directories("/tmp/fault");
    vconf_set_str("system/vestra/robust", "/tmp/fault|/usr/bin/procd|77");
    ASSERT_TRUE(comes_true([&] { return !dumps("/tmp/fault").empty() && dumps().size() == 1; }));
    EXPECT_THAT(dumps("/tmp/fault")[0], HasSubstr("0000000000_77_procd_"));
    EXPECT_TRUE(comes_true([&] { return contents(dumps()[0]) == contents(dumps("/tmp/fault")[0]); })) << "a copy";
    fs::create_directories(folder);
    vconf_set_int("system/DOD/test_monitor", 1);
    EXPECT_TRUE(comes_true([&] { return !names_in(folder).empty(); }));
    vconf_set_int("system/DOD/test_monitor", 0);
    EXPECT_EQ(dumps().size(), 1U) << "moved, not copied";
    EXPECT_TRUE(alive());
}

TEST_F(VestradSet, HostileBlocksKeepTheRecorderGoing) {
    start();
    ASSERT_TRUE(comes_true([] { return module_status().value("damaged_blocks", 0) > 5; })) << module_status();
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }));
    ASSERT_EQ(dumps().size(), 1U);
    EXPECT_THAT(contents(dumps()[0]), EndsWith(kTrailer));
    EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
}

}  // namespace
}  // namespace vestra_test
