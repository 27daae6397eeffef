// Output location and the command runner.

#include <sys/wait.h>

#include "support/daemon_env.h"

using namespace vestra_test;

class VestradOutput : public DaemonTest {
  protected:
    // What a lookup writes into an empty buffer of this size; result -1: it fails.
    static std::string found(int retries, int result = 0, int size = kPathSize) {
        begin_transcript();
        char path[kPathSize] = {};
        EXPECT_EQ(get_usb_path(path, size, retries), result);
        return path;
    }
    static std::string log() { return seen_text("36") + seen_text("w"); }
    static void plug(const char *mount) {
        fs::create_directories(mount);
        usb_device_plug("stick", mount, USB_DEVICE_CLASS_MASS_STORAGE);
    }
    char stick_[kPathSize] = "/tmp/stick";
};

TEST_F(VestradOutput, DirectoryIsWaitedForOneSecondATry) {
    EXPECT_EQ(check_path(stick_, sizeof(stick_), 2) + check_path(stick_, sizeof(stick_), -3), -2);
    expect_golden("directory-does-not-come", log());
    begin_transcript();
    world().on_wait = [](int waits) {
        if (waits == 2) fs::create_directories(kStick);
    };
    EXPECT_EQ(check_path(stick_, sizeof(stick_), 2), 0) << "it came at the last try";
}

TEST_F(VestradOutput, FileIsNoDirectory) {
    write_file(kStick, "");
    EXPECT_EQ(check_path_int(stick_, sizeof(stick_)), -1);
    EXPECT_THAT(seen(), ElementsAre("6 CUPI [vestrad][check_path_int:LINE] path is not a directory(path:/tmp/stick)"));
}

TEST_F(VestradOutput, StickIsUsedFromTheSecondLookup) {
    plug(kStick);
    plug("/tmp/second");
    EXPECT_EQ(found(0), "");
    EXPECT_EQ(found(0), kStick);
    EXPECT_EQ(found(0, 0, 8), "/tmp/s") << "one byte less than fits, and the terminator";
    EXPECT_EQ(get_usb_path(g_prev_usb_path, kPathSize, 2), 0) << "the cache as its own buffer";
    EXPECT_STREQ(g_prev_usb_path, kStick);
}

TEST_F(VestradOutput, StickThatDoesNotComeIsGivenUp) {
    found(0, -1);
    std::string text = "no stick\n" + log();
    plug(kStick);
    fs::remove(kStick);
    found(1, -1);
    text += "device without its directory\n" + log();
    expect_golden("stick-does-not-come", text);
}

TEST_F(VestradOutput, StickThatIsGoneIsLookedForAgain) {
    plug_known_stick();
    fs::remove(kStick);
    usb_device_unplug("stick");
    found(1, -1);
    expect_golden("stick-is-gone", log());
    plug("/tmp/other");
    EXPECT_EQ(found(1), "") << "in the cache only";
    EXPECT_STREQ(g_prev_usb_path, "/tmp/other");
}

TEST_F(VestradOutput, ReleaseImageDoesNotEvenLook) {
    plug_known_stick();
    write_file("/etc/release", "");
    EXPECT_EQ(found(0, -1), "");
    EXPECT_THAT(seen("3456w"), IsEmpty());
}

TEST_F(VestradOutput, FailureOfTheDeviceServiceIsNamed) {
    char path[kPathSize] = {};
    plug(kStick);
    for (const auto operation : {FAULT_USB_INIT, FAULT_USB_LIST, FAULT_USB_FIRST, FAULT_USB_MOUNTPATH}) {
        platform_fail_nth(operation, 1);
        EXPECT_EQ(search_usb_device_path(path, kPathSize), -1);
        EXPECT_STREQ(path, "");
    }
    expect_golden("stick-failures", seen_text());
}

TEST_F(VestradOutput, CommandGetsItsArgumentsAsTheyAre) {
    write_file("/tmp/show", "#!/bin/sh\nprintf '%s|' \"$#\" \"$@\" >> /tmp/shown\nexit 9\n");
    fs::permissions("/tmp/show", fs::perms::all);
    int status = 7;
    const std::string odd = "a b;touch /tmp/x $(touch /tmp/y) '\"*", text(300, 'x');
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 3, "-f", odd.c_str(), ""), 0);
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 2, text.c_str(), "-"), 0);
    EXPECT_EQ(read_file("/tmp/shown"), "3|-f|" + odd + "||2|" + text.substr(0, 255) + "|-|");
    EXPECT_EQ(status, 0) << "how it ended is not looked at";
}
