// The machine's own figures, as far as a test can know them.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "set/trace/host_source.h"
#include "trace_reader.h"

namespace vestra_set {
namespace {

using vestra_test::read_block;
using vestra_test::ReadMessage;

constexpr size_t kChildMemory = size_t{64} * 1024 * 1024;  // bytes

// A child that keeps one CPU busy and holds kChildMemory, until it is destroyed.
class BusyChild {
  public:
    BusyChild() : pid_(fork()) {
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, "vestra-busy");
        void *memory = mmap(nullptr, kChildMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) _exit(1);
        for (size_t at = 0; at < kChildMemory; at += 4096) static_cast<volatile char *>(memory)[at] = 1;
        for (volatile uint64_t count = 0;; count = count + 1) {
        }
    }
    ~BusyChild() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }
    // Seconds; a whole CPU's worth only where no other program wants it too.
    double cpu_time() const {
        clockid_t clock = 0;
        timespec time{};
        EXPECT_EQ(clock_getcpuclockid(pid_, &clock), 0);
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }
    double resident_kib() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string word; status >> word;) {
            double kib = 0;
            if (word == "VmRSS:" && status >> kib) return kib;
        }
        return 0;
    }

  private:
    const pid_t pid_;
};

std::unique_ptr<TraceSource> host(double rate) {
    SourceOptions options;
    options.kind = "host";
    options.rate = rate;
    std::string error;
    auto source = make_source(options, &error);
    EXPECT_NE(source, nullptr) << error;
    return source;
}

std::vector<ReadMessage> next(TraceSource &source) {
    std::vector<uint8_t> block(kMaxBlock);
    block.resize(source.next_block(block.data(), block.size()));
    const auto read = read_block(block);
    EXPECT_EQ(read.refused, 0U);
    return read.messages;
}

TEST(HostSource, BusyChildShowsUpWithItsCpuTimeAndMemory) {
    const BusyChild child;
    const auto source = host(10);
    std::optional<ReadMessage> first, last;
    double first_cpu_time = 0;
    double last_cpu_time = 0;
    bool memory_seen = false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (const ReadMessage &message : next(*source)) {
            const auto &numbers = message.numbers;
            if (message.frame_type == 8) memory_seen = numbers[10] > numbers[17] && numbers[17] > 0;
            if (message.frame_type != 7 || message.name != "vestra-busy") continue;
            EXPECT_EQ(message.switch_element(1), static_cast<uint64_t>(getpid()));
            EXPECT_EQ(message.switch_element(2), static_cast<uint64_t>(child.pid()));
            if (!first) {
                first = message;
                first_cpu_time = child.cpu_time();
            }
            last = message;
            last_cpu_time = child.cpu_time();
        }
    }
    EXPECT_TRUE(memory_seen);
    ASSERT_TRUE(first);
    const double seconds = static_cast<double>(last->time() - first->time()) / 1e9;
    ASSERT_GT(seconds, 1.5);
    const auto grown = [&](auto figure) {
        return static_cast<double>(figure(*last)) - static_cast<double>(figure(*first));
    };
    const double process = grown([](const ReadMessage &m) { return m.switch_element(6) + m.switch_element(7); });
    const double share = process / (seconds * 250);
    EXPECT_NEAR(share, (last_cpu_time - first_cpu_time) / seconds, 0.15);
    EXPECT_GE(last->switch_element(8), kChildMemory / 1024);
    EXPECT_NEAR(static_cast<double>(last->switch_element(8)), child.resident_kib(), 1024);
    double total = 0;
    double all = 0;
    for (size_t core = 0; core < kCores; ++core) {
        for (const unsigned figure : {0U, 1U, 2U, 4U}) {
            const double ticks = grown([&](const ReadMessage &m) { return m.core_figure(core, figure); });
            all += ticks;
            if (figure < 2) total += ticks;
        }
    }
    EXPECT_LT(all / (seconds * 250 * 4), 1.1) << "all time of all cores";
    EXPECT_GT(all / (seconds * 250 * 4), 0.5) << "the rest may be stolen from a virtual machine";
    const double machine = total / (seconds * 250 * 4);
    EXPECT_GT(machine, 0.8 * share / static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_LT(machine, 1.1);
}

TEST(HostSource, NextSampleIsNotThereBeforeItIsDue) {
    const auto source = host(0.5);
    EXPECT_FALSE(next(*source).empty());
    EXPECT_TRUE(next(*source).empty());
}

TEST(HostSource, FilterLeavesTheCoresCountersAlone) {
    const auto source = host(10);
    ModuleControl control;
    control.tracing = true;
    control.pids = {static_cast<int>(getpid())};
    source->apply(control);
    const auto own = next(*source);
    ASSERT_EQ(own.size(), 2U);
    EXPECT_EQ(own[0].switch_element(2), static_cast<uint64_t>(getpid()));
    control.pids.clear();
    control.names = {"no-such-process"};
    source->apply(control);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto idle = next(*source);
    ASSERT_GE(idle.size(), 2U);
    EXPECT_EQ(idle.back().frame_type, 8);
    EXPECT_EQ(idle[idle.size() - 2].switch_element(2), 0U);
    EXPECT_GT(idle[idle.size() - 2].core_figure(0, 2), 0U);
    control.tracing = false;
    source->apply(control);
    EXPECT_TRUE(next(*source).empty());
}

struct FoldCase {
    const char *name;
    std::vector<uint64_t> user;   // seconds that each CPU was busy
    std::vector<uint64_t> cores;  // ticks
};
void PrintTo(const FoldCase &row, std::ostream *out) {
    *out << row.name;
}
const FoldCase kFolds[] = {
    {"NoCpu", {}, {0, 0, 0, 0}},
    {"OneCpuIsAllCores", {10}, {2500, 2500, 2500, 2500}},
    {"TwoCpusAreTwoCoresEach", {10, 4}, {2500, 2500, 1000, 1000}},
    {"ThreeCpus", {12, 0, 12}, {3000, 1000, 1000, 3000}},
    {"FourCpusAreTheCores", {1, 2, 3, 4}, {250, 500, 750, 1000}},
    {"SixCpus", {6, 6, 0, 0, 0, 6}, {1500, 500, 0, 1000}},
    {"EightCpusTwoToACore", {2, 4, 0, 0, 8, 8, 1, 3}, {750, 0, 2000, 500}},
};
class Fold : public testing::TestWithParam<FoldCase> {};
TEST_P(Fold, SharesTheCpusOutEvenly) {
    constexpr uint64_t kHertz = 100;
    std::vector<CpuTicks> cpus;
    for (const uint64_t seconds : GetParam().user) cpus.push_back({seconds * kHertz, 0, seconds * kHertz, 0});
    const auto cores = fold_cores(cpus, kHertz);
    for (size_t i = 0; i < kCores; ++i) {
        EXPECT_EQ(cores[i].user, GetParam().cores[i]) << i;
        EXPECT_EQ(cores[i].idle, GetParam().cores[i]) << i;
    }
}
INSTANTIATE_TEST_SUITE_P(All, Fold, testing::ValuesIn(kFolds), [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace vestra_set
