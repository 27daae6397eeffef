// What the dump tool derives, against the daemon's decoder fed with the same bytes: equal to the last bit.

#include <cmath>
#include <map>
#include <random>

#include "decoder_support.h"
#include "tools/dump/analysis.h"

using namespace decoder_test;
using vestra_dump::Second;
using vestra_dump::SwitchSample;
using vestra_dump::Usage;
using vestra_set::InfoMessage;
using vestra_set::SwitchMessage;

namespace {

struct Derived : vestra_dump::Analysis {
    std::map<int64_t, Second> seconds;
    std::vector<ListEntry> list;  // of the processes that the daemon keeps, newest first
    size_t samples = 0;

    void on_second(const Second &second) override { EXPECT_TRUE(seconds.emplace(second.second, second).second); }
    void on_process(const SwitchSample &sample, const Usage &usage) override {
        ++samples;
        if (!sample.accounted) return;
        const std::string name(sample.name.substr(0, 14));
        list.insert(list.begin(),
                    {text("%lld %d %s %d %d", static_cast<long long>(sample.time_ns), sample.pid, name.c_str(),
                          static_cast<int32_t>(sample.rss), static_cast<int32_t>(sample.swap)),
                     usage.known ? usage.total : 0.0});
    }
};

// A made-up life: counters that jump, stand still and fall back, idle seconds, samples that come late.
struct Life {
    std::mt19937_64 random;
    vestra_set::SwitchMessage cores;
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> processes;

    explicit Life(uint64_t seed) : random(seed) {}
    uint64_t up_to(uint64_t most) { return random() % (most + 1); }

    SwitchMessage switch_at(int64_t time) {
        for (vestra_set::CoreTimes &core : cores.cores) {
            core.user += up_to(200);
            core.system += up_to(60) - (up_to(30) == 0 ? 100 : 0);
            core.iowait += up_to(40) == 0 ? 3000 : up_to(20);  // now and then more than is believed
            core.temperature = 30 + up_to(50) - (up_to(20) == 0 ? 60 : 0);
        }
        static constexpr std::string_view kNames[] = {"tuner", "a name of more bytes", std::string_view("\0x", 2)};
        SwitchMessage message = cores;
        message.time_ns = static_cast<uint64_t>(time);
        message.pid = up_to(9) * 37;  // 0: none
        auto &[user, system] = processes[message.pid];
        user += up_to(2) == 0 ? 0 : up_to(90);
        system += up_to(1) * up_to(30);
        message.cpu_a = user;
        message.cpu_b = system;
        message.name = kNames[message.pid / 37 % 3];
        message.rss = up_to(5) == 0 ? 0 : 1000 + up_to(500);
        message.swap = up_to(5) == 0 ? 0 : 1;
        message.element10 = up_to(9000);
        message.element11 = up_to(7);
        return message;
    }

    InfoMessage info_at(int64_t time) {
        InfoMessage message;
        message.time_ns = static_cast<uint64_t>(time);
        message.name = "meminfo";
        message.decimal = {{{up_to(100), up_to(99)}, {up_to(100), up_to(9)}, {up_to(9), up_to(999)}}};
        message.figure13 = up_to(1 << 20);
        message.figure16 = random();
        message.figure17 = up_to(1 << 20);
        return message;
    }
};

// One frame for each message, as one block. A last sample begins a new second, for which all is worked out again.
Bytes stream(Life *life, int64_t begin, int seconds, bool gaps, bool late) {
    std::vector<std::pair<int64_t, Bytes>> frames;  // by the time that they are sent
    for (int64_t second = begin; second < begin + seconds; ++second) {
        const bool idle = gaps && life->up_to(9) == 0;
        for (uint64_t left = 1 + life->up_to(4); left > 0; --left) {
            const int64_t time = second * kSecond + static_cast<int64_t>(life->up_to(kSecond - 1));
            const int64_t sent = time + (late ? static_cast<int64_t>(life->up_to(4)) * kSecond : 0);
            if (life->up_to(3) == 0) frames.emplace_back(sent, frame(vestra_set::kInfoFrame, life->info_at(time)));
            if (!idle) frames.emplace_back(sent, frame(vestra_set::kSwitchFrame, life->switch_at(time)));
        }
    }
    std::stable_sort(frames.begin(), frames.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    frames.emplace_back(0, frame(vestra_set::kSwitchFrame, life->switch_at((begin + seconds) * kSecond)));
    std::vector<Bytes> bytes;
    for (auto &[sent, one] : frames) bytes.push_back(std::move(one));
    return block(bytes);
}

void derive(const Bytes &bytes, Derived *derived) {
    vestra_dump::MemorySource source({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    EXPECT_EQ(read_dump(source, *derived).damaged_spans, 0U);
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
        const Second &second = found->second;
        EXPECT_EQ(second.time_ns, slot.timestamp);
        EXPECT_EQ(second.has_switch, (slot.flags & kFlagSwitch) != 0);
        EXPECT_EQ(second.has_memory, (slot.flags & kFlagMeminfo) != 0);
        // In front of a gap the ring's percentages and temperatures stay those of a second that had just begun.
        const auto next = derived.seconds.find(at + 1);
        const bool settled = next != derived.seconds.end() && next->second.has_switch;
        for (unsigned type = 0; type < kVitalCount; ++type) {
            const bool worked_out = type >= 2 && type <= 10;
            if (!second.knows(type) || (worked_out && !settled)) continue;
            EXPECT_EQ(second.vital[type], vital(slot, type)) << "vital " << type;
            percentages += type == 2 ? 1 : 0;
        }
    }
    EXPECT_GT(percentages, 50U);
}

TEST_F(DumpAnalysis, VitalsAreTheRings) {
    for (const uint64_t seed : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U}) {
        SCOPED_TRACE(seed);
        init_collected_data();
        maxTimeValue = -1;
        Life life(seed);
        // Late samples and gaps apart: the ring never works out again what came late in front of a gap. And gaps only
        // in its first lap. Of a later one its two oldest seconds count as the beginning of a run, which
        // an I/O wait that is not believed carries a little further.
        const bool gaps = seed % 2 == 0, laps = seed == 7;
        const int seconds = laps ? 700 : 160;
        const Bytes bytes = stream(&life, 600, seconds, gaps, !gaps);
        decode_block(bytes);
        Derived derived;
        derive(bytes, &derived);
        expect_ring_equals(derived, laps ? 600 + seconds - 170 : 600, 600 + seconds);
    }
}

TEST_F(DumpAnalysis, ProcessPercentagesAreTheLists) {
    for (const uint64_t seed : {1U, 2U, 3U}) {
        SCOPED_TRACE(seed);
        Life life(seed);
        const Bytes bytes = stream(&life, 1000 * static_cast<int64_t>(seed), 200, true, true);
        decode_block(bytes);
        Derived derived;
        derive(bytes, &derived);
        const auto kept = list();
        ASSERT_GT(derived.list.size(), 150U);
        ASSERT_GE(kept.size(), derived.list.size());
        for (size_t i = 0; i < derived.list.size(); ++i) {
            EXPECT_EQ(derived.list[i].text, kept[i].text) << i;
            EXPECT_EQ(derived.list[i].cpu, kept[i].cpu) << i;
        }
        EXPECT_GT(derived.samples, derived.list.size());  // those without memory of their own besides
        vesrta_hash_init_hist();
    }
}

// A sample in each of these seconds.
Bytes steady(std::initializer_list<int64_t> seconds) {
    std::vector<Bytes> frames;
    for (const int64_t second : seconds) {
        SwitchMessage message = sample(0, 7, "steady");
        message.time_ns = static_cast<uint64_t>(second * kSecond);
        frames.push_back(frame(vestra_set::kSwitchFrame, message));
    }
    return block(frames);
}

// The seconds, negative where they begin a run.
std::vector<int64_t> seconds_of(const Bytes &bytes, uint64_t astray) {
    Derived derived;
    derive(bytes, &derived);
    EXPECT_EQ(derived.astray(), astray);
    std::vector<int64_t> seconds;
    for (const auto &[at, second] : derived.seconds) seconds.push_back(second.has_percent ? at : -at);
    return seconds;
}

TEST_F(DumpAnalysis, ImpossibleTimeStampsAreLeftOutAndLeapsBeginANewRun) {
    for (const int64_t wrong : {int64_t{1}, int64_t{5000}, int64_t{-5}, INT64_MAX / kSecond}) {
        EXPECT_THAT(seconds_of(steady({600, 601, wrong, 602, 603}), 1), testing::ElementsAre(-600, 601, 602, 603));
    }
    EXPECT_THAT(seconds_of(steady({600, 601, 5000, 5001, 20, 21, 900}), 0),
                testing::ElementsAre(-20, 21, -600, 601, -900, -5000, 5001));
}

TEST_F(DumpAnalysis, TopListsOutlastAFloodOfProcesses) {
    vestra_dump::ProcessTotals totals;
    SwitchSample busy = {}, other = {};
    busy.pid = 3;
    busy.rss = 99999;
    for (other.pid = 100; other.pid < 100100; ++other.pid) {
        totals.take(other, {});
        busy.cpu_user += 10;
        if (other.pid < 2000 || other.pid > 99000) totals.take(busy, {});
    }
    EXPECT_EQ(totals.top_by_cpu(1)[0].cpu_ticks, 999990.0);
    EXPECT_EQ(totals.top_by_memory(1)[0].pid, 3);
}

}  // namespace
