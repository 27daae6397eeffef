// Live upload. A script replaces curl and keeps what it gets.

#include <regex>

#include "support/daemon_env.h"

using namespace vestra_test;

class VestradUpload : public DaemonTest {
  protected:
    void SetUp() override {
        make_debug_image();
        write_file("/tmp/curl",
                   "#!/bin/sh\nprintf '%s|' \"$@\" >> /tmp/given\ncat \"${2#file=@}\" > /tmp/sent\nexit 9\n");
        fs::permissions("/tmp/curl", fs::perms::all);
        if (mount("/tmp/curl", "/usr/bin/curl", nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
        static int seconds;  // the number within a second goes on over the tests of one process
        world().clock_us = (1'709'618'900 + seconds++) * int64_t{1'000'000};
        g_vestra_config.live_data_collect = 1;
        g_vestra_config.vestra_unique_id = 4711;
        memcpy(g_vestra_config.vestra_extfile_path_id, "http://a.example/", 18);
    }
    void TearDown() override { umount2("/usr/bin/curl", MNT_DETACH); }

    static int upload(std::string text) {
        return send_live_data(reinterpret_cast<unsigned char *>(text.data()), static_cast<unsigned int>(text.size()));
    }
    static std::string file(int number) {
        return "/tmp/4711_" + std::to_string(world().clock_us / 1'000'000) + "_" + std::to_string(number) +
               "_0000000000_" + std::to_string(getpid()) + "_vestrad";
    }
};

TEST_F(VestradUpload, BlockAndTrailerAreSentAndNothingIsLeft) {
    const std::string block = std::string(150, 'x') + std::string(50, 'y'), address = "http://a.example/";
    world().write_most = 10;  // twenty writes are enough
    EXPECT_EQ(upload(block), 0) << "what curl says does not matter";
    EXPECT_EQ(read_file("/tmp/sent"), block + kTrailer);
    EXPECT_EQ(read_file("/tmp/given"), "-F|file=@" + file(0) + "|" + address + "fileRead.py|");
    expect_golden("upload", std::regex_replace(seen_text("3456s"), std::regex(file(0)), "FILE"));
    EXPECT_THAT(names_in("/tmp"), ElementsAre("curl", "given", "sent"));
}

TEST_F(VestradUpload, UploadsOfOneSecondAreNumbered) {
    std::string given;
    for (const auto &[later_us, number] : Table<int, int>{{0, 0}, {0, 1}, {1'000'000, 0}}) {
        world().clock_us += later_us;
        upload("abc");
        given += "-F|file=@" + file(number) + "|http://a.example/fileRead.py|";
    }
    EXPECT_EQ(read_file("/tmp/given"), given);
}

TEST_F(VestradUpload, AddressMayFillItsWholeField) {
    memset(g_vestra_config.vestra_extfile_path_id, 'p', sizeof(g_vestra_config.vestra_extfile_path_id));
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_THAT(read_file("/tmp/given"), EndsWith("|" + std::string(255, 'p') + "|"));
}

TEST_F(VestradUpload, NothingIsSentWhenItIsOffOrThereIsNothing) {
    EXPECT_EQ(upload(""), 0);
    g_vestra_config.live_data_collect = 2;  // off: only 1 is on
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_THAT(names_in("/tmp"), ElementsAre("curl"));
}

TEST_F(VestradUpload, FileIsClosedEvenAsDescriptorZero) {
    const int kept = dup(0);
    close(0);
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(kept, 0);
    close(kept);
}

TEST_F(VestradUpload, FailureBeforeTheUploadLeavesTheFile) {
    world().write_most = 4;
    EXPECT_EQ(upload(std::string(100, 'x')), -1);
    EXPECT_THAT(seen("6"), Contains("6 ERROR: requested 100 bytes but written only 80 bytes"));
    EXPECT_EQ(seen().back(), "6 INFO: writefile exit [failed] " + file(0));
    EXPECT_THAT(names_in("/tmp"), ElementsAre("curl", StartsWith("temp-vestra-live_")));
}
