// Capture chain and reader thread.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::vector<uint32_t> chain_sizes() {
    std::vector<uint32_t> sizes;
    for (const circ_buf_s *node = ghead_s; node != nullptr; node = node->next) sizes.push_back(node->size);
    return sizes;
}

// A block whose only frame, of an empty kind, has this type; decoding it returns the type.
std::string block_of_type(int type) {
    return std::string("\x02\x00\x00\x00", 4) + static_cast<char>(type) + std::string(2, '\0');
}

class VestradChain : public DaemonTest {
  protected:
    static int read_from(int fd) { return read_data(&ghead_s, fd, &gtotal_bytes); }
};

TEST_F(VestradChain, NodeAllocationsHaveTheirSizes) {
    static const struct {
        int length;
        size_t bytes;
    } kRows[] = {{1, 40}, {31, 40}, {32, 72}, {63, 72}, {64, 104}, {131072, 131112}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.length);
        circ_buf_s *node = nullptr;
        EXPECT_EQ(vestra_get_node(&node, row.length), row.length);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->next, nullptr);
        EXPECT_EQ(vestra_free_node(&node), 0);
        forget_log();
        world().malloc_fails_for = row.bytes;  // only a request of this very size fails
        EXPECT_EQ(vestra_get_node(&node, row.length), -1);
        EXPECT_EQ(node, nullptr);
        EXPECT_THAT(log_texts(), ElementsAre("ERROR: malloc failed (12:Cannot allocate memory)"));
        world().malloc_fails_for = 0;
    }
    circ_buf_s *none = nullptr;
    EXPECT_EQ(vestra_free_node(&none), 0);
}

TEST_F(VestradChain, BudgetDropsTheOldest) {
    static const struct {
        const char *name;
        uint32_t budget;
        std::vector<size_t> blocks;
        std::vector<uint32_t> kept;
        int complete;
    } kRows[] = {
        {"FirstBlockIsTheHead", 100, {40}, {40}, 0},
        {"ExactlyFullIsKept", 100, {40, 60}, {40, 60}, 0},
        {"OneByteAboveDropsOne", 100, {40, 60, 1}, {60, 1}, 1},
        {"OneBlockPushesSeveralOut", 100, {30, 30, 30, 80}, {80}, 1},
        {"SingleBlockAboveTheBudget", 100, {101}, {}, 1},
        {"ChainGoesOnBehindIt", 100, {20, 200, 50}, {50}, 1},
        {"BudgetOfZero", 0, {1, 1}, {}, 1},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        free_bufs(&ghead_s);
        g_current_new_data = 0;
        max_file_size = row.budget;
        const BlockDevice device;
        uint32_t sent = 0, kept = 0;
        for (const size_t size : row.blocks) {
            device.put(std::string(size, static_cast<char>('a' + size % 26)));
            EXPECT_EQ(read_from(device.fd()), 0);
            sent += static_cast<uint32_t>(size);
        }
        EXPECT_EQ(chain_sizes(), row.kept);
        for (const uint32_t size : row.kept) kept += size;
        EXPECT_EQ(gtotal_bytes, kept);
        EXPECT_EQ(g_current_new_data, sent) << "counts what came, kept or not";
        EXPECT_EQ(file_complete_flag, row.complete);
        for (const circ_buf_s *node = ghead_s; node != nullptr; node = node->next) {
            EXPECT_EQ(std::string(reinterpret_cast<char *>(node->data), node->size),
                      std::string(node->size, static_cast<char>('a' + node->size % 26)));
        }
    }
    free_bufs(&ghead_s);
    EXPECT_EQ(ghead_s, nullptr);
    EXPECT_EQ(gtotal_bytes, 0U);
    EXPECT_EQ(file_complete_flag, 0);
}

TEST_F(VestradChain, DefaultBudgetHoldsEightyWholeReads) {
    const int zeros = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 80; ++i) ASSERT_EQ(read_from(zeros), 0);
    EXPECT_EQ(gtotal_bytes, 10485760U);
    EXPECT_EQ(file_complete_flag, 0);
    EXPECT_EQ(read_from(zeros), 0);
    EXPECT_EQ(gtotal_bytes, 10485760U);
    EXPECT_EQ(file_complete_flag, 1);
    EXPECT_THAT(chain_sizes(), AllOf(SizeIs(80), Each(131072U)));
    close(zeros);
}

TEST_F(VestradChain, LiteModeKeepsByTheLastFrame) {
    static const struct {
        int type;
        bool kept;
    } kRows[] = {{0, true}, {1, false}, {6, false}, {7, true}, {8, true}, {9, false}, {127, false}, {-1, true}};
    const BlockDevice device;
    for (const int lite : {0, 1}) {
        g_vestra_config.vestra_litemode_on = lite;
        for (const auto &row : kRows) {
            SCOPED_TRACE(std::to_string(lite) + " type " + std::to_string(row.type));
            free_bufs(&ghead_s);
            g_current_new_data = 0;
            device.put(block_of_type(row.type));
            EXPECT_EQ(read_from(device.fd()), 0);
            const bool kept = lite == 0 || row.kept;
            EXPECT_THAT(chain_sizes(), SizeIs(kept ? 1 : 0));
            EXPECT_EQ(gtotal_bytes, kept ? 7U : 0U);
            EXPECT_EQ(g_current_new_data, kept ? 7U : 0U);
        }
    }
}

TEST_F(VestradChain, EmptyReadsAreTriedTwentyTimes) {
    append_block(50, 'x');
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    errno = 0;
    EXPECT_EQ(read_from(nothing), 0);
    EXPECT_THAT(log_texts(), AllOf(SizeIs(20), Each("WARN: Invalid Read (0:Success) ")));
    EXPECT_THAT(chain_sizes(), ElementsAre(50U));
    EXPECT_THAT(waits_us(), IsEmpty());
    close(nothing);

    const BlockDevice device;
    for (int i = 0; i < 19; ++i) device.put("");
    device.put("abc");
    EXPECT_EQ(read_from(device.fd()), 0);
    EXPECT_THAT(chain_sizes(), ElementsAre(50U, 3U)) << "the twentieth read still counts";
}

TEST_F(VestradChain, NothingIsReadOnceStopped) {
    const BlockDevice device;
    device.put("abc");
    exit_flag = 1;
    EXPECT_EQ(read_from(device.fd()), 0);
    EXPECT_TRUE(device.has_block());
    EXPECT_EQ(ghead_s, nullptr);
}

TEST_F(VestradChain, FailuresLeaveTheChainAsItWas) {
    append_block(50, 'x');
    const int directory = open("/tmp", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(read_from(directory), -1);
    close(directory);
    EXPECT_THAT(log_texts(), ElementsAre("ERROR: malloc failed (21:Is a directory)")) << "a read error, by that text";
    forget_log();
    const BlockDevice device;
    device.put(std::string(32, 'y'));
    world().malloc_fails_for = 72;
    EXPECT_EQ(read_from(device.fd()), -1);
    EXPECT_THAT(log_texts(), AllOf(SizeIs(2), Each("ERROR: malloc failed (12:Cannot allocate memory)")));
    EXPECT_THAT(chain_sizes(), ElementsAre(50U));
    EXPECT_EQ(gtotal_bytes, 50U);
}

TEST_F(VestradChain, HostileBlocksAreKeptAsTheyCame) {
    std::string noise(4096, '\0');
    uint32_t state = 12345;
    for (char &byte : noise) byte = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
    const BlockDevice device;
    for (size_t i = 0; i < 200; ++i) {
        std::string block = noise.substr(i * 7 % 2048, 1 + i * 13 % 1500);
        if (i % 2 == 0) block = std::string("\x40\x00\x00\x00\x07\x00\x01", 7) + block;  // a switch frame of noise
        device.put(block);
        EXPECT_EQ(read_from(device.fd()), 0);
    }
    EXPECT_THAT(chain_sizes(), SizeIs(200));
}

/* ------------------------------ Reader thread ------------------------------ */

constexpr char kStick[] = "/tmp/stick";
constexpr uint32_t kBudget = 4 * kBlockSize;  // a continuous dump is tried from two new blocks on, written from four

// Runs on the control node's place taken by an endless device: every round reads one whole block.
class VestradReader : public DaemonTest {
  protected:
    VestradReader() {
        make_debug_image();
        fs::create_directories(std::string(kStick) + "/issue_report_agent_DOD/Vestra");
        usb_device_plug("stick", kStick, USB_DEVICE_CLASS_MASS_STORAGE);
        g_prev_usb_path_valid = 1;
        snprintf(g_prev_usb_path, sizeof(g_prev_usb_path), "%s", kStick);
        g_vestra_config.no_of_files = 9;
        max_file_size = kBudget;
        sleep_time_sec_file = 1;
    }
    ~VestradReader() override { unlink(kControlNode); }

    static void device(const char *path) { ASSERT_EQ(symlink(path, kControlNode), 0); }
    // `rounds` whole rounds; one more then only reads.
    static void stop_after_round(size_t rounds) {
        world().on_wait = [rounds](size_t waits) {
            if (waits <= rounds) return;
            g_vestra_config.cont_data_collect = dod_mode_flag = 0;
            exit_flag = 1;
        };
    }
    static size_t dumps() { return names_in(kStick).size() - 1; }
    static size_t dod_dumps() { return names_in(std::string(kStick) + "/issue_report_agent_DOD/Vestra").size(); }
};

struct DueCase {
    const char *name;
    int cont, dod, interval, pause_us;
    uint32_t budget;
    size_t rounds;
    int attempts;             // times that a dump was due
    size_t dumps, dod_dumps;  // files on the stick, in the DOD folder
};
void PrintTo(const DueCase &row, std::ostream *out) {
    *out << row.name;
}

const DueCase kDueCases[] = {
    {"NeitherModeNeverDumps", 0, 0, 1, 1000000, kBudget, 9, 0, 0, 0},
    {"OtherValuesThanOneAreOff", 2, -1, 1, 1000000, kBudget, 9, 0, 0, 0},
    {"OneBlockIsTooLittle", 1, 0, 1, 1000000, kBudget, 1, 0, 0, 0},
    {"TriedAtTheMarginWrittenWhenFull", 1, 0, 1, 1000000, kBudget, 3, 2, 0, 0},
    {"ContinuousDump", 1, 0, 1, 1000000, kBudget, 4, 3, 1, 0},
    {"DodDumpLeavesTheDirectory", 0, 1, 1, 1000000, kBudget, 4, 3, 0, 1},
    {"BothKeepBoth", 1, 1, 1, 1000000, kBudget, 4, 3, 1, 1},
    {"ElapsedEqualToTheIntervalIsEnough", 1, 0, 4, 1000000, kBudget, 4, 1, 1, 0},
    {"IntervalNotYetOver", 1, 0, 5, 1000000, kBudget, 4, 0, 0, 0},
    {"AttemptWithoutDumpStartsTheIntervalAnew", 1, 0, 3, 1000000, kBudget, 5, 1, 0, 0},
    {"AndTheNextAttemptDumps", 1, 0, 3, 1000000, kBudget, 6, 2, 1, 0},
    {"FractionsAreDroppedEachRound", 1, 0, 2, 1999999, kBudget, 4, 2, 1, 0},
    {"ClockOfHalfSecondsStandsStill", 1, 0, 1, 500000, kBudget, 40, 0, 0, 0},
    {"NegativeIntervalIsAlwaysOver", 1, 0, -1, 500000, kBudget, 4, 3, 1, 0},
    {"MarginOfASmallBudgetWraps", 1, 0, 1, 1000000, 0x3ffff, 9, 0, 0, 0},
    {"MarginOfJustEnoughBudget", 1, 0, 1, 1000000, 0x40000, 2, 2, 1, 0},
};

class VestradReaderDue : public VestradReader, public ::testing::WithParamInterface<DueCase> {};

TEST_P(VestradReaderDue, Dumps) {
    const DueCase &row = GetParam();
    device("/dev/zero");
    g_vestra_config.cont_data_collect = row.cont;
    dod_mode_flag = row.dod;
    sleep_time_sec_file = row.interval;
    sleep_time_usec_buf = row.pause_us;
    max_file_size = row.budget;
    stop_after_round(row.rounds);
    EXPECT_EQ(thread_read_func(nullptr), nullptr);
    EXPECT_EQ(count_log("INFO: prevtime["), row.attempts);
    EXPECT_EQ(dumps(), row.dumps);
    EXPECT_EQ(dod_dumps(), row.dod_dumps);
    EXPECT_THAT(waits_us(), AllOf(SizeIs(row.rounds + 1), Each(row.pause_us)));
}

INSTANTIATE_TEST_SUITE_P(Rows, VestradReaderDue, ::testing::ValuesIn(kDueCases),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VestradReader, FailedDumpIsTriedAgainInTheNextRound) {
    device("/dev/zero");
    g_vestra_config.cont_data_collect = 1;
    sleep_time_sec_file = 4;
    world().write_fails_at = 2;
    stop_after_round(5);
    thread_read_func(nullptr);
    EXPECT_EQ(count_log(kError, "ERROR: trf write_data failed (28:No space left on device)"), 1);
    EXPECT_EQ(dumps(), 1U);
    EXPECT_EQ(count_log(kDebug, "INFO: prevtime[0]:curtime[5] secs, newdata[655360]:min_req_data[262144]"), 1);
}

TEST_F(VestradReader, NoStickMeansNoDumpAndNoWord) {
    device("/dev/zero");
    usb_device_unplug("stick");
    g_prev_usb_path_valid = 0;
    g_vestra_config.cont_data_collect = 1;
    sleep_time_sec_file = 4;
    stop_after_round(4 + 41);  // the lookup's waits are counted as well
    thread_read_func(nullptr);
    EXPECT_EQ(g_current_new_data, kBudget + kBlockSize);
    EXPECT_EQ(count_log("write_data failed"), 0);
    EXPECT_EQ(names_in(kStick), std::vector<std::string>{"issue_report_agent_DOD"});
}

TEST_F(VestradReader, RoundsAreLoggedFromStartToEnd) {
    device("/dev/zero");
    stop_after_round(1);
    PrintedText printed;
    thread_read_func(nullptr);
    EXPECT_EQ(printed.take(), "INFO: before main loop########################## \n");
    auto texts = log_texts();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_EQ(texts.front(), "INFO: before main loop########################## ");
    EXPECT_EQ(count_log(kDebug, "INFO: check condition for write 1 0 1 1 [131072]"), 1);
    EXPECT_EQ(texts[texts.size() - 2], "INFO: after main loop");
    EXPECT_EQ(texts.back(), "[vestra] ########################## INFO: before main loop EXIT######################");
}

TEST_F(VestradReader, EndsWithTheDevice) {
    const std::string last = "[vestra] ########################## INFO: before main loop EXIT######################";
    thread_read_func(nullptr);
    EXPECT_THAT(log_texts(), ElementsAre("ERROR: failed to open (2:No such file or directory)", last));
    forget_log();
    device("/tmp");
    thread_read_func(nullptr);
    EXPECT_THAT(log_texts(), ElementsAre("INFO: before main loop########################## ",
                                         "ERROR: malloc failed (21:Is a directory)",
                                         "ERROR: read_data failed (21:Is a directory)", last));
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(VestradReader, StoppedBeforeItsFirstRound) {
    device("/dev/zero");
    exit_flag = 1;
    thread_read_func(nullptr);
    EXPECT_THAT(log_texts(), SizeIs(3));
    EXPECT_EQ(log_texts()[1], "INFO: after main loop");
    EXPECT_EQ(ghead_s, nullptr);
}

}  // namespace
}  // namespace vestra_test
