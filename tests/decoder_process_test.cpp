// What switch messages leave about processes: the CPU history and the memory list.

#include <random>

#include "decoder_support.h"

using namespace decoder_test;
using trace::SwitchMessage;

// First of all: what has been found far from its home once is searched that far from then on.
TEST_F(DecoderTest, HistoryIsSearchedFartherForEachWayToStoreARecord) {
    using Record = __VestraProcCPUUsageHist__;
    Record record = {kSecond, 5, -1, 1, 2, 0, 0, 0, "name"};
    vestra_vital_update_cpuusage_hist(&record);
    const std::function<void()> ways[] = {
        [&] { vestra_vital_update_cpuusage_hist(&record); }, [&] { gProcCpuUsageHist[7] = record; },
        [&] {
            const Record other = {kSecond, int32_t{record.pid}, -1, 1, 2, 0, 0, 0, ""};
            memcpy(static_cast<void *>(&gProcCpuUsageHist[8]), static_cast<const void *>(&other), sizeof(int64_t) * 2);
            gProcCpuUsageHist[8].name = "name";
        }};
    for (int index = 6; index < 9; ++index) {
        record.pid = record.pid + 32768;
        EXPECT_EQ(vesrta_checkhash_hist(record.pid), -1);
        ways[index - 6]();
        EXPECT_EQ(vesrta_checkhash_hist(record.pid), index);
    }
}

TEST_F(DecoderTest, HistoryPlacesProcessesOfOneHomeAfterEachOther) {
    const auto store = [](int pid, const char *name) {
        __VestraProcCPUUsageHist__ record = {kSecond, pid, -1, 1, 2, 0, 0, 0, name};
        return vestra_vital_update_cpuusage_hist(&record);
    };
    const std::pair<int, int> stored[] = {{5, 5},       {32773, 6},  {6, 7},     {32767, 32767}, {65535, 0},
                                          {INT_MIN, 1}, {-2, 32766}, {32773, 6}, {-1, -1}};
    for (const auto &[pid, index] : stored) EXPECT_EQ(store(pid, "name"), index) << pid;
    EXPECT_EQ(store(40, ""), 40);
    EXPECT_EQ(store(32808, "in a free one"), 40);
    EXPECT_EQ(store(65576, "after it"), 41);
    EXPECT_EQ(vestra_vital_update_cpuusage_hist(nullptr), -1);
    gProcCpuUsageHist[9999] = {kSecond, 10000, -1, 1, 2, 0, 0, 0, "the very last one that is looked at"};
    const std::pair<int, int> found[] = {{65535, 0}, {40, -1}, {65541, -1}, {10000, 9999}, {-1, -1}};
    for (const auto &[pid, index] : found) EXPECT_EQ(vesrta_checkhash_hist(pid), index) << pid;
    EXPECT_EQ(vesrta_get_process_data_hist(6, 0, nullptr), 7);
    EXPECT_EQ(vesrta_gethash_hist(-1), -1);
    EXPECT_EQ(vesrta_gethash_hist(98344), 42);
    EXPECT_EQ(gProcCpuUsageHist[42].pid, 98344) << "an unused one is claimed at once";
    EXPECT_EQ(log_text(), "");

    for (int pid = 0; pid < 32768; ++pid) gProcCpuUsageHist[pid] = {kSecond, pid, -1, 1, 2, 0, 0, 0, "p"};
    EXPECT_EQ(store(40000, "late"), -1);
    EXPECT_EQ(log_text(), "6 vestra_vital_update_cpuusage_hist vestra: tvuc no space available ret = -1$\n");
    EXPECT_EQ(store(32767, "known"), 32767);
    decode(sample(9, 40000, "late"));
    EXPECT_EQ(list().size(), 1U) << "its samples are listed all the same";
    EXPECT_EQ(collectedData[9].pid, 40000);
}

TEST_F(DecoderTest, HistoryIsSearchedAsItStandsWhoeverChangedIt) {
    std::mt19937 random(1);
    const auto any = [&](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
    const auto home = [&] { return (32764 + any(8)) % 32768; };
    const auto place = [&] { return any(9) == 0 ? 900 : home(); };
    const auto process = [&] { return home() + 32768 * any(3); };
    const auto searched = [](int pid) {  // to the end of the table, as if nothing were known about it
        int index = pid % 32768;
        for (int i = 0; i < 32768; ++i, index = (index + 1) % 32768) {
            if (gProcCpuUsageHist[index].pid == pid) return gProcCpuUsageHist[index].name.empty() ? -1 : index;
        }
        return -1;
    };
    constexpr size_t kNumbers = offsetof(__VestraProcCPUUsageHist__, name);
    void *const table = gProcCpuUsageHist;
    std::vector<char> saved(sizeof(gProcCpuUsageHist));
    for (int step = 0; step < 2000; ++step) {
        __VestraProcCPUUsageHist__ record = {kSecond, process(), -1, 1, 2, 0, 0, 0, any(3) == 0 ? "" : "name"};
        const std::function<void()> changes[] = {
            [&] { gProcCpuUsageHist[place()].pid = any(3) == 0 ? -1 : process(); },
            [&] { gProcCpuUsageHist[place()] = record; },
            [&] { std::swap(gProcCpuUsageHist[place()], gProcCpuUsageHist[place()]); },
            [&] { gProcCpuUsageHist[place()].name.clear(); },
            [&] { vestra_vital_update_cpuusage_hist(&record); },
            [&] { memset(static_cast<void *>(&gProcCpuUsageHist[place()]), 0xff, kNumbers); },
            [&] { memcpy(static_cast<void *>(&gProcCpuUsageHist[place()]), static_cast<void *>(&record), kNumbers); },
            [&] {
                memcpy(saved.data(), table, saved.size());
                vesrta_hash_init_hist();
                memcpy(table, saved.data(), saved.size());
            },
        };
        changes[any(8)]();
        const int pid = process();
        ASSERT_EQ(vesrta_checkhash_hist(pid), searched(pid)) << "step " << step << ", pid " << pid;
    }
}

TEST_F(DecoderTest, OnlyTheDecoderGivesNamesOnlyTheSlotWriterElement1) {
    const auto stored = [](int seconds, uint64_t swap) {  // no swap: the slot writer alone stores the process
        SwitchMessage message = sample(seconds, 77, "kworker");
        message.swap = swap;
        message.element1 = 4242;
        message.cpu_a = static_cast<uint64_t>(seconds) * 100;
        decode(message);
        return gProcCpuUsageHist[77].name + " " + std::to_string(gProcCpuUsageHist[77].element1);
    };
    EXPECT_EQ(stored(10, 0), " 4242");
    EXPECT_EQ(stored(12, 1), "kworker -1");
    EXPECT_EQ(stored(15, 0), "kworker 4242");
    EXPECT_EQ(stored(17, 1), "kworker 4242");
    EXPECT_EQ(list().size(), 2U);
}

TEST_F(DecoderTest, ListHoldsWhatIsAccountedNewestFirst) {
    SwitchMessage message = sample(3, 77, "a-name-of-20-bytes--");
    message.rss = 0x1'8000'0001;
    message.swap = 0xffff'ffff;
    decode(message);
    decode(sample(5, 4'294'967'290, std::string_view("ab\0cd", 5)));
    message.time_ns = static_cast<uint64_t>(-5);
    decode(message);
    std::string listed;
    for (const ListEntry &entry : list()) listed += entry.text + "\n";
    EXPECT_EQ(listed,
              "-5 77 a-name-of-20-b -2147483647 -1\n5000000000 -6 ab 1000 10\n"
              "3000000000 77 a-name-of-20-b -2147483647 -1\n");
    for (uint64_t SwitchMessage::*figure : {&SwitchMessage::pid, &SwitchMessage::rss, &SwitchMessage::swap}) {
        message = sample(20, 78, "player");
        message.*figure = 0;
        collectedData[20] = {};
        decode(message);
        EXPECT_EQ(collectedData[20].flags, kFlagSwitch) << "reaches the ring";
    }
    EXPECT_EQ(list().size(), 3U) << "and nothing else";
    EXPECT_EQ(vesrta_checkhash_hist(78), -1);
}

TEST_F(DecoderTest, ListWithoutATailGrows) {
    ghead_shm = new circ_buf_shm{"1", 40, "by others", 10, 20, 1, nullptr, nullptr};
    decode(sample(3, 77, "player"));
    EXPECT_EQ(ghead_shm->pid, 77);
    EXPECT_EQ(ghead_shm->next->pid, 40);
    EXPECT_EQ(last_node, nullptr);
}

TEST_F(DecoderTest, OldestOfTheListFallOffAboveTheLimitOnly) {
    // A charge of 40 each: 20, ten digits, ten letters. 5120 of them are exactly the limit.
    for (int i = 0; i < 5120; ++i) decode(sample(1 + i / 1000.0, 77, "ten-letter"));
    ASSERT_EQ(shm_list_size, 204800);
    ASSERT_EQ(list().size(), 5120U);
    decode(sample(7, 78, "four"));
    EXPECT_EQ(list().back().text.substr(0, 10), "1001000000");
    decode(sample(7, 79, "fourteen-chars"));  // 44: the two oldest go
    EXPECT_EQ(list().size(), 5120U);
    EXPECT_EQ(shm_list_size, 204798);
    shm_list_size = 600000;
    decode(sample(8, 77, "player"));
    EXPECT_EQ(ghead_shm, nullptr) << "the last one may fall off too";
    shm_list_size = 0;
    decode(sample(9, 77, "player"));
    EXPECT_EQ(list().size(), 1U);
}
