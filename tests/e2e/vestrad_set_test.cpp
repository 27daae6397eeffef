// The recorder's main road: threads, key presses, robustness and DOD dumps, stopping, bad configuration and blocks.

#include "e2e/vestrad_set.h"

#include <sys/mount.h>

#include "platform/key_combination.h"
#include "platform/vconf.h"

namespace vestra_test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;

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
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }));
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
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }));
    const auto left = names_in("/tmp");
    EXPECT_TRUE(std::any_of(left.begin(), left.end(), [](const std::string &name) {
        return name.rfind("temp-vestra-user_", 0) == 0;
    })) << "the bytes are still in /tmp";

    fs::create_directories("/media/other");
    usb_device_plug("other", "/media/other", USB_DEVICE_CLASS_MASS_STORAGE);
    fs::create_directories(kStick);  // as an automounter leaves it behind: the cached directory stays good
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited", 2); }));
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
    EXPECT_TRUE(comes_true([&] { return !names_in(folder).empty(); }));
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
    ASSERT_TRUE(comes_true([] { return module_status().value("damaged_blocks", 0) > 5; })) << module_status();
    key_combination_drop(87);
    ASSERT_TRUE(comes_true([&] { return logged("INFO:key handler 87 exited"); }));
    ASSERT_THAT(dumps(), SizeIs(1));
    EXPECT_THAT(read_file(dumps()[0]), EndsWith(kTrailer));
    EXPECT_THAT(threads(), IsSupersetOf({"QXReadData", "QXClientProcess", "QXUserDataHndl", "QXProcess"}));
}

}  // namespace
}  // namespace vestra_test
