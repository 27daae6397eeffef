#include <sys/stat.h>

#include "platform_env.h"

namespace fs = std::filesystem;

using StateDir = PlatformTest;

TEST_F(StateDir, WhatCannotBeReadGivesNothingAndALine) {
    fs::create_directory(root_ / "directory");
    put("large", std::string(101, 'x'));
    fs::create_symlink(root_ / "nowhere", root_ / "dangling");
    ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0600), 0);
    for (const char *name : {"missing", "directory", "large", "dangling", "pipe", "no/such/place"}) {
        LogText log;
        EXPECT_EQ(read_state_file(state_path(name), 100), std::nullopt) << name;
        EXPECT_NE(log.take().find(state_path(name)), std::string::npos) << name;
    }
    put("fits", std::string(100, 'x'));
    EXPECT_EQ(read_state_file(state_path("fits"), 100), std::string(100, 'x'));
}

TEST_F(StateDir, AFailedReplacementLeavesNothingBehind) {
    fs::create_directories(root_ / "target" / "full");
    LogText log;
    EXPECT_FALSE(replace_state_file(state_path("target"), "text"));
    EXPECT_FALSE(replace_state_file(state_path("missing/file"), "text"));
    log.take();
    for (const auto &entry : fs::directory_iterator(root_)) EXPECT_NE(entry.path().filename().native()[0], '.');
}

TEST_F(StateDir, AReplacedLinkIsNotFollowed) {
    put("victim", "kept");
    fs::create_symlink(root_ / "victim", root_ / "link");
    EXPECT_TRUE(replace_state_file(state_path("link"), "new"));
    EXPECT_EQ(get("victim"), "kept");
    EXPECT_EQ(get("link"), "new");
}

TEST(EncodeName, KeepsKeysApartAndInTheirDirectory) {
    EXPECT_EQ(encode_name("memory/SHM/trigger_db-write.1"), "memory%2FSHM%2Ftrigger_db-write.1");
    EXPECT_EQ(encode_name(".."), "%2E.");
    EXPECT_EQ(encode_name(".new-1"), "%2Enew-1");
    EXPECT_EQ(encode_name("%2F"), "%252F");
    EXPECT_EQ(encode_name(""), "%");
    EXPECT_EQ(encode_name("\xff\n"), "%FF%0A");
}

TEST(Fault, OnlyTheChosenCallFailsAndResetEndsIt) {
    platform_fail_nth(FAULT_USB_INIT, 3);
    EXPECT_FALSE(platform_fault(FAULT_USB_INIT));
    EXPECT_FALSE(platform_fault(FAULT_USB_LIST));
    EXPECT_FALSE(platform_fault(FAULT_USB_INIT));
    EXPECT_TRUE(platform_fault(FAULT_USB_INIT));
    EXPECT_FALSE(platform_fault(FAULT_USB_INIT));
    platform_fail_always(FAULT_USB_INIT);
    EXPECT_TRUE(platform_fault(FAULT_USB_INIT));
    EXPECT_TRUE(platform_fault(FAULT_USB_INIT));
    platform_faults_reset();
    EXPECT_FALSE(platform_fault(FAULT_USB_INIT));
}
