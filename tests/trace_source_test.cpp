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

static std::unique_ptr<SyntheticSource> made(const char *profile, uint64_t seed, uint32_t block_size) {
    SourceOptions options;
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
                                                                  {"hostile", 16384, 14146687314136371357ULL}};
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
