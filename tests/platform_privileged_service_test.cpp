#include "platform/privileged_service.h"

#include <cstring>

#include "platform_env.h"

using PrivilegedService = PlatformTest;

static constexpr char kPath[] = "/lib/modules/linux/kernel/orna-vestra-kmod.ko";

TEST_F(PrivilegedService, AModuleIsLoadedFromItsFileAndUnloadedByItsName) {
    int result = 9;
    EXPECT_EQ(PS_Insmod_Fast(kPath, strlen(kPath), 0, &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(get("modules/orna_vestra_kmod"), kPath);
    EXPECT_EQ(PS_Insmod_Fast(kPath, strlen(kPath), 0, nullptr), 0);
    EXPECT_EQ(PS_Rmmod("orna_vestra_kmod", strlen("orna_vestra_kmod"), 0, &result), 0);
    EXPECT_EQ(files_in("modules"), 0U);
    LogText log;
    EXPECT_LT(PS_Rmmod("orna_vestra_kmod", strlen("orna_vestra_kmod"), 0, &result), 0);
    EXPECT_LT(result, 0);
    EXPECT_STREQ(PS_ErrorToString(result), "module not loaded");
}

TEST_F(PrivilegedService, OnlyTheGivenLengthIsRead) {
    // Blocks of their own, without a NUL: reading on would be seen by the address sanitizer.
    const std::string text = "/x/some.koXXX";
    const std::unique_ptr<char[]> path(new char[10]);
    memcpy(path.get(), text.data(), 10);
    EXPECT_EQ(PS_Insmod_Fast(path.get(), 10, 0, nullptr), 0);
    EXPECT_EQ(get("modules/some"), "/x/some.ko");
    const std::unique_ptr<char[]> name(new char[4]);
    memcpy(name.get(), "none", 4);
    LogText log;
    EXPECT_LT(PS_Rmmod(name.get(), 4, 0, nullptr), 0);
    log.take();
    memcpy(name.get(), "some", 4);
    EXPECT_EQ(PS_Rmmod(name.get(), 4, 0, nullptr), 0);
}

TEST_F(PrivilegedService, NamesThatNameNothingAreRefused) {
    for (const char *path : {"", "/", "/a/", ".ko", "/a/.ko"}) {
        EXPECT_LT(PS_Insmod_Fast(path, strlen(path), 0, nullptr), 0) << path;
        EXPECT_LT(PS_Rmmod(path, strlen(path), 0, nullptr), 0) << path;
    }
    EXPECT_LT(PS_Insmod_Fast(nullptr, 3, 0, nullptr), 0);
    EXPECT_EQ(PS_Insmod_Fast("/..", 3, 0, nullptr), 0);
    EXPECT_TRUE(std::filesystem::exists(root_ / "modules/%2E."));
}

TEST_F(PrivilegedService, FailsOnPurposeAndWithoutTheDirectory) {
    int result = 0;
    platform_fail_nth(FAULT_INSMOD, 1);
    EXPECT_LT(PS_Insmod_Fast(kPath, strlen(kPath), 0, &result), 0);
    EXPECT_STREQ(PS_ErrorToString(result), "refused");
    EXPECT_EQ(PS_Insmod_Fast(kPath, strlen(kPath), 0, &result), 0);
    platform_fail_nth(FAULT_RMMOD, 1);
    EXPECT_LT(PS_Rmmod("orna_vestra_kmod", 16, 0, &result), 0);
    EXPECT_EQ(files_in("modules"), 1U);
    std::filesystem::remove_all(root_ / "modules");
    LogText log;
    EXPECT_LT(PS_Insmod_Fast(kPath, strlen(kPath), 0, &result), 0);
    EXPECT_NE(log.take(), "");
    EXPECT_STREQ(PS_ErrorToString(result), "service not available");
    EXPECT_STREQ(PS_ErrorToString(12345), "unknown error");
}
