// Capture chain and reader thread.

#include <numeric>

#include "support/daemon_env.h"

using namespace vestra_test;

static std::vector<uint32_t> chain_sizes() {
    std::vector<uint32_t> sizes;
    for (const circ_buf_s *node = ghead_s; node != nullptr; node = node->next) sizes.push_back(node->size);
    return sizes;
}

class VestradChain : public DaemonTest {
  protected:
    static int read_from(int fd) { return read_data(&ghead_s, fd, &gtotal_bytes); }
    int read_block(const std::string &block) const {
        put(block);
        return read_from(node_);
    }
    const int node_ = make_node();
};

TEST_F(VestradChain, BudgetDropsTheOldest) {
    max_file_size = 100;
    using Sizes = std::vector<uint32_t>;
    // Sizes of the blocks that are read and of those that are kept, whether the chain was full.
    for (const auto &[blocks, kept, complete] : Table<Sizes, Sizes, int>{{{40, 60}, {40, 60}, 0},
                                                                         {{40, 60, 1}, {60, 1}, 1},
                                                                         {{30, 30, 80}, {80}, 1},
                                                                         {{101}, {}, 1},
                                                                         {{20, 200, 50}, {50}, 1}}) {
        SCOPED_TRACE(PrintToString(blocks));
        free_bufs(&ghead_s);
        EXPECT_EQ(file_complete_flag, 0);
        g_current_new_data = 0;
        for (const uint32_t size : blocks) EXPECT_EQ(read_block(std::string(size, static_cast<char>(size))), 0);
        EXPECT_EQ(chain_sizes(), kept);
        for (const circ_buf_s *node = ghead_s; node != nullptr; node = node->next) {
            EXPECT_THAT(std::vector<uint8_t>(node->data, node->data + node->size), Each(node->size));
        }
        EXPECT_EQ(gtotal_bytes, std::accumulate(kept.begin(), kept.end(), 0U));
        EXPECT_EQ(g_current_new_data, std::accumulate(blocks.begin(), blocks.end(), 0U)) << "kept or not";
        EXPECT_EQ(file_complete_flag, complete);
    }
}

TEST_F(VestradChain, LiteModeKeepsByTheLastFrame) {
    for (const auto &[type, kept] :
         Table<int, size_t>{{0, 1}, {1, 0}, {6, 0}, {7, 1}, {8, 1}, {9, 0}, {127, 0}, {-1, 1}}) {
        SCOPED_TRACE(type);
        // Its only frame, of an empty kind, has this type.
        const std::string block = std::string("\2\0\0\0", 4) + static_cast<char>(type) + std::string(2, '\0');
        for (const int lite : {0, 1}) {
            g_vestra_config.vestra_litemode_on = lite;
            free_bufs(&ghead_s);
            EXPECT_EQ(read_block(block), 0);
            EXPECT_THAT(chain_sizes(), SizeIs(lite == 0 ? 1 : kept));
        }
    }
}

TEST_F(VestradChain, TwentyReadsOfNothingLeaveItAsItWas) {
    append_block(50, 'x');
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    errno = 0;
    EXPECT_EQ(read_from(nothing), 0);
    EXPECT_THAT(seen("3456w"), ElementsAre("5 WARN: Invalid Read (0:Success)  *20"));
    EXPECT_THAT(chain_sizes(), ElementsAre(50U));
    close(nothing);
}

TEST_F(VestradChain, NothingIsReadOnceTheDaemonStops) {
    exit_flag = 1;
    EXPECT_EQ(read_block("abc"), 0);
    EXPECT_EQ(drain_node(), "abc");
    EXPECT_THAT(chain_sizes(), IsEmpty());
}

/* ------------------------------ Reader thread ------------------------------ */

static const std::string kDodFolder = std::string(kStick) + "/issue_report_agent_DOD/Vestra";

// An endless device takes the control node's place: every round reads one whole block. A dump is tried from two new
// blocks on and written from four.
class VestradReader : public DaemonTest {
  protected:
    VestradReader() { prepare("/dev/zero"); }

    static void prepare(const char *device) {
        start_afresh();
        make_debug_image();
        plug_known_stick();
        fs::create_directories(kDodFolder);
        fs::create_symlink(device, kControlNode);
        g_vestra_config.no_of_files = 9;
        g_vestra_config.cont_data_collect = 1;
        max_file_size = 4 * 131072;
    }
    // `rounds` whole rounds; one more then only reads.
    static void run(int rounds) {
        world().on_wait = [rounds](int waits) {
            if (waits <= rounds) return;
            g_vestra_config.cont_data_collect = dod_mode_flag = 0;
            exit_flag = 1;
        };
        EXPECT_EQ(thread_read_func(nullptr), nullptr);
    }
    static size_t dumps() { return names_in(kStick).size() - 1; }
};

TEST_F(VestradReader, DumpsWhenTimeAndDataAreEnough) {
    static const struct {
        const char *name;
        int cont, dod, interval, pause_us;
        uint32_t budget;
        int rounds;
        size_t attempts, dumps, dod_dumps;  // times that a dump was due, files on the stick, in the DOD folder
    } kRows[] = {
        {"NeitherModeNeverDumps", 0, 0, 1, 1000000, 0x80000, 9, 0, 0, 0},
        {"OtherValuesThanOneAreOff", 2, -1, 1, 1000000, 0x80000, 9, 0, 0, 0},
        {"OneBlockIsTooLittle", 1, 0, 1, 1000000, 0x80000, 1, 0, 0, 0},
        {"TriedAtTheMarginWrittenWhenFull", 1, 0, 1, 1000000, 0x80000, 3, 2, 0, 0},
        {"ContinuousDump", 1, 0, 1, 1000000, 0x80000, 4, 3, 1, 0},
        {"DodDumpLeavesTheDirectory", 0, 1, 1, 1000000, 0x80000, 4, 3, 0, 1},
        {"BothKeepBoth", 1, 1, 1, 1000000, 0x80000, 4, 3, 1, 1},
        {"ElapsedEqualToTheIntervalIsEnough", 1, 0, 4, 1000000, 0x80000, 4, 1, 1, 0},
        {"IntervalNotYetOver", 1, 0, 5, 1000000, 0x80000, 4, 0, 0, 0},
        {"AttemptWithoutDumpStartsTheIntervalAgain", 1, 0, 3, 1000000, 0x80000, 5, 1, 0, 0},
        {"FractionsAreDroppedEachRound", 1, 0, 2, 1999999, 0x80000, 4, 2, 1, 0},
        {"MarginOfASmallBudgetWraps", 1, 0, 1, 1000000, 0x3ffff, 9, 0, 0, 0},
        {"MarginOfJustEnoughBudget", 1, 0, 1, 1000000, 0x40000, 2, 2, 1, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        prepare("/dev/zero");
        g_vestra_config.cont_data_collect = row.cont;
        dod_mode_flag = row.dod;
        sleep_time_sec_file = row.interval;
        sleep_time_usec_buf = row.pause_us;
        max_file_size = row.budget;
        run(row.rounds);
        EXPECT_THAT(seen("3"), Contains(StartsWith("3 INFO: prevtime[")).Times(row.attempts));
        EXPECT_EQ(dumps(), row.dumps);
        EXPECT_THAT(names_in(kDodFolder), SizeIs(row.dod_dumps));
        EXPECT_EQ(seen("w").front(), "wait " + std::to_string(row.pause_us) + " *" + std::to_string(row.rounds + 1));
    }
}

TEST_F(VestradReader, DumpThatFailsIsTriedAgainInTheNextRound) {
    world().fails_in[kWrite] = 2;
    run(5);
    EXPECT_EQ(seen("6").back(), "6 ERROR: trf write_data failed (28:No space left on device)");
    EXPECT_THAT(seen(), Contains("3 INFO: prevtime[0]:curtime[5] secs, newdata[655360]:min_req_data[262144]"));
    EXPECT_EQ(dumps(), 1U);
}

TEST_F(VestradReader, EveryWayOutIsLogged) {
    EXPECT_EQ(printed_by([] { run(0); }), "INFO: before main loop########################## \n");
    std::string text = "a whole round\n" + seen_text("3456w");
    begin_transcript();
    run(0);
    text += "stopped already\n" + seen_text("3456w");
    for (const char *place : {"/tmp", "/tmp/missing"}) {
        prepare(place);
        run(0);
        text += std::string(place) + " in the node's place\n" + seen_text("3456w");
    }
    expect_golden("reader-ends", text);
}
