// What decoding costs: decode_file on a realistic stream, storing everything, beside a copy and a bare walk over the
// varints of the same bytes. The figure to watch is decoding divided by the bare walk (at most 4). Reading the same as
// a dump, and deriving from it what the dump tool derives, stand beside them.
//
// The stream: 1500 processes, each sampled once a second, eight messages a frame, blocks of 128 KiB, debug lines off.
// Time goes on from one iteration to the next, as it does on a set; making the blocks is not timed.

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "platform/dlog.h"
#include "set/trace/frame_writer.h"
#include "tools/dump/summary.h"
#include "vestra-daemon/decoder.h"

namespace {

constexpr int kProcesses = 1500;
constexpr int kMessagesPerFrame = 8;
constexpr size_t kBlock = 131072;
constexpr int kBlocks = 10;  // an iteration's

struct Process {
    uint64_t pid, cpu_a, cpu_b, rss, swap;
    std::string name;
};

class Stream {
  public:
    explicit Stream(bool swapping) {
        for (int i = 0; i < kProcesses; ++i) {
            Process process;
            process.pid = static_cast<uint64_t>(i) * 13 + 101;
            process.cpu_a = random_() % 50000;
            process.cpu_b = random_() % 20000;
            process.rss = 500 + random_() % 200000;
            process.swap = swapping ? 1 + random_() % 5000 : 0;
            process.name = "process-" + std::to_string(i);
            processes_.push_back(process);
        }
        for (vestra_set::CoreTimes &core : cores_) core = {90000, 40000, 900000, 55, 800};
    }

    // The next kBlocks blocks, each full.
    const std::vector<std::vector<uint8_t>> &next() {
        messages_ = bytes_ = 0;
        for (std::vector<uint8_t> &block : blocks_) {
            block.resize(kBlock);
            vestra_set::FrameWriter writer(block.data(), kBlock - vestra_set::kEndMark);
            bool room = true;
            while (room) {
                room = writer.begin_frame(vestra_set::kSwitchFrame, 0);
                for (int i = 0; room && i < kMessagesPerFrame; ++i) {
                    room = writer.add(next_message());
                    messages_ += room ? 1 : 0;
                }
            }
            block.resize(writer.size());
            block.insert(block.end(), vestra_set::kEndMark, 0);
            bytes_ += block.size();
        }
        return blocks_;
    }
    int64_t messages() const { return messages_; }
    int64_t bytes() const { return static_cast<int64_t>(bytes_); }

  private:
    vestra_set::SwitchMessage next_message() {
        Process &process = processes_[next_];
        next_ = (next_ + 1) % kProcesses;
        time_ += 1000000000 / kProcesses;
        process.cpu_a += random_() % 3;
        process.cpu_b += random_() % 2;
        if (next_ == 0) {
            for (vestra_set::CoreTimes &core : cores_) {
                core.user += random_() % 90;
                core.system += random_() % 40;
                core.idle += random_() % 200;
                core.iowait += random_() % 3;
            }
        }
        vestra_set::SwitchMessage message;
        message.time_ns = time_;
        message.element1 = 7;
        message.pid = process.pid;
        message.name = process.name;
        message.cpu_a = process.cpu_a;
        message.cpu_b = process.cpu_b;
        message.rss = process.rss;
        message.swap = process.swap;
        message.element10 = 1500;
        message.element11 = 300;
        message.cores = cores_;
        return message;
    }

    std::mt19937 random_{1};
    std::vector<Process> processes_;
    std::array<vestra_set::CoreTimes, vestra_set::kCores> cores_{};
    size_t next_ = 0;
    uint64_t time_ = 3'600'000'000'000;  // an hour after start
    std::vector<std::vector<uint8_t>> blocks_{kBlocks};
    int64_t messages_ = 0;
    size_t bytes_ = 0;
};

// Time that this thread has had the processor: other work on the machine does not count.
double thread_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Runs `work` on block after block of the stream and reports its cost a message and a second.
template <class Work>
void run(benchmark::State &state, bool swapping, Work work) {
    dlog_set_threshold(DLOG_WARN);
    init_collected_data();
    maxTimeValue = -1;
    Stream stream(swapping);
    for (const auto &block : stream.next()) work(block);  // every process is known from here on
    int64_t messages = 0;
    int64_t bytes = 0;
    double seconds = 0;
    for (auto unused : state) {
        (void)unused;
        const auto &blocks = stream.next();
        const double start = thread_seconds();
        for (const auto &block : blocks) work(block);
        const double taken = thread_seconds() - start;
        state.SetIterationTime(taken);
        messages += stream.messages();
        bytes += stream.bytes();
        seconds += taken;
    }
    state.SetBytesProcessed(bytes);
    state.counters["ns/message"] = seconds * 1e9 / static_cast<double>(messages);
    state.counters["bytes/message"] = static_cast<double>(bytes) / static_cast<double>(messages);
}

void decode(const std::vector<uint8_t> &block) {
    benchmark::DoNotOptimize(
        decode_file(const_cast<unsigned char *>(block.data()), static_cast<unsigned>(block.size())));
}

void copy(const std::vector<uint8_t> &block) {
    static std::vector<uint8_t> target(kBlock);
    std::memcpy(target.data(), block.data(), block.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
}

const uint8_t *skip_varint(const uint8_t *at, uint64_t *value) {
    uint64_t number = 0;
    unsigned shift = 0;
    while (*at >= 0x80) {
        number |= uint64_t{*at++ & 0x7fU} << shift;
        shift += 7;
    }
    *value = number | uint64_t{*at++} << shift;
    return at;
}

// Type, four elements (the last a string's length), its bytes, eight elements, twenty of the cores.
void bare_walk(const std::vector<uint8_t> &block) {
    uint64_t sum = 0;
    const uint8_t *at = block.data();
    for (;;) {
        uint32_t length = 0;
        std::memcpy(&length, at, sizeof length);
        if (length == 0) break;
        at += sizeof length;
        const uint8_t *end = at + length;
        at += 2;
        while (at < end) {
            uint64_t value = 0;
            for (int i = 0; i < 5; ++i) {
                at = skip_varint(at, &value);
                sum += value;
            }
            at += value;
            for (int i = 0; i < 28; ++i) {
                at = skip_varint(at, &value);
                sum += value;
            }
        }
    }
    benchmark::DoNotOptimize(sum);
}

void Copy(benchmark::State &state) {
    run(state, true, copy);
}
void BareVarintWalk(benchmark::State &state) {
    run(state, true, bare_walk);
}
void DecodeAndStoreAll(benchmark::State &state) {
    run(state, true, decode);
}
// Without swap nothing is accounted to a process; the ring's writer meets processes without a name.
void DecodeWithoutSwap(benchmark::State &state) {
    run(state, false, decode);
}

// The whole of a dump of a hundred blocks, from memory.
template <class Visitor, class... Arguments>
void read_whole(benchmark::State &state, const Arguments &...arguments) {
    Stream stream(true);
    std::string dump;
    int64_t messages = 0;
    for (int i = 0; i < 10; ++i) {
        for (const auto &block : stream.next()) dump.append(block.begin(), block.end());
        messages += stream.messages();
    }
    double seconds = 0;
    for (auto unused : state) {
        (void)unused;
        const double start = thread_seconds();
        vestra_dump::MemorySource source(dump);
        Visitor visitor(arguments...);
        benchmark::DoNotOptimize(vestra_dump::read_dump(source, visitor));
        const double taken = thread_seconds() - start;
        state.SetIterationTime(taken);
        seconds += taken;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(dump.size()));
    state.counters["ns/message"] = seconds * 1e9 / static_cast<double>(messages * state.iterations());
}

void ReadDump(benchmark::State &state) {
    read_whole<vestra_dump::DumpVisitor>(state);
}
void ReadDumpAndDerive(benchmark::State &state) {
    read_whole<vestra_dump::Summariser>(state, "dump", vestra_dump::DumpTime{}, size_t{10});
}

// A process that is not in the history: a pass over the whole table.
void HistoryMiss(benchmark::State &state) {
    init_collected_data();
    for (auto unused : state) {
        (void)unused;
        benchmark::DoNotOptimize(vesrta_checkhash_hist(4711));
    }
}

BENCHMARK(Copy)->UseManualTime();
BENCHMARK(BareVarintWalk)->UseManualTime();
BENCHMARK(DecodeAndStoreAll)->UseManualTime();
BENCHMARK(DecodeWithoutSwap)->UseManualTime();
BENCHMARK(ReadDump)->UseManualTime();
BENCHMARK(ReadDumpAndDerive)->UseManualTime();
BENCHMARK(HistoryMiss);

}  // namespace

BENCHMARK_MAIN();
