// The sources of trace blocks: the made-up set, of which what is read must be what its plan says, and this machine, as
// far as a test can know it.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <map>
#include <string>

#include "set/trace/host_source.h"
#include "set/trace/synthetic_source.h"
#include "trace_reader.h"

namespace vestra_set {
namespace {

using vestra_test::read_block;
using vestra_test::ReadMessage;
using Bytes = std::vector<uint8_t>;

std::unique_ptr<SyntheticSource> made(const char *profile, uint64_t seed, uint32_t processes, uint32_t block_size) {
    SourceOptions options;
    options.profile = profile;
    options.seed = seed;
    options.processes = processes;
    options.block_size = block_size;
    std::string error;
    auto source = SyntheticSource::make(options, &error);
    EXPECT_NE(source, nullptr) << error;
    source->keep_plan(true);
    return source;
}

Bytes next(TraceSource &source) {
    Bytes block(kMaxBlock);
    block.resize(source.next_block(block.data(), block.size()));
    return block;
}

// Dumps and tests elsewhere name a seed instead of carrying bytes; a change here invalidates them.
TEST(SyntheticSource, FirstTenBlocksOfASeedAreTheSameOnEveryMachine) {
    const struct {
        const char *profile;
        uint32_t block_size;
        uint64_t hash;  // FNV-1a of the blocks and their sizes
    } kRows[] = {{"steady", 0, 7128860593540593760ULL},
                 {"burst", 0, 13665244180225810013ULL},
                 {"stall", 0, 5762120002173597781ULL},
                 {"hostile", 16384, 14146687314136371357ULL}};
    for (const auto &row : kRows) {
        const auto source = made(row.profile, 42, 40, row.block_size);
        uint64_t hash = 0xcbf29ce484222325;
        for (int i = 0; i < 10; ++i) {
            const Bytes block = next(*source);
            for (const uint8_t byte : block) hash = (hash ^ byte) * 0x100000001b3;
            for (const size_t part : {block.size() & 0xff, block.size() >> 8}) hash = (hash ^ part) * 0x100000001b3;
        }
        EXPECT_EQ(hash, row.hash) << row.profile;
    }
}

// What a reader takes from blocks is what was planned, before and behind every kind of damage.
TEST(SyntheticSource, ReadersFindThePlanWholeOrDamaged) {
    std::map<Damage, int> kinds;
    for (const char *profile : {"steady", "hostile"}) {
        const bool hostile = profile[0] == 'h';
        const auto source = made(profile, 11, 60, hostile ? 32768 : kMaxBlock);
        size_t refused = 0;
        for (int i = 0; i < (hostile ? 200 : 8); ++i) {
            const Bytes bytes = next(*source);
            const auto block = read_block(bytes);
            std::vector<std::pair<uint64_t, uint64_t>> read, planned;  // time and process
            for (const ReadMessage &message : block.messages) {
                read.emplace_back(message.time(), message.frame_type == 7 ? message.switch_element(2) : 0);
            }
            for (const PlannedFrame &frame : source->plan().frames) {
                ++kinds[frame.damage];
                if (!frame.reached) continue;
                for (const InfoMessage &message : frame.infos) planned.emplace_back(message.time_ns, 0);
                for (const SwitchMessage &message : frame.switches) planned.emplace_back(message.time_ns, message.pid);
            }
            EXPECT_EQ(read, planned);
            EXPECT_TRUE(hostile || bytes.size() > kMaxBlock - 512);
            refused += block.refused;
        }
        EXPECT_EQ(refused > 200, hostile);
        for (size_t capacity = 0; capacity < 400; ++capacity) {
            Bytes block(capacity + 1, 0xee);
            ASSERT_LE(source->next_block(block.data(), capacity), capacity);
            ASSERT_EQ(block[capacity], 0xee);
        }
    }
    EXPECT_EQ(kinds.size(), static_cast<size_t>(Damage::kCutLength) + 1) << "a kind of damage never came up";
}

TEST(SyntheticSource, FiltersDiskSelectionAndTemperatureTakeEffect) {
    const auto source = made("steady", 1, 20, 0);
    ModuleControl control;
    control.tracing = true;
    control.names = {"browser"};
    control.pids = {301};
    control.temperature = 80;
    control.disk_read = true;
    source->apply(control);
    uint64_t disk_read = 0;
    for (const ReadMessage &message : read_block(next(*source)).messages) {
        if (message.frame_type != 7) continue;
        EXPECT_TRUE(message.name == "browser" || message.switch_element(2) == 301) << message.name;
        EXPECT_GE(message.core_figure(0, 3), 80U);
        EXPECT_EQ(message.switch_element(5), 0U);
        disk_read += message.switch_element(4);
    }
    EXPECT_GT(disk_read, 0U);
    control.names = {"nobody"};
    control.pids.clear();
    source->apply(control);
    const auto idle = read_block(next(*source));
    ASSERT_EQ(idle.messages.size(), 2U);
    EXPECT_EQ(idle.messages[1].switch_element(2), 0U) << "the cores' counters go on";
    control.tracing = false;
    source->apply(control);
    EXPECT_TRUE(next(*source).empty());
}

TEST(HostSource, ProcessShowsUpWithItsCpuTimeAndMemory) {
    constexpr size_t kMemory = size_t{64} * 1024 * 1024;  // bytes
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, "vestra-busy");
        void *memory = mmap(nullptr, kMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) _exit(1);
        for (size_t at = 0;; at = (at + 4096) % kMemory) static_cast<volatile char *>(memory)[at] = 1;
    }
    const auto cpu_seconds = [child] {
        clockid_t clock = 0;
        timespec time{};
        EXPECT_EQ(clock_getcpuclockid(child, &clock), 0);
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    for (int look = 0; look < 3000 && cpu_seconds() < 0.5; ++look) usleep(10'000);
    SourceOptions options;
    options.kind = "host";
    options.rate = 0.01;
    std::string error;
    const auto source = make_source(options, &error);
    ASSERT_NE(source, nullptr) << error;
    ModuleControl control;
    control.tracing = true;
    control.names = {"vestra-busy"};
    source->apply(control);
    const double before = cpu_seconds();
    const auto messages = read_block(next(*source)).messages;
    const double behind = cpu_seconds();
    EXPECT_TRUE(next(*source).empty()) << "the next sample is not there before it is due";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_EQ(messages.size(), 2U);
    const ReadMessage &process = messages[0], &memory = messages[1];
    EXPECT_EQ(process.name, "vestra-busy");
    EXPECT_EQ(process.switch_element(1), static_cast<uint64_t>(getpid()));
    EXPECT_EQ(process.switch_element(2), static_cast<uint64_t>(child));
    const double seconds = static_cast<double>(process.switch_element(6) + process.switch_element(7)) / 250;
    EXPECT_GE(seconds, before - 0.05);
    EXPECT_LE(seconds, behind + 0.05);
    EXPECT_GE(process.switch_element(8), kMemory / 1024);
    EXPECT_GT(process.core_figure(0, 0) + process.core_figure(0, 2), 0U);
    EXPECT_EQ(memory.frame_type, 8);
    EXPECT_TRUE(memory.numbers[10] > memory.numbers[17] && memory.numbers[17] > 0);
}

TEST(HostSource, CpusAreSharedOutEvenlyOverTheCores) {
    const struct {
        std::vector<uint64_t> user;   // seconds that each CPU was busy
        std::vector<uint64_t> cores;  // ticks
    } kRows[] = {{{}, {0, 0, 0, 0}},
                 {{10, 4}, {2500, 2500, 1000, 1000}},
                 {{12, 0, 12}, {3000, 1000, 1000, 3000}},
                 {{6, 6, 0, 0, 0, 6}, {1500, 500, 0, 1000}},
                 {{2, 4, 0, 0, 8, 8, 1, 3}, {750, 0, 2000, 500}}};
    for (const auto &row : kRows) {
        std::vector<CpuTicks> cpus;
        for (const uint64_t seconds : row.user) cpus.push_back({seconds * 100, 0, seconds * 100, 0});
        std::vector<uint64_t> user, idle;
        for (const CoreTimes &core : fold_cores(cpus, 100)) user.push_back(core.user), idle.push_back(core.idle);
        EXPECT_EQ(user, row.cores);
        EXPECT_EQ(idle, row.cores);
    }
}

}  // namespace
}  // namespace vestra_set
