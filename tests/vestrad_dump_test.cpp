// Dump writer: file names, bytes, trailer, slots, failures.

#include "golden.h"
#include "support/daemon_env.h"

using namespace vestra_test;

static const std::string kOut = "/tmp/out/", kDodFolder = kOut + "issue_report_agent_DOD/Vestra/";
static const std::string kPayload = std::string(100, 'a') + std::string(100, 'b');
static const std::string kDump = "0000000000_42_proc_1709618828", kSlot = "0000000000_42_proc_1_l";
static const std::string kDodDump = "0000000000_42_proc_2024-3-5 6.7.8";
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
    for (const auto &[reason, stem, file, dod_file, new_data_left] :
         Table<int, std::string, Strings, Strings, uint32_t>{{0, "temp-vestra", {kDump}, {}, 200},
                                                             {1, "temp-vestra-user", {kDump}, {}, 200},
                                                             {2, "temp-vestra-cont", {kSlot}, {}, 0},
                                                             {3, "temp-vestra-cont", {kSlot}, {}, 0},
                                                             {4, "temp-vestra-ira", {kDump}, {}, 200},
                                                             {5, "temp-vestra-cont", {}, {kDodDump}, 0},
                                                             {6, "temp-vestra-cont", {kSlot}, {kDodDump}, 0},
                                                             {7, "temp-vestra", {kDump}, {kDodDump}, 200}}) {
        for (const int lite : {0, 2}) {
            SCOPED_TRACE("reason " + std::to_string(reason) + " lite mode " + std::to_string(lite));
            prepare();
            g_vestra_config.vestra_litemode_on = lite;
            Strings temporary, files = file;
            std::string lock_at_writes;
            world().on_write = [&] {
                temporary = names_in("/tmp");
                lock_at_writes += lock_is_free() ? 'f' : 'h';
            };
            const int descriptor = next_descriptor();
            EXPECT_EQ(dump(reason), 0);
            EXPECT_EQ(next_descriptor(), descriptor);
            EXPECT_THAT(temporary, ElementsAre("out", stem + "_1709618828_250000"));
            EXPECT_THAT(names_in("/tmp"), ElementsAre("out"));
            EXPECT_EQ(lock_at_writes, lite != 0 ? "hhfffff" : "hhfff") << "held for the blocks, not for the trailer";
            for (std::string &name : files) name += lite != 0 ? "-tl" : "";
            EXPECT_EQ(dumps(), files);
            EXPECT_EQ(names_in(kDodFolder), dod_file);
            const std::string bytes = kPayload + kTrailer + (lite != 0 ? "QXLiteMode=2\x0c" : "");
            for (const std::string &name : files) EXPECT_EQ(read_file(kOut + name), bytes);
            for (const std::string &name : dod_file) EXPECT_EQ(read_file(kDodFolder + name), bytes);
            EXPECT_EQ(g_current_new_data, new_data_left);
            EXPECT_EQ(gtotal_bytes, 200U) << "the chain stays";
        }
    }
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
    // Number of slots; what lies in the directory after each dump, without "0000000000_42_proc_".
    for (const auto &[slots, after] : Table<int, std::vector<Strings>>{
             {3, {{"1_l"}, {"1", "2_l"}, {"1", "2", "3_l"}, {"1_l", "2", "3"}, {"1", "2_l", "3"}}},
             {1, {{"1_l"}, {"1_l"}}},
             {0, {{"1_l"}, {"1_l"}}},
             {-1, {{"1_l"}, {"1_l"}}},
             {INT_MAX, {{"1_l"}, {"1", "2_l"}}}}) {
        SCOPED_TRACE(slots);
        prepare();
        g_vestra_config.no_of_files = slots;
        for (Strings expected : after) {
            for (std::string &name : expected) name = "0000000000_42_proc_" + name;
            g_current_new_data = max_file_size;
            EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), 0);
            EXPECT_EQ(dumps(), expected);
        }
    }
    fs::create_directories("/tmp/my_out");
    for (const char *last : {"0000000000_42_proc_3_l", "0000000000_42_proc_4_l"}) {
        g_current_new_data = max_file_size;
        EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS, "/tmp/my_out"), 0);
        EXPECT_EQ(names_in("/tmp/my_out").back(), last);
    }
    EXPECT_EQ(names_in("/tmp/my_out").front(), "0000000000_0__0") << "a directory with an underscore is misread";
}

TEST_F(VestradDump, FailureLeavesTheTemporaryFile) {
    const std::string full = " (28:No space left on device)";
    // Bytes that a write takes, the write that fails, the message, what is left in the temporary file.
    for (const auto &[most, failing, message, left] : Table<size_t, int, std::string, std::string>{
             {4, 0, "6 vestra requested 100 bytes but written only 80 bytes", kPayload.substr(0, 80)},
             {60, 2, "6 vestra write failed" + full + " 100 60", kPayload.substr(0, 60)},
             {100, 2, "6 vestra write failed" + full + " 100 0", kPayload.substr(0, 100)},
             {100, 3, "6 ERROR: write failed for image version" + full, kPayload},
             {100, 5, "6 ERROR: write failed for version length" + full, kPayload + "1234.5/QX-55\n"},
             {100, 6, "6 ERROR: write failed for QXLiteMode" + full, kPayload + kTrailer},
             {100, 7, "6 ERROR: write failed for QXLiteMode length" + full, kPayload + kTrailer + "QXLiteMode=1"}}) {
        SCOPED_TRACE(message);
        prepare();
        g_vestra_config.vestra_litemode_on = 1;
        world().fails_in[kWrite] = failing;
        world().write_most = most;
        EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), -1);
        EXPECT_EQ(seen("6").front(), message);
        EXPECT_EQ(seen().back(), "5 INFO: writefile exit [failed] /tmp/out/0000000000_42_proc_1_l-tl");
        EXPECT_EQ(read_file("/tmp/temp-vestra-cont_1709618828_250000"), left);
        EXPECT_THAT(dumps(), IsEmpty());
        EXPECT_STREQ(g_prev_file_path, "");
        EXPECT_EQ(g_current_new_data, left.size() < 200 ? 200U : 0U);
    }
}

TEST_F(VestradDump, BlockMayTakeTwentyWrites) {
    write_file("/etc/prd_info.ini", "Build=12");
    world().write_most = 5;
    EXPECT_EQ(dump(0), 0);
    EXPECT_EQ(read_file(kOut + kDump), kPayload + "/\1");
}

TEST_F(VestradDump, StopEndsIt) {
    world().write_most = 60;
    world().on_write = [] { exit_flag = 1; };
    EXPECT_EQ(dump(0), -1) << "stopped within a block";
    EXPECT_EQ(dump(0), 0) << "stopped before: neither chain nor version";
    EXPECT_EQ(read_file(kOut + kDump), std::string(1, '\0') + kPayload.substr(1, 59)) << "over what was left";
}

TEST_F(VestradDump, PlantedLinkOrPipeIsRefused) {
    write_file("/tmp/victim", "precious");
    fs::create_symlink("/tmp/victim", kTemporary);
    EXPECT_EQ(dump(0), -1);
    fs::remove(kTemporary);
    ASSERT_EQ(mkfifo(kTemporary.c_str(), 0600), 0);
    EXPECT_EQ(dump(0), -1) << "not waited for";
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    EXPECT_THAT(seen("6"), ElementsAre(HasSubstr("(40:Too many levels"), HasSubstr("(22:Invalid argument)")));
}

TEST_F(VestradDump, MoveThatFailsGoesUnnoticed) {
    EXPECT_EQ(dump(0, "/tmp/missing"), 0);
    EXPECT_EQ(read_file(kTemporary), kPayload + kTrailer) << "still there";
}

TEST_F(VestradDump, VersionFileMustGiveAVersion) {
    fs::remove("/etc/prd_info.ini");
    EXPECT_EQ(dump(0), -1);
    fs::create_symlink("/tmp/out", "/etc/prd_info.ini");
    EXPECT_EQ(dump(0), -1);
    fs::remove("/etc/prd_info.ini");
    write_file("/etc/prd_info.ini", std::string(19, '\n') + "Build=1\r\n");
    EXPECT_EQ(dump(0), -1) << "a version on the 20th line counts as none";
    expect_golden("dump-without-version", seen_text("6"));
}

TEST_F(VestradDump, RobustnessDumpIsCopiedOncePerInterval) {
    int64_t clock = 1'900'000'000'000'000;  // later than any other test's
    // Time since the dump before, whether the image is one that is sold, whether it is copied.
    for (const auto &[later_us, release, copied] : Table<int, bool, bool>{{0, false, true},
                                                                          {10'999'999, false, false},
                                                                          {1, false, true},
                                                                          {100'000'000, true, false},
                                                                          {1, false, true},
                                                                          {-500'000'000, false, false}}) {
        SCOPED_TRACE(later_us);
        prepare();
        plug_known_stick();
        g_vestra_config.min_time_diff_dump = 10;
        world().clock_us = clock += later_us;
        if (release) write_file("/etc/release", "");
        EXPECT_EQ(dump(WRITE_REASON_ROBUSTNESS), 0);
        const Strings names = {"0000000000_42_proc_" + std::to_string(clock / 1000000)};
        EXPECT_EQ(dumps(), names) << "always where it was asked for";
        EXPECT_EQ(names_in(kStick), copied ? names : Strings{});
    }
}
