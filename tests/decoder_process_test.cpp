// What switch messages leave about processes: the CPU history and the memory list.

#include <cmath>
#include <limits>

#include "decoder_support.h"
#include "failing_new.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using vestra_set::kSwitchFrame;
using vestra_set::SwitchMessage;

namespace {

using Hist = __VestraProcCPUUsageHist__;

Hist hist(int pid, const char *name) {
    return {kSecond, pid, -1, 1, 2, 0, 0, 0, name};
}
int store(Hist record) {
    return vestra_vital_update_cpuusage_hist(&record);
}
void take(const SwitchMessage &message) {
    decode(block({frame(kSwitchFrame, message)}));
}

/* ------------------------------ History table ------------------------------ */

class History : public DecoderTest {};

TEST_F(History, PidsOfOneHomeFollowEachOther) {
    EXPECT_EQ(store(hist(5, "a")), 5);
    EXPECT_EQ(store(hist(32773, "b")), 6);
    EXPECT_EQ(store(hist(6, "c")), 7);
    EXPECT_EQ(store(hist(32767, "d")), 32767);
    EXPECT_EQ(store(hist(65535, "e")), 0) << "around the end";
    EXPECT_EQ(vesrta_checkhash_hist(32773), 6);
    EXPECT_EQ(vesrta_checkhash_hist(65535), 0);
    EXPECT_EQ(vesrta_checkhash_hist(65541), -1);
    Hist found;
    EXPECT_EQ(vesrta_get_process_data_hist(6, 0, &found), 7);
    EXPECT_EQ(found.name, "c");
    EXPECT_EQ(vesrta_get_process_data_hist(6, 0, nullptr), 7);
}

TEST_F(History, RecordBehindUnusedOnesIsFound) {
    gProcCpuUsageHist[4] = hist(9, "far");
    EXPECT_EQ(vesrta_checkhash_hist(9), 4) << "the very last one that is looked at";
}

TEST_F(History, RecordWithoutANameIsFreeForAnother) {
    EXPECT_EQ(store(hist(5, "")), 5);
    EXPECT_EQ(vesrta_checkhash_hist(5), -1);
    EXPECT_EQ(vesrta_gethash_hist(32773), 5);
    EXPECT_EQ(gProcCpuUsageHist[5].pid, 5) << "overwritten only by the update that follows";
    EXPECT_EQ(store(hist(32773, "b")), 5);
    EXPECT_EQ(gProcCpuUsageHist[5].pid, 32773);
    EXPECT_EQ(vesrta_gethash_hist(32773), 6);
    EXPECT_EQ(gProcCpuUsageHist[6].pid, 32773) << "an unused one is claimed at once";
}

TEST_F(History, NegativePidsHaveAPlaceAndMinusOneHasNone) {
    EXPECT_EQ(store(hist(-2, "a")), 32766);
    EXPECT_EQ(vesrta_checkhash_hist(-2), 32766);
    EXPECT_EQ(store(hist(std::numeric_limits<int>::min(), "b")), 0);
    EXPECT_EQ(vesrta_checkhash_hist(-1), -1);
    EXPECT_EQ(vesrta_gethash_hist(-1), -1);
    EXPECT_EQ(store(hist(-1, "c")), -1);
    EXPECT_EQ(vestra_vital_update_cpuusage_hist(nullptr), -1);
    EXPECT_THAT(take_log(), IsEmpty());
}

TEST_F(History, FullTableRefusesNewProcessesOnly) {
    for (int pid = 0; pid < 32768; ++pid) ASSERT_EQ(store(hist(pid, "p")), pid);
    EXPECT_EQ(store(hist(40000, "late")), -1);
    EXPECT_THAT(take_log(), ElementsAre(LogLine{kError, "vestra_vital_update_cpuusage_hist",
                                                "vestra: tvuc no space available ret = -1\n"}));
    EXPECT_EQ(store(hist(32767, "q")), 32767);
    EXPECT_EQ(gProcCpuUsageHist[32767].name, "q");
    take(sample(9, 40000, "late"));
    EXPECT_EQ(list().size(), 1U) << "its samples are listed all the same";
    EXPECT_EQ(collectedData[9].pid, 40000);
}

/* ------------------------------ History rule ------------------------------ */

struct RuleStep {
    double seconds;
    int64_t a, b;
    double total;  // as listed
};
struct RuleCase {
    const char *name;
    std::vector<RuleStep> steps;
    double percent_a, percent_b;  // in the history at the end
    double stored_at;             // seconds
};

class HistoryRule : public DecoderTest, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(HistoryRule, PercentagesSpanMoreThanASecond) {
    for (const RuleStep &step : GetParam().steps) {
        SwitchMessage message = sample(step.seconds, 77, "player");
        message.cpu_a = static_cast<uint64_t>(step.a);
        message.cpu_b = static_cast<uint64_t>(step.b);
        take(message);
        ASSERT_FALSE(list().empty());
        EXPECT_DOUBLE_EQ(list()[0].cpu, step.total) << step.seconds;
    }
    const Hist &record = gProcCpuUsageHist[77];
    EXPECT_DOUBLE_EQ(record.percent_a, GetParam().percent_a);
    EXPECT_DOUBLE_EQ(record.percent_b, GetParam().percent_b);
    EXPECT_DOUBLE_EQ(record.total_percent, GetParam().steps.back().total);
    EXPECT_EQ(record.timestamp, std::llround(GetParam().stored_at * 1e9));
    EXPECT_EQ(record.name, "player");
    EXPECT_EQ(record.element1, -1);
}

constexpr int64_t kLeast = std::numeric_limits<int64_t>::min(), kMost = std::numeric_limits<int64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    , HistoryRule,
    ::testing::Values(
        RuleCase{"FirstSample", {{10, 100, 50, 0}}, 0, 0, 10},
        RuleCase{
            "HalfASecondIsKeptForLater", {{10, 100, 50, 0}, {10.5, 200, 50, 0}, {11.2, 400, 110, 30}}, 25, 5, 11.2},
        RuleCase{"ExactlyASecondIsTooShort", {{10, 100, 50, 0}, {11, 400, 50, 0}}, 0, 0, 10},
        RuleCase{"FourSeconds", {{10, 0, 0, 0}, {14, 3000, 1000, 100}}, 75, 25, 14},
        RuleCase{"SameCountersKeepPercentAndTime", {{10, 0, 0, 0}, {12, 500, 0, 25}, {15, 500, 0, 25}}, 25, 0, 12},
        RuleCase{"LateSampleIsIgnored", {{10, 0, 0, 0}, {12, 500, 0, 25}, {8, 9, 9, 25}}, 25, 0, 12},
        RuleCase{"CountersGoBackwards", {{10, 500, 100, 0}, {12, 0, 0, 30}}, 25, 5, 12},
        RuleCase{"OneUpOneDown", {{10, 500, 0, 0}, {12, 0, 500, 0}}, 25, 25, 12},
        // Sums, differences and products wrap: 1 tick up, 1 down, none in all.
        RuleCase{"ExtremeCounters", {{10, kMost, kLeast, 0}, {12, kLeast, kMost, 0}}, 0.05, 0.05, 12}),
    [](const auto &row) { return row.param.name; });

TEST_F(History, ProcessWithoutMemoryFiguresIsStoredWithoutAName) {
    SwitchMessage message = sample(10, 77, "kworker");
    message.swap = 0;
    message.element1 = 4242;
    take(message);
    EXPECT_EQ(gProcCpuUsageHist[77].pid, 77);
    EXPECT_EQ(gProcCpuUsageHist[77].element1, 4242);
    EXPECT_EQ(gProcCpuUsageHist[77].name, "");
    EXPECT_THAT(list(), IsEmpty());

    message.swap = 1;  // now the decoder itself stores it
    message.time_ns = 12 * kSecond;
    take(message);
    EXPECT_EQ(gProcCpuUsageHist[77].name, "kworker");
    EXPECT_EQ(gProcCpuUsageHist[77].element1, -1);

    message.swap = 0;  // and the slot writer leaves it the name
    message.time_ns = 15 * kSecond;
    message.cpu_a = 300;
    take(message);
    EXPECT_EQ(gProcCpuUsageHist[77].name, "kworker");
    EXPECT_EQ(gProcCpuUsageHist[77].element1, 4242);
    EXPECT_DOUBLE_EQ(gProcCpuUsageHist[77].percent_a, 10);

    message.swap = 1;  // which the decoder's update keeps
    message.time_ns = 17 * kSecond;
    message.cpu_a = 400;
    take(message);
    EXPECT_EQ(gProcCpuUsageHist[77].element1, 4242);
    EXPECT_DOUBLE_EQ(gProcCpuUsageHist[77].percent_a, 5);
}

/* ------------------------------ Memory list ------------------------------ */

class MemoryList : public DecoderTest {};

TEST_F(MemoryList, HoldsSamplesAsCarriedNewestFirst) {
    SwitchMessage message = sample(3, 77, "a-name-of-20-bytes--");
    message.rss = 0x1'8000'0001;
    message.swap = 0xffff'ffff;
    take(message);
    take(sample(5, 4'294'967'290, std::string_view("ab\0cd", 5)));
    message.time_ns = static_cast<uint64_t>(-5);
    message.name = "exactly-14-byt";
    take(message);
    EXPECT_THAT(list(), ElementsAre(ListEntry{"-5", 77, "exactly-14-byt", -2147483647, -1, 0},
                                    ListEntry{"5000000000", -6, "ab", 1000, 10, 0},
                                    ListEntry{"3000000000", 77, "a-name-of-20-b", -2147483647, -1, 0}));
}

TEST_F(MemoryList, SampleWithAZeroFigureReachesTheRingOnly) {
    uint64_t SwitchMessage::*const kFigures[] = {&SwitchMessage::pid, &SwitchMessage::rss, &SwitchMessage::swap};
    for (uint64_t SwitchMessage::*figure : kFigures) {
        SwitchMessage message = sample(20, 77, "player");
        message.*figure = 0;
        message.element10 = 5;
        collectedData[20] = {};
        take(message);
        EXPECT_THAT(list(), IsEmpty());
        EXPECT_EQ(vesrta_checkhash_hist(77), -1);
        EXPECT_EQ(collectedData[20].element10, 5);
    }
}

TEST_F(MemoryList, OldestFallOffAboveTheLimitOnly) {
    // A charge of 40 each: 20, ten digits, ten letters. 5120 of them are exactly the limit.
    for (int i = 0; i < 5120; ++i) take(sample(1 + i / 1000.0, 77, "ten-letter"));
    ASSERT_EQ(shm_list_size, 204800);
    ASSERT_EQ(list().size(), 5120U);
    take(sample(7, 78, "four"));
    EXPECT_EQ(list().size(), 5120U);
    EXPECT_EQ(shm_list_size, 204794);
    EXPECT_EQ(list().back().timestamp, "1001000000");
    take(sample(7, 79, "fourteen-chars"));  // 44: the two oldest go
    EXPECT_EQ(list().size(), 5120U);
    EXPECT_EQ(shm_list_size, 204798);
    EXPECT_EQ(list().front().pid, 79);
}

TEST_F(MemoryList, LastNodeMayFallOffToo) {
    take(sample(3, 77, "player"));
    shm_list_size = 300000;
    take(sample(4, 77, "player"));
    EXPECT_EQ(ghead_shm, nullptr);
    EXPECT_EQ(last_node, nullptr);
    shm_list_size = 0;
    take(sample(5, 77, "player"));
    EXPECT_EQ(list().size(), 1U);
}

TEST_F(MemoryList, MessageIsDroppedWithoutMemory) {
    take(sample(3, 77, "player"));
    set_trigger_key(1);
    take_log();
    failing_size = sizeof(circ_buf_shm);
    take(sample(4, 78, "other"));
    failing_size = 0;
    EXPECT_EQ(trigger_key(), 0);
    EXPECT_THAT(take_log(kWarning),
                ElementsAre(LogLine{kWarning, "decode_frame",
                                    "vestra : 4. Corrupted frame at file_index:4, frame index:2, frame_len:45, "
                                    "messageType:1, offset:1\n"}));
    EXPECT_EQ(list().size(), 1U);
    EXPECT_EQ(collectedData[4].flags, 0U);
    take(sample(5, 78, "other"));
    EXPECT_EQ(list().size(), 2U);
}

}  // namespace
