// Dump writer: file names, bytes, trailer, slots, failures.

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <climits>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kOut[] = "/tmp/out";
constexpr char kDodFolder[] = "/tmp/out/issue_report_agent_DOD/Vestra";

_vestra_write_reason reason_of(int number) {
    return static_cast<_vestra_write_reason>(number);
}

class VestradDump : public DaemonTest {
  protected:
    VestradDump() {
        make_debug_image();
        fs::create_directories(kOut);
        g_vestra_config.no_of_files = 3;
    }

    static int dump(int reason, const char *directory = kOut) {
        return write_data(&ghead_s, directory, "/usr/bin/proc", 42, reason_of(reason));
    }
    // A dump that has enough new data to be due.
    static int continuous_dump(const char *directory = kOut) {
        g_current_new_data = max_file_size;
        return dump(WRITE_REASON_CONTINUOUS, directory);
    }
    static std::vector<std::string> left_in_tmp() {
        std::vector<std::string> names;
        for (const std::string &name : names_in("/tmp")) {
            if (name.rfind("temp-vestra", 0) == 0) names.push_back(name);
        }
        return names;
    }
};

/* ------------------------------ Names and bytes ------------------------------ */

struct ReasonCase {
    const char *name;
    int reason;
    const char *stem, *file;
    size_t in_dod_folder;
};
void PrintTo(const ReasonCase &row, std::ostream *out) {
    *out << row.name;
}
const ReasonCase kReasonCases[] = {
    {"Fault", 0, "temp-vestra", "0000000000_42_proc_1700000000", 0},
    {"UserKey", 1, "temp-vestra-user", "0000000000_42_proc_1700000000", 0},
    {"Continuous", 2, "temp-vestra-cont", "0000000000_42_proc_1_l", 0},
    {"NamelessThree", 3, "temp-vestra-cont", "0000000000_42_proc_1_l", 0},
    {"Robustness", 4, "temp-vestra-ira", "0000000000_42_proc_1700000000", 0},
    {"DodLeavesTheDirectory", 5, "temp-vestra-cont", nullptr, 1},
    {"ContinuousWithDod", 6, "temp-vestra-cont", "0000000000_42_proc_1_l", 1},
    {"FaultWithDod", 7, "temp-vestra", "0000000000_42_proc_1700000000", 1},
};

class VestradDumpReason : public VestradDump, public ::testing::WithParamInterface<ReasonCase> {};

TEST_P(VestradDumpReason, NamesTheFileAndWritesTheChain) {
    const ReasonCase &row = GetParam();
    fs::create_directories(kDodFolder);
    const std::string payload = std::string(3000, 'a') + std::string(1, 'b') + std::string(70000, 'c');
    for (const int lite : {0, 2}) {
        SCOPED_TRACE(lite != 0 ? "LiteMode" : "WholeMode");
        fs::remove_all(kOut);
        fs::create_directories(kDodFolder);
        free_bufs(&ghead_s);
        append_block(3000, 'a');
        append_block(1, 'b');
        append_block(70000, 'c');
        g_vestra_config.vestra_litemode_on = lite;
        max_file_size = g_current_new_data = 73001;
        g_cnt_of_files = 0;
        g_prev_file_path[0] = '\0';
        world().clock_us = 1'700'000'000'250'000;
        std::vector<std::string> temporary;
        world().on_write = [&](int) { temporary = left_in_tmp(); };
        const int fsyncs = fsync_count();

        EXPECT_EQ(dump(row.reason), 0);
        EXPECT_THAT(temporary, ElementsAre(std::string(row.stem) + "_1700000000_250000"));
        EXPECT_THAT(left_in_tmp(), IsEmpty());
        EXPECT_EQ(fsync_count() - fsyncs, 3) << "each block is brought to the disk";

        const std::string expected = payload + kTrailer + (lite != 0 ? std::string("QXLiteMode=2\x0c") : std::string());
        const std::string path = std::string(kOut) + "/" + (row.file == nullptr ? "" : row.file) + (lite ? "-tl" : "");
        if (row.file != nullptr) {
            EXPECT_TRUE(read_file(path) == expected) << path;
        }
        EXPECT_THAT(names_in(kOut), SizeIs(row.file != nullptr ? 2 : 1)) << "and the DOD folder";
        const auto dod = names_in(kDodFolder);
        ASSERT_THAT(dod, SizeIs(row.in_dod_folder));
        if (!dod.empty()) {
            EXPECT_THAT(dod[0], MatchesRegex("0000000000_42_proc_20[0-9][0-9]-[1-9][0-9]?-[1-9][0-9]? "
                                             "[0-9][0-9]?\\.[0-9][0-9]?\\.[0-9][0-9]?"));
            EXPECT_TRUE(read_file(std::string(kDodFolder) + "/" + dod[0]) == expected);
        }
        const bool continuous = row.reason != 0 && row.reason != 1 && row.reason != 4 && row.reason != 7;
        EXPECT_EQ(g_current_new_data, continuous ? 0U : 73001U);
        EXPECT_EQ(gtotal_bytes, 73001U) << "the chain stays";
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradDumpReason, ::testing::ValuesIn(kReasonCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradDump, EmptyChainGivesTheTrailer) {
    EXPECT_EQ(dump(0), 0);
    EXPECT_EQ(read_file("/tmp/out/0000000000_42_proc_1700000000"), kTrailer);
}

TEST_F(VestradDump, NameEndsAtItsLastSlash) {
    EXPECT_EQ(write_data(&ghead_s, kOut, "plain name;$(x)", -1, WRITE_REASON_FAULT), 0);
    EXPECT_EQ(write_data(&ghead_s, kOut, "/a/b/", INT_MAX, WRITE_REASON_FAULT), 0);
    EXPECT_THAT(names_in(kOut),
                ElementsAre("0000000000_-1_plain name;$(x)_1700000000", "0000000000_2147483647__1700000000"));
}

TEST_F(VestradDump, NoDirectoryNoDump) {
    EXPECT_EQ(dump(0, nullptr), -1);
    EXPECT_EQ(dump(0, ""), -1);
    EXPECT_THAT(left_in_tmp(), IsEmpty());
    EXPECT_THAT(log_texts(), IsEmpty());
}

/* ------------------------------ Trailer ------------------------------ */

struct TrailerCase {
    const char *name;
    std::string ini;
    int result;
    std::string bytes;
};
void PrintTo(const TrailerCase &row, std::ostream *out) {
    *out << row.name;
}

std::string lines(int count, const std::string &line) {
    std::string text;
    for (int i = 0; i < count; ++i) text += line;
    return text;
}

// Version text and its length byte.
std::string sized(const std::string &text) {
    return text + static_cast<char>(text.size());
}

const TrailerCase kTrailerCases[] = {
    {"CarriageReturnBecomesTheSlash", "Model=QX-55\r\nBuild=1234.5\r\n", 0, sized("1234.5/QX-55\r\n")},
    {"LineFeedAloneCostsTheLastCharacter", "Model=QX-55\nBuild=1234.5\n", 0, sized("1234./QX-55\n")},
    {"NoLineEndCostsTwo", "Model=M\nBuild=1234", 0, sized("12/M\n")},
    {"TwoCharactersLeaveTheSlash", "Build=12", 0, sized("/")},
    {"OneCharacterLeavesNothing", "Model=M\nBuild=1", 0, sized("M\n")},
    {"EmptyBuild", "Model=M\nBuild=", 0, sized("M\n")},
    {"NoModel", "Build=1234.5\r\n", 0, sized("1234.5/")},
    {"ModelBehindBuildIsNotRead", "Build=1234.5\r\nModel=QX-55\n", 0, sized("1234.5/")},
    {"LastModelCounts", "Model=A\nModel=B\nBuild=1\r\n", 0, sized("1/B\n")},
    {"ModelIsCutAt32", "Model=" + std::string(40, 'M') + "\nBuild=1\r\n", 0, sized("1/" + std::string(32, 'M'))},
    {"KeysAreCaseSensitiveAndAtTheLineStart", "MODEL=A\n Build=2\r\nBuild=1\r\n", 0, sized("1/")},
    {"BuildOnLine19", lines(18, "Other=x\n") + "Build=1\r\n", 0, sized("1/")},
    {"BuildOnLine20IsNone", lines(19, "Other=x\n") + "Build=1\r\n", -1, ""},
    {"NoBuildIn20LinesTakesThe20th", lines(19, "Other=x\n") + "Twentieth\r\nBuild=1\r\n", 0, sized("eth/")},
    {"ShorterFileTakesItsLastLine", "Model=M\nXxxxx=yz\r\n", 0, sized("yz/M\n")},
    {"LongLineIsReadIn128s", "Model=M\n" + std::string(128, 'x') + "Build=1\r\n", 0, sized("1/M\n")},
    {"EmptyFile", "", 0, sized("")},
};

class VestradTrailer : public VestradDump, public ::testing::WithParamInterface<TrailerCase> {};

TEST_P(VestradTrailer, IsMadeOfTheVersionFile) {
    const TrailerCase &row = GetParam();
    write_file("/etc/prd_info.ini", row.ini);
    const int fd = open("/tmp/trailer", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(append_image_version(fd), row.result);
    EXPECT_EQ(read_file("/tmp/trailer"), row.bytes);
    EXPECT_EQ(count_log(kError, "ERROR: Image version not found in the file /etc/prd_info.ini"),
              row.result < 0 ? 1 : 0);
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradTrailer, ::testing::ValuesIn(kTrailerCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradDump, VersionFileThatCannotBeReadFailsTheDump) {
    unlink("/etc/prd_info.ini");
    EXPECT_EQ(dump(0), -1);
    EXPECT_EQ(count_log(kError, "ERROR: File /etc/prd_info.ini doesn't exist (2:No such file or directory)"), 1);
    EXPECT_EQ(count_log(kError, "vestra append_image_version failed (2:No such file or directory)"), 1);
    write_file("/tmp/target", kVersionText);
    ASSERT_EQ(symlink("/tmp/target", "/etc/prd_info.ini"), 0);
    world().clock_us += 1;
    EXPECT_EQ(dump(0), -1);
    EXPECT_EQ(count_log(kError, "[vestra]:File path not real: /etc/prd_info.ini"), 1);
    EXPECT_THAT(left_in_tmp(), SizeIs(2)) << "left for whoever looks into it";
    EXPECT_THAT(names_in(kOut), IsEmpty());
}

/* ------------------------------ Slots of continuous dumps ------------------------------ */

TEST_F(VestradDump, ContinuousDumpWaitsForAWholeBudget) {
    append_block(99, 'x');
    max_file_size = 100;
    EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), 0);
    EXPECT_THAT(log_texts(kError), ElementsAre("ERROR: [vestra] RETURNING  INFO: pch = NULL "));
    EXPECT_THAT(names_in(kOut), IsEmpty());
    EXPECT_EQ(g_current_new_data, 99U);
    EXPECT_EQ(g_cnt_of_files, 0);
}

TEST_F(VestradDump, SlotsGoRoundAndOnlyTheNewestIsMarked) {
    static const struct {
        const char *name;
        int files;
        std::vector<std::vector<std::string>>
            after;  // what lies in the directory after each dump; "0000000000_42_proc_" left out
    } kRows[] = {
        {"Three", 3, {{"1_l"}, {"1", "2_l"}, {"1", "2", "3_l"}, {"1_l", "2", "3"}, {"1", "2_l", "3"}}},
        {"One", 1, {{"1_l"}, {"1_l"}, {"1_l"}}},
        {"ZeroIsOne", 0, {{"1_l"}, {"1_l"}}},
        {"MinusOneIsOne", -1, {{"1_l"}, {"1_l"}}},
        {"AsManyAsThereAreNumbers", INT_MAX, {{"1_l"}, {"1", "2_l"}}},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(kOut);
        fs::create_directories(kOut);
        g_prev_file_path[0] = '\0';
        g_cnt_of_files = 0;
        g_vestra_config.no_of_files = row.files;
        for (const auto &expected : row.after) {
            EXPECT_EQ(continuous_dump(), 0);
            std::vector<std::string> names;
            for (const std::string &name : names_in(kOut)) {
                EXPECT_THAT(name, StartsWith("0000000000_42_proc_"));
                names.push_back(name.substr(strlen("0000000000_42_proc_")));
            }
            EXPECT_EQ(names, expected);
        }
    }
}

TEST_F(VestradDump, MarkIsMisreadInADirectoryWithAnUnderscore) {
    fs::create_directories("/tmp/my_out");
    EXPECT_EQ(continuous_dump("/tmp/my_out"), 0);
    EXPECT_EQ(continuous_dump("/tmp/my_out"), 0);
    EXPECT_THAT(names_in("/tmp/my_out"), ElementsAre("0000000000_0__0", "0000000000_42_proc_2_l"));
}

TEST_F(VestradDump, FirstDumpAfterARestartLeavesTheOldMark) {
    write_file("/tmp/out/0000000000_41_proc_2_l", "old");
    EXPECT_EQ(continuous_dump(), 0);
    EXPECT_THAT(names_in(kOut), ElementsAre("0000000000_41_proc_2_l", "0000000000_42_proc_1_l"));
    EXPECT_EQ(count_log("INFO: remove failed (2:No such file or directory) /tmp/out/0000000000_42_proc_1"), 1);
}

/* ------------------------------ Failures ------------------------------ */

TEST_F(VestradDump, PlantedLinkIsNotFollowed) {
    write_file("/etc/victim", "precious");
    ASSERT_EQ(symlink("/etc/victim", "/tmp/temp-vestra_1700000000_250000"), 0);
    append_block(100, 'x');
    EXPECT_EQ(dump(0), -1);
    EXPECT_EQ(read_file("/etc/victim"), "precious");
    EXPECT_EQ(count_log("ERROR: failed to open /tmp/temp-vestra_1700000000_250000 (40:"), 1);
    EXPECT_EQ(log_texts().back(), "INFO: writefile exit [failed] /tmp/out/0000000000_42_proc_1700000000");
}

struct WriteCase {
    const char *name;
    size_t most;   // bytes a write takes
    int fails_at;  // 0: none
    int stops_at;  // the write before which the daemon is told to stop; 0: none
    int result;
    const char *message;
    std::string left;  // in the temporary file
};
void PrintTo(const WriteCase &row, std::ostream *out) {
    *out << row.name;
}
const WriteCase kWriteCases[] = {
    {"TwentyShortWritesAreEnough", 5, 0, 0, 0, nullptr, ""},
    {"TwentyFirstIsNotTried", 4, 0, 0, -1, "vestra requested 100 bytes but written only 80 bytes",
     std::string(80, 'x')},
    {"FailureInTheSecondWrite", 60, 2, 0, -1, "vestra write failed (28:No space left on device) 100 60",
     std::string(60, 'x')},
    {"StopWithinABlock", 60, 0, 1, -1, "vestra requested 100 bytes but written only 60 bytes", std::string(60, 'x')},
    {"FailureInTheSecondBlock", SIZE_MAX, 2, 0, -1, "vestra write failed (28:No space left on device) 100 0",
     std::string(100, 'x')},
    {"FailureInTheVersion", SIZE_MAX, 3, 0, -1, "ERROR: write failed for image version (28:No space left on device)",
     std::string(200, 'x')},
    {"FailureInTheModel", SIZE_MAX, 4, 0, -1, "ERROR: write failed for image version (28:No space left on device)",
     std::string(200, 'x') + "1234.5/"},
    {"FailureInTheLength", SIZE_MAX, 5, 0, -1, "ERROR: write failed for version length (28:No space left on device)",
     std::string(200, 'x') + "1234.5/QX-55\n"},
    {"FailureInTheLiteText", SIZE_MAX, 6, 0, -1, "ERROR: write failed for QXLiteMode (28:No space left on device)",
     std::string(200, 'x') + kTrailer},
    {"FailureInTheLiteLength", SIZE_MAX, 7, 0, -1,
     "ERROR: write failed for QXLiteMode length (28:No space left on device)",
     std::string(200, 'x') + kTrailer + "QXLiteMode=1"},
};

class VestradDumpWrite : public VestradDump, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(VestradDumpWrite, FailureKeepsTheChainAndTheTemporaryFile) {
    const WriteCase &row = GetParam();
    append_block(100, 'x');
    append_block(100, 'x');
    max_file_size = 200;
    g_vestra_config.vestra_litemode_on = 1;
    world().write_fails_at = row.fails_at;
    world().on_write = [&](int number) {
        // Only the chain's writes come in pieces.
        world().write_most = number <= 40 && row.most < 100 ? row.most : SIZE_MAX;
        if (row.stops_at == number) exit_flag = 1;
    };
    if (row.result == 0) g_vestra_config.vestra_litemode_on = 0;
    EXPECT_EQ(dump(WRITE_REASON_CONTINUOUS), row.result);
    if (row.message != nullptr) {
        EXPECT_EQ(count_log(kError, row.message), 1);
    }
    EXPECT_EQ(gtotal_bytes, 200U);
    EXPECT_EQ(ghead_s->next->size, 100U);
    EXPECT_EQ(pthread_mutex_trylock(&lock), 0) << "the lock is free again";
    pthread_mutex_unlock(&lock);
    if (row.result == 0) {
        EXPECT_EQ(read_file("/tmp/out/0000000000_42_proc_1_l"), std::string(200, 'x') + kTrailer);
        EXPECT_THAT(left_in_tmp(), IsEmpty());
        return;
    }
    EXPECT_EQ(read_file("/tmp/temp-vestra-cont_1700000000_250000"), row.left);
    EXPECT_THAT(names_in(kOut), IsEmpty());
    EXPECT_STREQ(g_prev_file_path, "");
    const bool payload_written = row.left.size() >= 200;
    EXPECT_EQ(g_current_new_data, payload_written ? 0U : 200U);
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradDumpWrite, ::testing::ValuesIn(kWriteCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradDump, StopBeforeTheChainWritesTheTrailerOnly) {
    append_block(100, 'x');
    write_file("/etc/prd_info.ini", "Build=1\r\n");
    exit_flag = 1;
    EXPECT_EQ(dump(0), 0);
    EXPECT_EQ(read_file("/tmp/out/0000000000_42_proc_1700000000"), std::string(1, '\0')) << "an empty version";
}

TEST_F(VestradDump, MoveThatFailsGoesUnnoticedAndKeepsTheFile) {
    append_block(100, 'x');
    write_file("/tmp/file", "");
    EXPECT_EQ(dump(0, "/tmp/file"), 0);
    EXPECT_EQ(dump(0, "/tmp/missing"), 0);
    EXPECT_EQ(read_file("/tmp/temp-vestra_1700000000_250000").substr(0, 100), std::string(100, 'x'));
}

TEST_F(VestradDump, FullStickKeepsTheFileInTmp) {
    fs::create_directories("/tmp/small");
    if (mount("small", "/tmp/small", "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "may not mount";
    append_block(100000, 'x');
    EXPECT_EQ(dump(0, "/tmp/small"), 0);
    EXPECT_EQ(fs::file_size("/tmp/temp-vestra_1700000000_250000"), 100000U + strlen(kTrailer));
    EXPECT_EQ(umount("/tmp/small"), 0);
}

/* ------------------------------ Robustness copies ------------------------------ */

TEST_F(VestradDump, RobustnessDumpIsCopiedOncePerInterval) {
    static const struct {
        const char *name;
        int64_t later_us;  // than the dump before
        bool release, copied;
    } kRows[] = {
        {"TheFirst", 0, false, true},
        {"AtTheInterval", 10'999'999, false, false},
        {"BehindIt", 1, false, true},
        {"ImageThatIsSold", 100'000'000, true, false},
        {"RefusedOnesDoNotCount", 1, false, true},
        {"ClockSetBack", -500'000'000, false, false},
    };
    const char kStick[] = "/tmp/stick";
    g_vestra_config.min_time_diff_dump = 10;
    world().clock_us = 1'900'000'000'000'000;  // later than any other test's
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(kStick);
        fs::create_directories(kStick);
        snprintf(g_prev_usb_path, sizeof(g_prev_usb_path), "%s", kStick);
        g_prev_usb_path_valid = 1;
        world().clock_us += row.later_us;
        unlink("/etc/release");
        if (row.release) write_file("/etc/release", "");
        EXPECT_EQ(dump(WRITE_REASON_ROBUSTNESS), 0);
        const std::string name = "0000000000_42_proc_" + std::to_string(world().clock_us / 1000000);
        EXPECT_EQ(read_file(std::string(kOut) + "/" + name), kTrailer) << "always where it was asked for";
        EXPECT_EQ(names_in(kStick), row.copied ? std::vector<std::string>{name} : std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace vestra_test
