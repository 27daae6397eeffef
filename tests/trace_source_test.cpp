// The sources of trace blocks: the synthetic source against its plan, replays against their recordings, and the host source
// as far as a test can know this machine.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <map>

#include "gmock/gmock.h"
#include "set/trace/host_source.h"
#include "set/trace/synthetic_source.h"
#include "support/files.h"
#include "trace_reader.h"

using namespace vestra_set;
using namespace vestra_test;
using Bytes = std::vector<uint8_t>;

static std::unique_ptr<SyntheticSource> made(const char *profile, uint64_t seed, uint32_t block_size,
                                             std::vector<std::string> faults = {}) {
    SourceOptions options;
    options.faults = std::move(faults);
    options.profile = profile;
    options.seed = seed;
    options.processes = 40;
    options.block_size = block_size;
    std::string error;
    auto source = SyntheticSource::make(options, &error);
    source->keep_plan(true);
    return source;
}

static Bytes next(TraceSource &source) {
    Bytes block(kBlockMax);
    block.resize(source.next_block(block.data(), block.size()));
    return block;
}

using Samples = std::vector<std::pair<uint64_t, uint64_t>>;  // time and process

static Samples samples_in(const std::vector<Bytes> &blocks) {
    Samples samples;
    for (const Bytes &block : blocks) {
        for (const ReadMessage &message : read_block(block)) samples.emplace_back(message.time, message.pid);
    }
    return samples;
}

// Tests elsewhere refer to a seed instead of bytes; a change here invalidates them.
TEST(SyntheticSource, FirstTenBlocksOfASeedAreTheSameOnEveryMachine) {
    // FNV-1a of the blocks and their sizes.
    const std::tuple<const char *, uint32_t, uint64_t> kRows[] = {{"steady", 0, 7128860593540593760ULL},
                                                                  {"burst", 0, 13665244180225810013ULL},
                                                                  {"stall", 0, 5762120002173597781ULL},
                                                                  {"hostile", 16384, 14146687314136371357ULL},
                                                                  {"everyday", 0, 2617568417969541407ULL}};
    for (const auto &[profile, block_size, expected] : kRows) {
        const auto source = made(profile, 42, block_size);
        uint64_t hash = 0xcbf29ce484222325;
        for (int i = 0; i < 10; ++i) {
            const Bytes block = next(*source);
            for (const uint8_t byte : block) hash = (hash ^ byte) * 0x100000001b3;
            for (const size_t part : {block.size() & 0xff, block.size() >> 8}) hash = (hash ^ part) * 0x100000001b3;
        }
        EXPECT_EQ(hash, expected) << profile;
    }
}

TEST(SyntheticSource, ReadersFindThePlanBeforeAndAfterEveryKindOfDamage) {
    std::map<Damage, int> kinds;
    const auto source = made("hostile", 11, 32768);
    for (int i = 0; i < 200; ++i) {
        const Samples read = samples_in({next(*source)});
        Samples planned;
        for (const PlannedFrame &frame : source->plan().frames) {
            ++kinds[frame.damage];
            if (!frame.reached) continue;
            for (const MeminfoMessage &message : frame.infos) planned.emplace_back(message.time_ns, 0);
            for (const SwitchMessage &message : frame.switches) planned.emplace_back(message.time_ns, message.pid);
        }
        EXPECT_EQ(read, planned);
    }
    EXPECT_EQ(kinds.size(), static_cast<size_t>(Damage::kCutLength) + 1) << "a kind of damage did not occur";
}

TEST(SyntheticSource, WritesNothingBeyondTheCapacity) {
    const auto source = made("hostile", 11, 32768);
    for (size_t capacity = 0; capacity < 400; ++capacity) {
        Bytes block(capacity + 1, 0xee);
        ASSERT_LE(source->next_block(block.data(), capacity), capacity);
        ASSERT_EQ(block[capacity], 0xee);
    }
}

TEST(SyntheticSource, FiltersDiskSelectionAndTemperatureTakeEffect) {
    const auto source = made("steady", 1, 0);
    ModuleControl control;
    control.tracing = control.disk_read = true;
    control.names = {"browser"};
    control.pids = {301};
    control.temperature = 80;
    source->apply(control);
    uint64_t disk_read = 0;
    for (const ReadMessage &message : read_block(next(*source))) {
        if (message.frame_type != kSwitchFrame) continue;
        EXPECT_TRUE(message.name == "browser" || message.pid == 301) << message.name;
        EXPECT_GE(message.walk.core(0, kCoreTemperature), 80U);
        EXPECT_EQ(message.element(kSwitchElement5), 0U) << "written";
        disk_read += message.element(kSwitchElement4);
    }
    EXPECT_GT(disk_read, 0U);
    control.tracing = false;
    source->apply(control);
    EXPECT_TRUE(next(*source).empty());
}

// A minute of a stream with a fault in it, from the second on.
struct Minute {
    const SyntheticFault *fault;
    std::vector<Bytes> blocks;  // that the messages view
    std::vector<ReadMessage> messages;

    // The growth of an element from the first message to the last of those with this process id.
    double growth(int frame_type, uint64_t pid, int element) const {
        std::vector<uint64_t> values;
        for (const ReadMessage &message : messages) {
            if (message.frame_type == frame_type && message.pid == pid) values.push_back(message.element(element));
        }
        return values.empty() ? -1 : static_cast<double>(values.back()) - static_cast<double>(values.front());
    }
    // The same, summed over the cores.
    double core_growth(CoreElement element) const {
        std::vector<double> sums;
        for (const ReadMessage &message : messages) {
            if (message.frame_type != kSwitchFrame) continue;
            sums.push_back(0);
            for (int core = 0; core < kCoreCount; ++core) {
                sums.back() += static_cast<double>(message.walk.core(core, element));
            }
        }
        return sums.back() - sums.front();
    }
};

TEST(SyntheticFaults, ShowFromTheirSecondOnInTheProcessThatIsMeant) {
    using Measure = double (*)(const Minute &);
    const Measure memory = [](const Minute &all) { return all.growth(kSwitchFrame, all.fault->pid, kSwitchRss); };
    const Measure cpu = [](const Minute &all) { return all.growth(kSwitchFrame, all.fault->pid, kSwitchCpuA); };
    const Measure children = [](const Minute &all) {
        return double(std::count_if(all.messages.begin(), all.messages.end(), [&](const ReadMessage &message) {
            return message.pid > 400 && message.element(kSwitchElement1) == all.fault->pid;
        }));
    };
    const Measure available = [](const Minute &all) { return -all.growth(kMeminfoFrame, 0, kMeminfoPlain5); };
    const Measure swap = [](const Minute &all) { return all.growth(kMeminfoFrame, 0, kMeminfoDecimal1); };
    const Measure iowait = [](const Minute &all) { return all.core_growth(kCoreIowait); };
    const Measure degrees = [](const Minute &all) { return all.core_growth(kCoreTemperature) / kCoreCount; };
    const Measure silence = [](const Minute &all) { return -all.growth(kSwitchFrame, all.fault->pid, kSwitchTime); };
    const Measure longest_gap = [](const Minute &all) {
        uint64_t longest = 0;
        for (size_t i = 1; i < all.messages.size(); ++i) {
            longest =
                std::max(longest, all.messages[i].time - std::min(all.messages[i - 1].time, all.messages[i].time));
        }
        return static_cast<double>(longest);
    };
    const struct {
        const char *fault;
        Measure measure;
        double before, after;  // at most in the minute before it, and at least in the minute after
    } kRows[] = {{"memory-growth:1000@60", memory, 15'000, 40'000},
                 {"cpu-hog:90@60", cpu, 2500, 6500},  // of 15,000 ticks
                 {"process-storm:20@60", children, 30, 800},
                 {"memory-pressure:3@60", available, 200'000, 300'000},
                 {"memory-pressure:3@60", swap, 10, 25},
                 {"io-wait:20@60", iowait, 2400, 8000},  // of 60,000 ticks
                 {"overheating:90@60", degrees, 8, 20},
                 {"vanished@60", silence, -58e9, 1},
                 {"gap:10@60", longest_gap, 1e9, 6.9e9}};
    for (const char *profile : {"steady", "everyday"}) {
        for (const auto &row : kRows) {
            SCOPED_TRACE(std::string(profile) + " " + row.fault);
            const auto source = made(profile, 3, 0, {row.fault});
            const SyntheticFault &fault = source->faults().at(0);
            EXPECT_EQ((fault.from_ns - 600'000'000'000) / 1'000'000'000, 60U);
            for (const bool after : {false, true}) {
                Minute minute{&fault, {}, {}};
                for (int i = 0; i < 60; ++i) minute.blocks.push_back(next(*source));
                for (const Bytes &block : minute.blocks) {
                    const auto messages = read_block(block);
                    for (const ReadMessage &message : messages) minute.messages.push_back(message);
                }
                const double value = row.measure(minute);
                EXPECT_TRUE(after ? value >= row.after : value <= row.before) << value << " after: " << after;
            }
        }
    }
}

TEST(SyntheticFaults, CoresCountEveryTickOnceWhateverHappens) {
    for (const char *profile : {"steady", "everyday"}) {
        const auto source = made(profile, 7, 0,
                                 {"cpu-hog@3", "cpu-hog:98@5", "process-storm:500@9", "io-wait:75@20", "gap:2@25",
                                  "memory-pressure@30", "overheating@40", "cpu-hog@50", "cpu-hog@51"});
        std::array<std::array<uint64_t, kCoreElements>, kCoreCount> last{};
        std::map<uint64_t, uint64_t> ticks;  // by process
        for (int second = 0; second < 120; ++second) {
            const Bytes block = next(*source);
            for (const ReadMessage &message : read_block(block)) {
                if (message.frame_type != kSwitchFrame || message.pid > 400) continue;
                EXPECT_GE(message.element(kSwitchCpuA), ticks[message.pid]) << message.pid;
                ticks[message.pid] = message.element(kSwitchCpuA);
                for (int core = 0; core < kCoreCount; ++core) {
                    uint64_t sum = 0;
                    for (const CoreElement element : {kCoreUser, kCoreSystem, kCoreIdle, kCoreIowait}) {
                        uint64_t &before = last[static_cast<size_t>(core)][static_cast<size_t>(element)];
                        const uint64_t now = message.walk.core(core, element);
                        EXPECT_GE(now, before) << profile << " at " << message.time << ", element " << element;
                        before = now;
                        sum += now;
                    }
                    EXPECT_NEAR(static_cast<double>(sum), static_cast<double>(message.time / 4'000'000), 4);
                }
            }
        }
    }
}

TEST(SyntheticFaults, TextsThatAreNoneAreRefusedWithTheReason) {
    const std::pair<const char *, const char *> kRows[] = {{"cpu-hog", "KIND[:PARAM]@SECOND"},
                                                           {"@3", "the kinds are memory-growth, cpu-hog"},
                                                           {"cpu-hog@", "KIND[:PARAM]@SECOND"},
                                                           {"cpu-hog@-3", "KIND[:PARAM]@SECOND"},
                                                           {"flood@3", "the kinds are"},
                                                           {"cpu-hog:@3", "1 to 98 (percent of a core)"},
                                                           {"cpu-hog:99@3", "1 to 98"},
                                                           {"cpu-hog@3:50", "KIND[:PARAM]@SECOND"},
                                                           {"gap:1.5@3", "1 to 3600 (seconds)"},
                                                           {"vanished:1@3", "takes no parameter"},
                                                           {"gap@99999999999", "at most 1000000000"}};
    for (const auto &[text, reason] : kRows) {
        SourceOptions options;
        options.faults = {"gap@1", text};
        std::string error;
        EXPECT_EQ(make_source(options, &error), nullptr) << text;
        EXPECT_THAT(error, testing::AllOf(testing::HasSubstr(text), testing::HasSubstr(reason)));
    }
}

static bool all_are_in(Samples samples, Samples others) {
    std::sort(samples.begin(), samples.end());
    std::sort(others.begin(), others.end());
    return std::includes(others.begin(), others.end(), samples.begin(), samples.end());
}

static std::vector<Bytes> recorded(const char *profile, int blocks) {
    const auto source = made(profile, 11, 20000);
    std::vector<Bytes> recording;
    for (; blocks > 0; --blocks) recording.push_back(next(*source));
    return recording;
}

static std::string joined(const std::vector<Bytes> &blocks, const std::string &trailer = kTrailer) {
    std::string all;
    for (const Bytes &block : blocks) all.append(block.begin(), block.end());
    return all + trailer;
}

// All blocks that the replay of a dump hands out; none if it is refused.
static std::vector<Bytes> replayed(const std::string &dump, uint32_t block_size = 0) {
    write_file("/tmp/dump", dump);
    SourceOptions options;
    options.kind = "replay";
    options.file = "/tmp/dump";
    options.block_size = block_size;
    std::string error;
    const auto source = make_source(options, &error);
    std::vector<Bytes> blocks;
    while (source != nullptr && (blocks.empty() || !blocks.back().empty())) blocks.push_back(next(*source));
    if (!blocks.empty()) blocks.pop_back();
    return blocks;
}

TEST(Replay, HandsOutTheBlocksThatWereRecorded) {
    const auto blocks = recorded("steady", 60);
    EXPECT_EQ(replayed(joined(blocks)), blocks);
}

TEST(Replay, HandsOutTheSameSamplesInSmallerBlocks) {
    const auto blocks = recorded("steady", 60), smaller = replayed(joined(blocks), 2000);
    EXPECT_GT(smaller.size(), 9 * blocks.size());
    EXPECT_EQ(samples_in(smaller), samples_in(blocks));
}

TEST(Replay, HandsOutEverySampleThatAReaderTakesFromADamagedStream) {
    const auto blocks = recorded("hostile", 60);
    EXPECT_TRUE(all_are_in(samples_in(blocks), samples_in(replayed(joined(blocks)))));
}

TEST(Replay, LosesNothingAfterBlocksThatEndInsideAFrame) {
    auto blocks = recorded("steady", 20);
    for (size_t i = 0; i < blocks.size(); ++i) blocks[i].resize(blocks[i].size() - kEmptyRecord - 40 * i);
    EXPECT_TRUE(all_are_in(samples_in(blocks), samples_in(replayed(joined(blocks)))));
}

TEST(Replay, HandsOutEveryByteOfADamagedPayload) {
    const std::string block = joined(recorded("steady", 1), "");
    const std::pair<const char *, std::string> kRows[] = {
        {"Truncated", block.substr(0, block.size() - 300)},
        {"LengthsOfZero", block + std::string(100'000, '\0') + block},
        {"ImpossibleLengths", block + std::string(100'000, '\xff') + block},
        {"LongestLength", std::string("\x00\x00\x02\x00", 4) + std::string(131072, '\x07') + block},
        {"LengthBeyondTheEnd", block + std::string("\x00\x00\x02\x00", 4) + std::string(500, 'x')},
    };
    for (const auto &[name, payload] : kRows) {
        for (const uint32_t block_size : {0U, 64U, 5000U}) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(block_size));
            size_t found = 0;  // empty records are added between the bytes of the payload
            for (const char byte : joined(replayed(payload, block_size), "")) {
                found += found < payload.size() && byte == payload[found] ? 1 : 0;
            }
            EXPECT_EQ(found, payload.size());
        }
    }
}

TEST(Replay, RefusesAFileWithoutRecords) {
    EXPECT_TRUE(replayed("").empty());
    EXPECT_TRUE(replayed(kTrailer).empty());
}

// e2e/clients_test.py compares CPU time and memory of a process with the kernel's figures.
TEST(HostSource, SamplesTheProcessesAskedForWhenTheyAreDue) {
    SourceOptions options;
    options.kind = "host";
    options.rate = 0.01;
    std::string error;
    const auto source = make_source(options, &error);
    ASSERT_NE(source, nullptr) << error;
    const pid_t child = fork();  // another process, because an emulated one does not see its own figures
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, "vestra-child");
        for (;;) pause();
    }
    while (read_file("/proc/" + std::to_string(child) + "/comm") != "vestra-child\n") usleep(1000);
    ModuleControl control;
    control.tracing = true;
    control.names = {"vestra-child"};
    source->apply(control);
    const auto messages = read_block(next(*source));
    EXPECT_TRUE(next(*source).empty()) << "the next sample is not there before it is due";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].name, "vestra-child");
    EXPECT_EQ(messages[0].element(kSwitchElement1), static_cast<uint64_t>(getpid()));
    EXPECT_EQ(messages[0].pid, static_cast<uint64_t>(child));
    EXPECT_EQ(messages[1].frame_type, kMeminfoFrame);
    const uint64_t total = messages[1].element(10), available = messages[1].element(kMeminfoPlain5);
    EXPECT_TRUE(total > available && available > 0) << total << " " << available;
    const uint64_t expected[] = {3000, 1000, 1000, 3000};  // ticks; three CPUs on four cores
    const auto cores = fold_cores({{1200, 0, 1200, 0}, {0, 0, 0, 0}, {1200, 0, 1200, 0}}, 100);
    for (size_t core = 0; core < kCoreCount; ++core) EXPECT_EQ(cores[core].user + cores[core].idle, 2 * expected[core]);
}

TEST(HostSource, ARateCoversTheLastSecondWhateverTheReadingsAre) {
    // A first reading; two with less than a second before them; one a second after; then a burst is past; a late reading;
    // one after the counter went back, with which counting begins again.
    const uint64_t readings[][3] = {{1000, 5000, 0},   {1050, 5100, 2000},  {1100, 9000, 40000}, {2000, 9100, 4100},
                                    {2100, 9100, 100}, {9100, 16100, 1000}, {9150, 100, 1000},   {9650, 600, 1000}};
    Rate rate;
    for (const auto &[ms, count, expected] : readings) {
        EXPECT_EQ(rate.update(ms * 1'000'000, static_cast<unsigned long>(count)), expected) << ms << " ms";
    }
    Rate wraps;
    wraps.update(0, ULONG_MAX - 99);
    EXPECT_EQ(wraps.update(1'000'000'000, 100), 200U) << "the counter has wrapped";
}
