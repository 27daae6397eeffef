// The recorder's main road: threads, key presses, robustness and DOD dumps, stopping, bad blocks.

#include "e2e/vestrad_set.h"

#include <sys/mount.h>

#include "platform/key_combination.h"
#include "platform/vconf.h"

namespace vestra_test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;

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
    EXPECT_THAT(read_file("/tmp/vestrad.out"),
                testing::AllOf(HasSubstr("SIGRTMIN+6 handled\n"), EndsWith("[Vestra]  INFO: main loop exit\n")));
}

TEST_F(VestradSet, KeyWritesTheChainToTheStickAndSoDoesASecondOne) {
    start();
    key_combination_drop(87);
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }));
    const auto files = dumps();
    ASSERT_THAT(files, testing::SizeIs(testing::AnyOf(1, 2))) << "two of the same second have one name";
    for (const fs::path &file : files) {
        EXPECT_THAT(file, HasSubstr("/0000000000_" + std::to_string(pid_) + "_vestrad_"));
        const std::string bytes = read_file(file);
        EXPECT_LE(bytes.size(), (1U << 20) + strlen(kTrailer));
        EXPECT_GT(bytes.size(), 7U << 17) << "full but for a part of a block";
        EXPECT_THAT(bytes, EndsWith(kTrailer));
    }
    EXPECT_TRUE(comes_true([] {
        const std::string text = read_file(state_path("notifications.jsonl"));
        return std::count(text.begin(), text.end(), '\n') == 2 && text.find("Failed") == std::string::npos;
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
    EXPECT_TRUE(comes_true([&] { return read_file(dumps()[0]) == read_file(dumps("/tmp/fault")[0]); })) << "a copy";
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
    EXPECT_THAT(read_file(dumps()[0]), EndsWith(kTrailer));
    EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
}

}  // namespace
}  // namespace vestra_test
