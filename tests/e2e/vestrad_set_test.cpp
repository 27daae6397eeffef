// The daemon itself, with its real threads and waits, in a set with a control node. The set hands out whole blocks
// (131072 bytes) at every read: a chain of 1 MiB is full after some five seconds.

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/key_combination.h"
#include "platform/state_dir.h"
#include "platform/usb_device.h"
#include "platform/vconf.h"
#include "set/config_file.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;

constexpr char kLog[] = "/tmp/vestrad.log";
constexpr char kStick[] = "/media/stick";
constexpr char kTrailer[] = "1234.5/QX-55\n\x0d";

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const fs::path &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> names_in(const fs::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    return names;
}

// Looks again every 20 ms for at most `seconds`.
bool comes_true(const std::function<bool()> &condition, int seconds = 20) {
    for (int look = 0; look < seconds * 50; ++look) {
        if (condition()) return true;
        poll(nullptr, 0, 20);
    }
    return condition();
}

nlohmann::json module_status() {
    return nlohmann::json::parse(read_file(state_path("module/status.json")), nullptr, false);
}

class VestradSet : public ::testing::Test {
  protected:
    VestradSet() {
        // What a test before this one in the same set has left.
        for (const char *file : {kLog, "/tmp/vestrad.out", "/tmp/fault", "/tmp/vestra_processes"}) fs::remove_all(file);
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
        if (HasFailure()) printf("%s\n", read_file(kLog).c_str());
    }

    static void configure(std::vector<std::string> settings) {
        settings.emplace_back("max_file_size=1");
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
            setenv("VESTRA_DLOG_LEVEL", "info", 1);
            const int out = open("/tmp/vestrad.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(out, STDOUT_FILENO);
            execv(VESTRAD_PROGRAM, argv.data());
            _exit(127);
        }
        ASSERT_TRUE(comes_true([&] { return logged("INFO: waiting for threads to join..."); }));
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

    pid_t pid_ = -1;
};

TEST_F(VestradSet, ThreadsHaveTheirNamesAndTheModuleIsTold) {
    start();
    EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
    EXPECT_TRUE(comes_true([] {
        const auto status = module_status();
        return status.value("tracing", false) && status.value("disk_read", false) &&
               status.value("disk_write", false) && status["temperature"] == 57 && status.value("blocks", 0) > 2;
    })) << module_status();
    EXPECT_EQ(module_status().value("refused", -1), 0);

    ASSERT_TRUE(comes_true([] { return fs::is_directory("/tmp/vestra_processes"); }));
    poll(nullptr, 0, 300);  // the watch comes right behind the directory
    write_file("/tmp/vestra_processes/processes.txt", "tvs-engine\nlauncher x\n");
    EXPECT_TRUE(comes_true([] {
        return module_status()["filter"]["names"] == nlohmann::json::array({"tvs-engine", "launcher x"});
    })) << module_status();
    EXPECT_THAT(names_in("/tmp/vestra_processes"), IsEmpty());
}

TEST_F(VestradSet, StopEndsAllButTheProcessListThread) {
    start();
    kill(pid_, SIGRTMIN + 6);
    EXPECT_TRUE(comes_true([&] {
        const auto names = threads();
        return std::none_of(names.begin(), names.end(), [](const std::string &name) {
            return name == "QXReadData" || name == "QXClientProcess" || name == "QXUserDataHndl";
        });
    }));
    poll(nullptr, 0, 1500);
    EXPECT_THAT(threads(), AllOf(Contains("QXProcess"), Contains("vestrad")));
    EXPECT_TRUE(alive()) << "main waits for a thread that does not end";
    EXPECT_TRUE(logged("INFO: main loop exit"));
    EXPECT_FALSE(logged("INFO: Stop the vestra driver"));
    EXPECT_EQ(module_status().value("tracing", false), true);
    EXPECT_THAT(read_file("/tmp/vestrad.out"),
                AllOf(HasSubstr("SIGRTMIN+6 handled\n"), EndsWith("[Vestra]  INFO: main loop exit\n")));
}

TEST_F(VestradSet, KeyWritesTheChainToTheStickAndSoDoesASecondOne) {
    start();
    key_combination_drop(87);
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }, 40));
    const auto files = dumps();
    ASSERT_THAT(files, SizeIs(2)) << "each waits for a full chain of its own";
    for (const fs::path &file : files) {
        EXPECT_THAT(file, HasSubstr("/0000000000_" + std::to_string(pid_) + "_vestrad_"));
        const std::string bytes = read_file(file);
        EXPECT_LE(bytes.size(), (1U << 20) + strlen(kTrailer));
        EXPECT_GT(bytes.size(), 7U << 17) << "full but for a part of a block";
        EXPECT_THAT(bytes, EndsWith(kTrailer));
    }
    EXPECT_TRUE(comes_true([] {
        const std::string text = read_file(state_path("notifications.jsonl"));
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
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }, 30));
    const auto left = names_in("/tmp");
    EXPECT_TRUE(std::any_of(left.begin(), left.end(), [](const std::string &name) {
        return name.rfind("temp-vestra-user_", 0) == 0;
    })) << "the bytes are still in /tmp";

    fs::create_directories("/media/other");
    usb_device_plug("other", "/media/other", USB_DEVICE_CLASS_MASS_STORAGE);
    fs::create_directories(kStick);  // as an automounter leaves it behind: the cached directory stays good
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }, 30));
    EXPECT_THAT(dumps(), SizeIs(1));
    EXPECT_TRUE(alive());
}

TEST_F(VestradSet, RobustnessKeyIsAnsweredWithADump) {
    start();
    fs::create_directories("/tmp/fault");
    vconf_set_str("system/vestra/robust", "/tmp/fault|/usr/bin/procd|77");
    ASSERT_TRUE(comes_true([&] { return !dumps("/tmp/fault").empty(); }));
    EXPECT_THAT(dumps("/tmp/fault")[0], HasSubstr("0000000000_77_procd_"));
    EXPECT_TRUE(comes_true([&] { return dumps().size() == 1; })) << "and a copy on the stick";
    EXPECT_EQ(read_file(dumps()[0]), read_file(dumps("/tmp/fault")[0]));
    EXPECT_TRUE(alive());
}

TEST_F(VestradSet, DodKeyBringsDumpsIntoItsFolder) {
    const std::string folder = std::string(kStick) + "/issue_report_agent_DOD/Vestra";
    fs::create_directories(folder);
    start({"1", "2"});  // two arguments: the reader's clock counts seconds
    vconf_set_int("system/DOD/test_monitor", 1);
    EXPECT_TRUE(comes_true([&] { return !names_in(folder).empty(); }, 30));
    vconf_set_int("system/DOD/test_monitor", 0);
    EXPECT_THAT(dumps(), IsEmpty()) << "moved, not copied";
    EXPECT_THAT(names_in(folder), SizeIs(1));
}

TEST_F(VestradSet, UnreadableConfigurationMeansDefaults) {
    write_file("/opt/data/vestraDir/orna_vestra_config.xml", "<vestra_config><vestra_kmod_load_unload>");
    start();
    EXPECT_TRUE(logged("[Vestra] INFO: Continue with default params..."));
    EXPECT_TRUE(logged("INFO: final max file size = 10485760"));
    EXPECT_TRUE(comes_true([] { return module_status().value("blocks", 0) > 2; }));
}

TEST_F(VestradSet, HostileBlocksKeepTheRecorderGoing) {
    start();
    ASSERT_TRUE(comes_true([] { return module_status().value("damaged_blocks", 0) > 5; }, 30)) << module_status();
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }, 40));
    ASSERT_THAT(dumps(), SizeIs(1));
    EXPECT_THAT(read_file(dumps()[0]), EndsWith(kTrailer));
    EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
}

}  // namespace
}  // namespace vestra_test
