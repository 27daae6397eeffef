// Output location and the command runner.

#include <sys/wait.h>

#include "golden.h"
#include "support/daemon_env.h"

using namespace vestra_test;

class VestradOutput : public DaemonTest {
  protected:
    // What a lookup writes into an empty buffer of this size.
    static std::string found(int retries, int result = 0, int size = kPathSize) {
        begin_transcript();
        char path[kPathSize] = {};
        EXPECT_EQ(get_usb_path(path, size, retries), result);
        return path;
    }
    static void plug(const char *mount) {
        fs::create_directories(mount);
        usb_device_plug("stick", mount, USB_DEVICE_CLASS_MASS_STORAGE);
    }
};

TEST_F(VestradOutput, PathIsWaitedFor) {
    const std::string missing = "6 CUPI [vestrad][check_path_int:LINE] path does not exist(path:/tmp/stick) *";
    char path[] = "/tmp/stick", file[] = "/tmp/file";
    EXPECT_EQ(check_path(path, sizeof(path), -3), -1);
    EXPECT_THAT(seen(), ElementsAre(missing + "41", "3 [CUP:vestrad][retry count:42] failed to get path"));
    begin_transcript();
    world().on_wait = [](int waits) {
        if (waits == 2) fs::create_directories(kStick);
    };
    write_file(file, "");
    EXPECT_EQ(check_path(path, sizeof(path), 2), 0);
    EXPECT_EQ(check_path_int(file, sizeof(file)), -1);
    EXPECT_THAT(seen(), ElementsAre(missing + "2",
                                    "6 CUPI [vestrad][check_path_int:LINE] path is not a directory(path:/tmp/file)"));
}

TEST_F(VestradOutput, StickIsUsedFromTheSecondLookup) {
    const std::string failed = "3 [GUPI][vestrad][get_usb_path_int:LINE] valid=";
    found(0, -1);
    EXPECT_THAT(seen("w"), ElementsAre("wait 1000000 *41"));
    EXPECT_EQ(seen().back(), "6 [GUP] [vestrad][retry count:42] failed to get USB path []");
    plug(kStick);
    EXPECT_EQ(found(0), "");
    EXPECT_EQ(found(0), kStick);
    EXPECT_EQ(found(0, 0, 8), "/tmp/s") << "one byte less than fits, and the terminator";
    EXPECT_EQ(get_usb_path(g_prev_usb_path, kPathSize, 2), 0) << "the cache as its own buffer";
    EXPECT_STREQ(g_prev_usb_path, kStick);
    fs::remove_all(kStick);
    found(1, -1);
    EXPECT_THAT(seen("w"), ElementsAre("wait 1000000 *8")) << "cache, device, pause; device, pause";
    g_prev_usb_path_valid = 1;
    usb_device_unplug("stick");
    found(1, -1);
    EXPECT_THAT(seen("3"), ElementsAre("3 [CUP:vestrad][retry count:3] failed to get path",
                                       failed + "1 failed to get USB path[]", failed + "0 failed to get USB path[]"));
    plug("/tmp/other");
    EXPECT_EQ(found(1), "") << "found again: in the cache only";
    EXPECT_STREQ(g_prev_usb_path, "/tmp/other");
    write_file("/etc/release", "");
    EXPECT_EQ(found(0, -1), "");
    EXPECT_THAT(seen("3456w"), IsEmpty()) << "a release image does not even look";
}

TEST_F(VestradOutput, DeviceServiceFailures) {
    char path[kPathSize] = {};
    plug(kStick);
    for (const auto operation : {FAULT_USB_INIT, FAULT_USB_LIST, FAULT_USB_FIRST, FAULT_USB_MOUNTPATH}) {
        platform_fail_nth(operation, 1);
        EXPECT_EQ(search_usb_device_path(path, kPathSize), -1);
        EXPECT_STREQ(path, "");
    }
    expect_golden("stick-failures", seen_text());
    plug("/tmp/second");
    EXPECT_EQ(search_usb_device_path(path, kPathSize), 0);
    EXPECT_STREQ(path, kStick) << "only the first device counts";
}

TEST_F(VestradOutput, CommandsGetTheirArgumentsAndAreNotExamined) {
    write_file("/tmp/show", "#!/bin/sh\nprintf '%s|' \"$#\" \"$@\" >> /tmp/shown\nexit 9\n");
    fs::permissions("/tmp/show", fs::perms::all);
    int status = 7;
    const std::string odd = "a b;touch /tmp/x $(touch /tmp/y) '\"*", text(300, 'x');
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 3, "-f", odd.c_str(), ""), 0);
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 2, text.c_str(), "-"), 0);
    EXPECT_EQ(read_file("/tmp/shown"), "3|-f|" + odd + "||2|" + text.substr(0, 255) + "|-|");
    const pid_t child = vestra_system_exec_argv(&status, "/tmp/missing", 2, "a", "b");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1) << "no child is left behind";
    EXPECT_EQ(vestra_rename("/tmp/shown", "/tmp/new name"), 0);
    EXPECT_EQ(vestra_rename("/tmp/missing", "/tmp/b"), 0);
    EXPECT_THAT(names_in("/tmp"), ElementsAre("new name", "show"));
}
