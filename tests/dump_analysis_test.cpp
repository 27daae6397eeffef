// The dump tool derives the same figures from the same bytes as the daemon's decoder, to the last bit.

#include <algorithm>
#include <map>

#include "made_up_set.h"
#include "tools/dump/analysis.h"
#include "tools/dump/history.h"

using namespace decoder_test;
using trace::SwitchMessage;
using vestra_dump::SecondVitals;
using vestra_dump::SwitchSample;
using vestra_dump::Usage;

namespace {

struct Derived : vestra_dump::DumpSink {
    std::map<int64_t, SecondVitals> seconds;
    std::vector<ListEntry> list;  // of the processes that the daemon accounts for, oldest first
    size_t samples = 0;
    uint64_t astray = 0;

    void on_second(const SecondVitals &second) override { EXPECT_TRUE(seconds.emplace(second.second, second).second); }
    void on_process(const SwitchSample &sample, const vestra_dump::Process &process) override {
        const Usage &usage = process.usage;
        ++samples;
        if (!sample.accounted) return;
        const std::string name(sample.name.substr(0, 14));
        list.push_back({text("%lld %d %s %d %d", static_cast<long long>(sample.time_ns), sample.pid, name.c_str(),
                             static_cast<int32_t>(sample.rss), static_cast<int32_t>(sample.swap > 0 ? sample.swap : 1)),
                        usage.known ? usage.total : 0.0});
    }
};

void derive(const Bytes &bytes, Derived *derived) {
    vestra_dump::MemorySource source({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    vestra_dump::Timeline timeline = survey(source).timeline;
    derived->astray = analyse(source, &timeline, {}, 0, *derived).samples_astray;
}

class DumpAnalysis : public DecoderTest {};

void expect_ring_equals(const Derived &derived, int64_t from, int64_t to) {
    size_t percentages = 0;
    for (int64_t at = from; at < to; ++at) {
        SCOPED_TRACE(at);
        const _SYSDATA_ &slot = collectedData[at % kSlotCount];
        const auto found = derived.seconds.find(at);
        if (found == derived.seconds.end()) {
            EXPECT_EQ(slot.flags, 0U);
            continue;
        }
        const SecondVitals &second = found->second;
        EXPECT_EQ(second.time_ns, slot.timestamp);
        EXPECT_EQ(second.has_switch, (slot.flags & kFlagSwitch) != 0);
        EXPECT_EQ(second.has_memory, (slot.flags & kFlagMeminfo) != 0);
        // Before a gap the ring keeps percentages and temperatures of a second that had just begun.
        const auto next = derived.seconds.find(at + 1);
        const bool settled = next != derived.seconds.end() && next->second.has_switch;
        for (unsigned type = 0; type < kVitalCount; ++type) {
            const bool derived_figure = type >= 2 && type <= 10;
            if (!second.knows(type) || (derived_figure && !settled)) continue;
            EXPECT_EQ(second.vital[type], vital(slot, type)) << "vital " << type;
            percentages += type == 2 ? 1 : 0;
        }
    }
    EXPECT_GT(percentages, 50U);
}

void expect_list_equals(const Derived &derived) {
    const auto kept = list();
    ASSERT_GT(kept.size(), 150U);
    ASSERT_GE(derived.list.size(), kept.size());
    for (size_t i = 0; i < kept.size(); ++i) {
        const ListEntry &entry = derived.list[derived.list.size() - 1 - i];
        EXPECT_EQ(entry.text, kept[i].text) << i;
        EXPECT_EQ(entry.cpu, kept[i].cpu) << i;
    }
    EXPECT_GT(derived.samples, derived.list.size());  // it has those without memory, too
}

TEST_F(DumpAnalysis, FiguresEqualTheDaemonsRingAndList) {
    for (const unsigned seed : {1U, 2U, 3U, 4U, 5U}) {
        SCOPED_TRACE(seed);
        reset_decoder();
        // Not late samples and gaps together: the ring never computes again what came late before a gap. And no gaps after
        // the first lap: later its two oldest seconds count as the beginning of a run, and an I/O wait that is ignored
        // carries that a little further.
        const bool gaps = seed % 2 == 0, laps = seed == 5;
        const int64_t end = laps ? 1300 : 760;
        MadeUpSet made_up(seed, gaps ? 0 : kSecond / 2);
        Bytes bytes;
        for (int64_t second = 600; second <= end; ++second) {
            if (gaps && second % 11 == seed && second < end) continue;
            const Bytes block = made_up.decode_second(second, [](const auto &) {});
            bytes.insert(bytes.end(), block.begin(), block.end());
        }
        Derived derived;
        derive(bytes, &derived);
        expect_ring_equals(derived, laps ? end - 170 : 600, end - 4);  // what came late is computed later
        expect_list_equals(derived);
    }
}

// A sample in each of these seconds.
Bytes steady(std::initializer_list<int64_t> seconds) {
    std::vector<Bytes> frames;
    for (const int64_t second : seconds) {
        SwitchMessage message = sample(0, 7, "steady");
        message.time_ns = static_cast<uint64_t>(second * kSecond);
        frames.push_back(frame(trace::kSwitchFrame, message));
    }
    return block(frames);
}

// The seconds, negative if they begin a run.
std::vector<int64_t> seconds_of(const Bytes &bytes, uint64_t strays) {
    Derived derived;
    derive(bytes, &derived);
    EXPECT_EQ(derived.astray, strays);
    std::vector<int64_t> seconds;
    for (const auto &[at, second] : derived.seconds) seconds.push_back(second.has_percent ? at : -at);
    return seconds;
}

TEST_F(DumpAnalysis, OnlyTheLongestRunOfTimeIsBelieved) {
    for (const int64_t wrong : {int64_t{1}, int64_t{5000}, int64_t{-5}, INT64_MAX / kSecond}) {
        EXPECT_THAT(seconds_of(steady({600, 601, wrong, 602, 603}), 1), testing::ElementsAre(-600, 601, 602, 603));
    }
    EXPECT_THAT(seconds_of(steady({600, 601, 5000, 5001, 20, 21, 900}), 3),
                testing::ElementsAre(-600, 601, -5000, 5001));
}

TEST_F(DumpAnalysis, TopProcessesSurviveAFloodOfOthers) {
    vestra_dump::Processes processes;
    std::optional<uint64_t> wrong;
    SwitchSample busy = {}, other = {};
    busy.pid = 3;
    busy.rss = 99999;
    for (other.pid = 100; other.pid < 100100; ++other.pid) {
        processes.take(other, true, 0, &wrong);
        busy.cpu_user += 10;
        busy.time_ns += kSecond / 100;
        if (other.pid < 2000 || other.pid > 99000) processes.take(busy, true, 0, &wrong);
    }
    EXPECT_EQ(processes.top_by_cpu(1)[0].cpu_ticks, 999990.0);
    EXPECT_EQ(processes.top_by_memory(1)[0].pid, 3);
}

TEST(History, IsBoundedAndKeepsTheProcessesThatLiveLongest) {
    vestra_dump::History history(600 * kSecond);
    SwitchSample sample = {};
    for (int32_t i = 0; i < 600'000; ++i) {
        sample.time_ns = int64_t{i} * 1'000'000;
        sample.pid = i % 10 == 0 ? 1 + i / 10 % 400 : 1000 + i;
        sample.name = i % 10 == 0 ? "lasting" : "brief";
        sample.rss = static_cast<uint64_t>(i);
        history.add_time(sample.time_ns);
        history.add(sample, 0);
    }
    EXPECT_LE(history.processes().size() + history.past().size(), vestra_dump::Processes::kMax);
    for (int32_t pid = 1; pid <= 400; ++pid) {
        ASSERT_EQ(history.processes().count(pid), 1U) << pid;
        EXPECT_GT(history.processes().at(pid).points.size(), 100U);
        EXPECT_LT(history.processes().at(pid).first_ns, 5 * int64_t{kSecond});
    }
}
}  // namespace
