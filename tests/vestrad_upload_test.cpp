// Live upload, to a program in curl's place that shows what it was given.

#include "support/daemon_env.h"

using namespace vestra_test;

static int upload(std::string text) {
    return send_live_data(reinterpret_cast<unsigned char *>(text.data()), static_cast<unsigned int>(text.size()));
}

static void send_to(std::string_view address) {
    char(&field)[kExtfilePathSize] = g_vestra_config.vestra_extfile_path_id;
    memset(field, 0, sizeof(field));
    memcpy(field, address.data(), std::min(address.size(), sizeof(field)));
}

class VestradUpload : public DaemonTest {
  protected:
    void SetUp() override {
        make_debug_image();
        write_file("/tmp/curl",
                   "#!/bin/sh\nprintf '%s|' \"$@\" >> /tmp/given\ncat \"${2#file=@}\" > /tmp/sent\nexit 9\n");
        fs::permissions("/tmp/curl", fs::perms::all);
        if (mount("/tmp/curl", "/usr/bin/curl", nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
        g_vestra_config.live_data_collect = 1;
        g_vestra_config.vestra_unique_id = 4711;
        send_to("http://a.example/");
    }
    void TearDown() override { umount2("/usr/bin/curl", MNT_DETACH); }
};

TEST_F(VestradUpload, ServerGetsTheBlockAndTheTrailer) {
    const std::string behind = "_0000000000_" + std::to_string(getpid()) + "_vestrad", block(200, 'x');
    const std::string name = "/tmp/4711_1709618828_0" + behind, second = "/tmp/4711_1709618828_1" + behind;
    const int descriptor = next_descriptor();
    world().write_most = 10;  // twenty writes are enough
    EXPECT_EQ(upload(block), 0);
    EXPECT_EQ(read_file("/tmp/sent"), block + kTrailer);
    EXPECT_THAT(seen("3456s"), ElementsAre("3 [send_live_data] total_file_size 200", "sync",
                                           "3 INFO: after write done!!!", "3 INFO: after append_image_version",
                                           "3 vestra: data ready for sending to server http://a.example/",
                                           "3 vestra: data sent to server http://a.example/fileRead.py..",
                                           "3 INFO: writefile exit [success] " + name));
    upload("abc");
    world().clock_us += 1'000'000;
    memset(g_vestra_config.vestra_extfile_path_id, 'p', sizeof(g_vestra_config.vestra_extfile_path_id));
    upload("abc");
    EXPECT_EQ(read_file("/tmp/given"), "-F|file=@" + name + "|http://a.example/fileRead.py|-F|file=@" + second +
                                           "|http://a.example/fileRead.py|-F|file=@/tmp/4711_1709618829_0" + behind +
                                           "|" + std::string(255, 'p') + "|");
    EXPECT_EQ(upload(""), 0);
    g_vestra_config.live_data_collect = 2;
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_THAT(seen().back(), "3 [send_live_data] total_file_size 3") << "off, or nothing to send";
    EXPECT_THAT(names_in("/tmp"), ElementsAre("curl", "given", "sent"));
    EXPECT_EQ(next_descriptor(), descriptor);
}

TEST_F(VestradUpload, FailureBeforeTheUploadLeavesTheFile) {
    world().write_most = 4;
    EXPECT_EQ(upload(std::string(100, 'x')), -1);
    EXPECT_THAT(seen("6"), Contains("6 ERROR: requested 100 bytes but written only 80 bytes"));
    EXPECT_THAT(seen().back(), StartsWith("6 INFO: writefile exit [failed] /tmp/4711_"));
    EXPECT_THAT(names_in("/tmp"), SizeIs(1 + 1));
}
