// Output location and the command runner.

#include <sys/wait.h>
#include <unistd.h>

#include "platform/fault.h"
#include "platform/usb_device.h"
#include "support/daemon_env.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kStick[] = "/tmp/stick";

class VestradOutput : public DaemonTest {
  protected:
    char path_[kPathSize] = {};

    static void plug(const char *mount = kStick) {
        fs::create_directories(mount);
        ASSERT_EQ(usb_device_plug("stick", mount, USB_DEVICE_CLASS_MASS_STORAGE), 0);
    }
};

TEST_F(VestradOutput, PathIsWaitedFor) {
    static const struct {
        const char *name;
        int retries, appears_after;
        size_t waits;
        int result;
        const char *message;
    } kRows[] = {
        {"ThereAlready", 0, 0, 0, 0, nullptr},
        {"AtTheLastTryOfTwoRetries", 2, 2, 2, 0, nullptr},
        {"MissingWithTwoRetries", 2, -1, 3, -1, "[CUP:vestrad][retry count:4] failed to get path"},
        {"MissingWithDefault", 0, -1, 41, -1, "[CUP:vestrad][retry count:42] failed to get path"},
        {"NegativeMeansDefault", -3, -1, 41, -1, "[CUP:vestrad][retry count:42] failed to get path"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(kStick);
        forget_log();
        const size_t before = waits_us().size();
        const auto appear = [&](size_t waits) {
            if (static_cast<int>(waits - before) == row.appears_after) fs::create_directories(kStick);
        };
        appear(before);
        world().on_wait = appear;
        char path[] = "/tmp/stick";
        EXPECT_EQ(check_path(path, sizeof(path), row.retries), row.result);
        EXPECT_EQ(waits_us().size() - before, row.waits);
        EXPECT_EQ(count_log("path does not exist(path:/tmp/stick)"), static_cast<int>(row.waits));
        if (row.message != nullptr) {
            EXPECT_EQ(count_log(kDebug, row.message), 1);
        }
    }
}

TEST_F(VestradOutput, FileIsNoDirectory) {
    write_file("/tmp/file", "");
    EXPECT_EQ(check_path_int("/tmp/file", 10), -1);
    EXPECT_EQ(count_log("path is not a directory(path:/tmp/file)"), 1);
    EXPECT_EQ(check_path_int("/tmp", 5), 0);
}

TEST_F(VestradOutput, FreshStickIsUsedFromTheSecondLookup) {
    plug();
    EXPECT_EQ(get_usb_path(path_, kPathSize, 0), 0);
    EXPECT_STREQ(path_, "");
    EXPECT_EQ(g_prev_usb_path_valid, 1);
    EXPECT_STREQ(g_prev_usb_path, kStick);
    EXPECT_EQ(get_usb_path(path_, kPathSize, 0), 0);
    EXPECT_STREQ(path_, kStick);
    char small[8] = {};
    EXPECT_EQ(get_usb_path(small, sizeof(small), 0), 0);
    EXPECT_STREQ(small, "/tmp/s") << "one byte less than fits, and the terminator";
    EXPECT_EQ(get_usb_path(g_prev_usb_path, kPathSize, 2), 0) << "the cache as its own buffer";
    EXPECT_STREQ(g_prev_usb_path, kStick);
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(VestradOutput, NoStickCosts41Seconds) {
    EXPECT_EQ(get_usb_path(path_, kPathSize, 0), -1);
    EXPECT_THAT(waits_us(), AllOf(SizeIs(41), Each(1000000)));
    EXPECT_THAT(log_texts(kError), ElementsAre("[GUP] [vestrad][retry count:42] failed to get USB path []"));
    EXPECT_EQ(count_log("valid=0 failed to get USB path[]"), 41);
}

TEST_F(VestradOutput, StickMountedInTimeIsFound) {
    world().on_wait = [](size_t waits) {
        if (waits == 2) plug();
    };
    EXPECT_EQ(get_usb_path(path_, kPathSize, 2), 0);
    EXPECT_STREQ(g_prev_usb_path, kStick);
    EXPECT_THAT(waits_us(), SizeIs(2));
}

TEST_F(VestradOutput, PulledStickIsForgottenAndTheNextOneFound) {
    plug();
    get_usb_path(path_, kPathSize, 0);
    ASSERT_EQ(usb_device_unplug("stick"), 0);
    fs::remove_all(kStick);
    EXPECT_EQ(get_usb_path_int(path_, kPathSize, 1), -1);
    EXPECT_EQ(g_prev_usb_path_valid, 0);
    EXPECT_THAT(waits_us(), SizeIs(2)) << "the cached directory is waited for, as a stick may be mounted anew";
    EXPECT_EQ(count_log("valid=1 failed to get USB path[]"), 1);

    g_prev_usb_path_valid = 1;
    plug("/tmp/other");
    memset(path_, 0, sizeof(path_));
    EXPECT_EQ(get_usb_path(path_, kPathSize, 1), 0);
    EXPECT_STREQ(path_, "") << "found anew: in the cache only";
    EXPECT_STREQ(g_prev_usb_path, "/tmp/other");
}

TEST_F(VestradOutput, ListedDeviceWithoutItsDirectoryIsNoPlace) {
    plug();
    fs::remove_all(kStick);
    EXPECT_EQ(get_usb_path(path_, kPathSize, 1), -1);
    EXPECT_THAT(waits_us(), SizeIs(2 * 2 + 2)) << "two tries, each with two looks for the directory";
    EXPECT_EQ(g_prev_usb_path_valid, 0);
}

TEST_F(VestradOutput, ReleaseImageGivesNothingAway) {
    plug();
    write_file("/etc/release", "");
    platform_fail_nth(FAULT_USB_INIT, 1);
    EXPECT_EQ(get_usb_path(path_, kPathSize, 0), -1);
    EXPECT_THAT(waits_us(), IsEmpty());
    EXPECT_THAT(log_texts(), IsEmpty());
    EXPECT_EQ(search_usb_device_path(path_, kPathSize), -1) << "the service had not been asked before";
}

TEST_F(VestradOutput, DeviceServiceFailures) {
    static const struct {
        const char *name;
        platform_operation operation;
        std::string message;
    } kRows[] = {
        {"Init", FAULT_USB_INIT, "[vestrad] failed to initialize usb device"},
        {"List", FAULT_USB_LIST, "[vestrad] failed to get mass storage list from usb-server"},
        {"First", FAULT_USB_FIRST, ""},
        {"MountPath", FAULT_USB_MOUNTPATH, "failed to get USB path"},
    };
    plug();
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        forget_log();
        platform_fail_nth(row.operation, 1);
        EXPECT_EQ(search_usb_device_path(path_, kPathSize), -1);
        EXPECT_STREQ(path_, "");
        EXPECT_THAT(log_texts(), SizeIs(row.message.empty() ? 0 : 1));
        EXPECT_EQ(count_log(row.message), row.message.empty() ? 0 : 1);
    }
    EXPECT_EQ(search_usb_device_path(path_, kPathSize), 0);
    EXPECT_STREQ(path_, kStick);
}

TEST_F(VestradOutput, OnlyTheFirstDeviceCounts) {
    ASSERT_EQ(usb_device_plug("unmounted", nullptr, USB_DEVICE_CLASS_MASS_STORAGE), 0);
    plug();
    EXPECT_EQ(search_usb_device_path(path_, kPathSize), -1);
}

/* ------------------------------ Command runner ------------------------------ */

TEST_F(VestradOutput, ArgumentsReachTheCommandAsTheyAre) {
    write_file("/tmp/show", "#!/bin/sh\nprintf '%s|' \"$#\" \"$@\" > /tmp/shown\n");
    fs::permissions("/tmp/show", fs::perms::all);
    int status = 7;
    const char *odd = "a b;touch /tmp/x $(touch /tmp/y) '\"*";
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 3, "-f", odd, ""), 0);
    EXPECT_EQ(read_file("/tmp/shown"), std::string("3|-f|") + odd + "||");
    EXPECT_EQ(status, 0);
    EXPECT_THAT(names_in("/tmp"), ElementsAre("show", "shown"));

    const std::string text(300, 'x');
    EXPECT_GT(vestra_system_exec_argv(&status, "/tmp/show", 2, text.c_str(), "-"), 0);
    EXPECT_EQ(read_file("/tmp/shown"), "2|" + text.substr(0, 255) + "|-|");
}

TEST_F(VestradOutput, HowACommandEndsIsNotExamined) {
    int status = 7;
    EXPECT_GT(vestra_system_exec_argv(&status, "/bin/false", 2, "a", "b"), 0);
    EXPECT_EQ(status, 0);
    const pid_t child = vestra_system_exec_argv(&status, "/tmp/missing", 2, "a", "b");
    EXPECT_GT(child, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1) << "no child is left behind";
    world().fork_fails = true;
    EXPECT_LT(vestra_system_exec_argv(&status, "/bin/true", 2, "a", "b"), 0);
    EXPECT_THAT(log_texts(kError), ElementsAre("[vestra] :fork failed."));
}

TEST_F(VestradOutput, MoveSucceedsOrGoesUnnoticed) {
    write_file("/tmp/a file", "x");
    EXPECT_EQ(vestra_rename("/tmp/a file", "/tmp/new name"), 0);
    EXPECT_THAT(names_in("/tmp"), ElementsAre("new name"));
    EXPECT_EQ(vestra_rename("/tmp/missing", "/tmp/b"), 0);
    EXPECT_EQ(vestra_rename("/tmp/new name", "/tmp/no/such/directory"), 0);
    world().fork_fails = true;
    EXPECT_EQ(vestra_rename("/tmp/new name", "/tmp/b"), 0);
    EXPECT_THAT(names_in("/tmp"), ElementsAre("new name"));
}

}  // namespace
}  // namespace vestra_test
