// Dump writer: file names, bytes, trailer, slots, failures.

#include <sstream>

#include "support/daemon_env.h"

using namespace vestra_test;

static const std::string kOut = "/tmp/out/", kDodFolder = kOut + "issue_report_agent_DOD/Vestra/";
static const std::string kPayload = std::string(100, 'a') + std::string(100, 'b');
static const std::string kDump = "0000000000_42_proc_1709618828", kSlot = "0000000000_42_proc_1_l";
static const std::string kTemporary = "/tmp/temp-vestra_1709618828_250000";

class VestradDump : public DaemonTest {
  protected:
    VestradDump() { prepare(); }

    // A whole budget of new data in two blocks.
    static void prepare() {
        start_afresh();
        make_debug_image();
        fs::create_directories(kDodFolder);
        g_vestra_config.no_of_files = 3;
        append_block(100, 'a');
        append_block(100, 'b');
        max_file_size = 200;
    }
    static int dump(int reason, const char *directory = "/tmp/out", const char *name = "/usr/bin/proc", int pid = 42) {
        return write_data(&ghead_s, directory, name, pid, static_cast<_vestra_write_reason>(reason));
    }
    static Strings dumps() {
        Strings names = names_in(kOut);
        names.pop_back();  // the folder
        return names;
    }
};

TEST_F(VestradDump, EachReasonHasItsFiles) {
    std::ostringstream text;
    for (int reason = 0; reason < 8; ++reason) {
        for (const int lite : {0, 2}) {
            prepare();
            g_vestra_config.vestra_litemode_on = lite;
            text << "reason " << reason << ", lite mode " << lite << "\n";
            world().on_write = [&] {
                text << names_in("/tmp").back() << (is_free(&lock) ? "\n" : " under the lock\n");
            };
            EXPECT_EQ(dump(reason), 0);
            text << files_in(kOut) << "new data " << g_current_new_data << "\n";
            EXPECT_THAT(names_in("/tmp"), ElementsAre("out"));
            EXPECT_EQ(gtotal_bytes, 200U) << "the chain stays";
        }
    }
    expect_golden("dump-reasons", text.str());
}

TEST_F(VestradDump, EveryStepIsLogged) {
    EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS_DOD), 0);
    EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), 0) << "not due any more";
    expect_golden("dump-steps", seen_text("3456s"));
    EXPECT_EQ(dump(0, nullptr) + dump(0, ""), -2);
    EXPECT_EQ(dump(0, "/tmp/out", "/a/b/", -1) + dump(0, "/tmp/out", "a;$(x)", INT_MAX), 0);
    EXPECT_THAT(dumps(), ElementsAre("0000000000_-1__1709618828", "0000000000_2147483647_a;$(x)_1709618828", kSlot));
}

TEST_F(VestradDump, SlotsGoRoundAndOnlyTheNewestIsMarked) {
    std::ostringstream text;
    for (const int slots : {3, 1, 0, -1, INT_MAX}) {
        prepare();
        g_vestra_config.no_of_files = slots;
        for (int round = 0; round < 5; ++round) {
            g_current_new_data = max_file_size;
            EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), 0);
            text << slots << " slots:" << PrintToString(dumps()) << "\n";
        }
    }
    expect_golden("dump-slots", text.str());
}

TEST_F(VestradDump, DirectoryWithAnUnderscoreIsMisread) {
    g_vestra_config.no_of_files = INT_MAX;
    fs::create_directories("/tmp/my_out");
    for (const char *last : {"0000000000_42_proc_1_l", "0000000000_42_proc_2_l"}) {
        g_current_new_data = max_file_size;
        EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS, "/tmp/my_out"), 0);
        EXPECT_EQ(names_in("/tmp/my_out").back(), last);
    }
    EXPECT_EQ(names_in("/tmp/my_out").front(), "0000000000_0__0");
}

TEST_F(VestradDump, FailureKeepsTheChainAndTheTemporaryFile) {
    std::ostringstream text;
    // Bytes that a write takes, and the write that fails.
    for (const auto &[most, failing] :
         Table<size_t, int>{{4, 0}, {60, 2}, {100, 2}, {100, 3}, {100, 4}, {100, 5}, {100, 6}, {100, 7}}) {
        prepare();
        g_vestra_config.vestra_litemode_on = 1;
        world().fails_in[kWrite] = failing;
        world().write_most = most;
        EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), -1);
        text << seen_text("56") << files_in("/tmp") << "new data " << g_current_new_data << "\n";
        EXPECT_EQ(gtotal_bytes, 200U);
        EXPECT_STREQ(g_prev_file_path, "");
    }
    expect_golden("dump-failures", text.str());
}

TEST_F(VestradDump, StopWithinABlockIsAFailureAndOneBeforeItIsNot) {
    world().write_most = 60;
    world().on_write = [] { exit_flag = 1; };
    EXPECT_EQ(dump(0), -1);
    fs::remove(kTemporary);
    EXPECT_EQ(dump(0), 0);
    EXPECT_EQ(read_file(kOut + kDump), std::string(1, '\0')) << "neither chain nor version";
}

TEST_F(VestradDump, PlantedFilesAreNotUsed) {
    write_file("/tmp/victim", "precious");
    write_file("/tmp/empty", "");
    for (void (*plant)() :
         {+[] { fs::create_symlink("/tmp/victim", kTemporary); },
          +[] { ASSERT_EQ(mkfifo(kTemporary.c_str(), 0600), 0); }, +[] { write_file(kTemporary, "planted"); },
          +[] { fs::create_hard_link("/tmp/empty", kTemporary); },
          +[] {
              write_file(kTemporary, "");
              if (chown(kTemporary.c_str(), 12345, 12345) != 0) write_file(kTemporary, "no other user");
          }}) {
        plant();
        EXPECT_EQ(dump(0), -1);
        fs::remove(kTemporary);
    }
    write_file(kTemporary, "");
    EXPECT_EQ(dump(0), 0) << "our own empty one";
    fs::remove("/etc/prd_info.ini");
    fs::create_symlink("/tmp/victim", "/etc/prd_info.ini");
    EXPECT_EQ(dump(0), -1);
    EXPECT_EQ(read_file("/tmp/victim") + read_file("/tmp/empty"), "precious");
    expect_golden("dump-refuses-planted-files", seen_text("6"));
}

TEST_F(VestradDump, FileWithoutAVersionIsAFailure) {
    fs::remove("/etc/prd_info.ini");
    EXPECT_EQ(dump(0), -1);
    fs::remove(kTemporary);
    write_file("/etc/prd_info.ini", std::string(19, '\n') + "Build=1\r\n");
    EXPECT_EQ(dump(0), -1) << "a version on the 20th line counts as none";
    expect_golden("dump-without-version", seen_text("6"));
}

TEST_F(VestradDump, MoveThatFailsGoesUnnoticedButTheFileIsStillThere) {
    EXPECT_EQ(dump(0, "/tmp/missing"), 0);
    EXPECT_EQ(read_file(kTemporary), kPayload + kTrailer);
}

TEST_F(VestradDump, RobustnessDumpIsCopiedOncePerInterval) {
    int64_t clock = 1'900'000'000'000'000;  // later than any other test's
    // Time since the dump before, whether the image is one that is sold, whether it is copied.
    const int rows[][3] = {{0, 0, 1},           {10'999'999, 0, 0}, {1, 0, 1},
                           {100'000'000, 1, 0}, {1, 0, 1},          {-500'000'000, 0, 0}};
    for (const auto &[later_us, release, copied] : rows) {
        SCOPED_TRACE(later_us);
        prepare();
        plug_known_stick();
        g_vestra_config.min_time_diff_dump = 10;
        world().clock_us = clock += later_us;
        if (release != 0) write_file("/etc/release", "");
        EXPECT_EQ(dump(WRITE_REASON_ROBUSTNESS), 0);
        const Strings names = {"0000000000_42_proc_" + std::to_string(clock / 1000000)};
        EXPECT_EQ(dumps(), names) << "always where it was asked for";
        EXPECT_EQ(names_in(kStick), copied != 0 ? names : Strings{});
    }
}
