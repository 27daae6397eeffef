// The cost of decoding. Compares decode_file, which stores everything, with a bare walk over the varints of the same
// bytes and with protocol buffers that parse the same content and store nothing. Also measures parts of decoding, each
// next to a baseline.
//
// Watch: decoding divided by the walk (at most 2.2) and by protobuf's parse (at most 1); short-lived processes
// divided by steady ones (at most 2); the full list divided by a malloc and a free (at most 1.5); the derived
// percentages (under 20 us); an answer over the full ring (at most 6 us). For comparison, the same stream is read as a
// dump, without and with the figures that the dump tool derives. Making the blocks is not timed, and nothing is logged.
//
// On a busy machine only rows that took turns are comparable:
//
//   decode_bench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "bench/bare_walk.h"
#include "bench/meter.h"
#include "bench/trace_stream.h"
#include "platform/dlog.h"
#include "tools/dump/analysis.h"
#include "vestra-daemon/decoder.h"
#ifdef VESTRA_BENCH_PROTOBUF
#include "trace_stream.pb.h"
#endif

using namespace vestra_bench;

namespace {

void empty_decoder() {
    dlog_set_threshold(DLOG_ERROR);
    init_collected_data();
    maxTimeValue = -1;
}

// Calls `work` on each block of the stream and reports the cost per message and the throughput.
template <class Work>
void run(benchmark::State &state, Processes kind, Work work) {
    empty_decoder();
    Stream stream(static_cast<int>(state.range(0)), kind, kind == Processes::short_lived ? 24 : 10);
    for (const Block &block : stream.next()) work(block);  // now every process is known
    int64_t messages = 0, bytes = 0;
    Meter meter;
    for (auto unused : state) {
        (void)unused;
        const auto &blocks = stream.next();
        if (kind == Processes::short_lived) vesrta_hash_init_hist();  // forget the short-lived ones again
        meter.time(state, [&] {
            for (const Block &block : blocks) work(block);
        });
        messages += stream.messages();
        bytes += stream.bytes();
    }
    meter.report(state, messages, bytes);
}

void decode(const Block &block) {
    benchmark::DoNotOptimize(
        decode_file(const_cast<unsigned char *>(block.data()), static_cast<unsigned>(block.size())));
}

void copy(const Block &block) {
    static Block target(trace::kBlockMax);
    std::memcpy(target.data(), block.data(), block.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
}

void walk(const Block &block) {
    benchmark::DoNotOptimize(bare_walk(block.data(), block.data() + block.size()));
}

void Copy(benchmark::State &state) {
    run(state, Processes::steady, copy);
}
void BareVarintWalk(benchmark::State &state) {
    run(state, Processes::steady, walk);
}
void DecodeAndStoreAll(benchmark::State &state) {
    run(state, Processes::steady, decode);
}
// Without swap nothing is accounted to a process, and the ring's writer gets processes without a name.
void DecodeWithoutSwap(benchmark::State &state) {
    run(state, Processes::swapless, decode);
}
// Each process misses the history once.
void DecodeShortLived(benchmark::State &state) {
    run(state, Processes::short_lived, decode);
}

#ifdef VESTRA_BENCH_PROTOBUF
void set_cores(FlatSample *to, const std::array<trace::CoreTimes, trace::kCoreCount> &cores) {
#define VESTRA_SET_CORE(n)                        \
    to->set_user##n(cores[n].user);               \
    to->set_system##n(cores[n].system);           \
    to->set_idle##n(cores[n].idle);               \
    to->set_temperature##n(cores[n].temperature); \
    to->set_iowait##n(cores[n].iowait)
    VESTRA_SET_CORE(0);
    VESTRA_SET_CORE(1);
    VESTRA_SET_CORE(2);
    VESTRA_SET_CORE(3);
#undef VESTRA_SET_CORE
}
void set_cores(NestedSample *to, const std::array<trace::CoreTimes, trace::kCoreCount> &cores) {
    for (const trace::CoreTimes &core : cores) {
        Core *added = to->add_cores();
        added->set_user(core.user);
        added->set_system(core.system);
        added->set_idle(core.idle);
        added->set_temperature(core.temperature);
        added->set_iowait(core.iowait);
    }
}

// Parses the stream's messages frame by frame, as the decoder gets them, into one reused
// object: the library's fastest way.
template <class Frame>
void parse(benchmark::State &state) {
    Stream stream(static_cast<int>(state.range(0)));
    int64_t messages = 0, bytes = 0;
    Frame parsed;
    Meter meter;
    for (auto unused : state) {
        (void)unused;
        std::vector<std::string> serialised;
        Frame frame;
        const auto flush = [&] {
            if (frame.sample_size() > 0) serialised.push_back(frame.SerializeAsString());
            frame.Clear();
        };
        stream.next([&](const trace::SwitchMessage &message, bool first) {
            if (first) flush();
            auto *sample = frame.add_sample();
            sample->set_type(message.type);
            sample->set_time(message.time_ns);
            sample->set_element1(message.element1);
            sample->set_pid(message.pid);
            sample->set_name(message.name.data(), message.name.size());
            sample->set_cpu_a(message.cpu_a);
            sample->set_cpu_b(message.cpu_b);
            sample->set_rss(message.rss);
            sample->set_swap(message.swap);
            sample->set_element10(message.element10);
            sample->set_element11(message.element11);
            set_cores(sample, message.cores);
        });
        flush();
        meter.time(state, [&] {
            for (const std::string &text : serialised) benchmark::DoNotOptimize(parsed.ParseFromString(text));
        });
        messages += stream.messages();
        for (const std::string &text : serialised) bytes += static_cast<int64_t>(text.size());
    }
    meter.report(state, messages, bytes);
}
void ProtobufFlat(benchmark::State &state) {
    parse<FlatFrame>(state);
}
void ProtobufNested(benchmark::State &state) {
    parse<NestedFrame>(state);
}
BENCHMARK(ProtobufFlat)->Arg(1500)->UseManualTime();
BENCHMARK(ProtobufNested)->Arg(1500)->UseManualTime();
#endif

// Reads a dump of a hundred blocks from memory.
template <class Read>
void read_whole(benchmark::State &state, const Read &read) {
    Stream stream(1500);
    std::string dump;
    int64_t messages = 0;
    for (int i = 0; i < 10; ++i) {
        for (const Block &block : stream.next()) dump.append(block.begin(), block.end());
        messages += stream.messages();
    }
    Meter meter;
    for (auto unused : state) {
        (void)unused;
        meter.time(state, [&] {
            vestra_dump::MemorySource source(dump);
            benchmark::DoNotOptimize(read(source));
        });
    }
    meter.report(state, messages * state.iterations(), static_cast<int64_t>(dump.size()) * state.iterations());
}

void ReadDump(benchmark::State &state) {
    read_whole(state, [](vestra_dump::ByteSource &source) {
        vestra_dump::DumpVisitor nothing;
        return read_dump(source, nothing).messages;
    });
}
void ReadDumpAndDerive(benchmark::State &state) {
    read_whole(state, [](vestra_dump::ByteSource &source) {
        vestra_dump::DumpSink nothing;
        vestra_dump::Survey survey;
        return analyse_at_once(source, 10, nothing, &survey)->processes;
    });
}

// Looks up a process that is not in the history.
void HistoryMiss(benchmark::State &state) {
    empty_decoder();
    for (auto unused : state) {
        (void)unused;
        benchmark::DoNotOptimize(vesrta_checkhash_hist(4711));
    }
}

// One more sample for a full list: a node is made and inserted, and the oldest is dropped.
class FullList {
  public:
    FullList() {
        for (int i = 0; i < 10000; ++i) insert_node(node());
    }
    circ_buf_shm *node() {
        record_.timestamp += kMessageInterval;
        return GetShmNode(&record_, 1.5);
    }

  private:
    process_mem record_ = {3'600'000'000'000, 4711, "process-4711", 100000, 2000};
};
void ListAtBound(benchmark::State &state) {
    FullList list;
    for (auto unused : state) {
        (void)unused;
        insert_node(list.node());
    }
}
// Only inserting and dropping. One dropped node is kept for reuse, the others are freed.
void ListInsertAndTrim(benchmark::State &state) {
    static constexpr int kNodes = 1000;
    FullList list;
    std::vector<circ_buf_shm *> nodes(kNodes);
    double seconds = 0;
    for (auto unused : state) {
        (void)unused;
        for (circ_buf_shm *&node : nodes) node = list.node();
        const double start = thread_seconds();
        for (circ_buf_shm *node : nodes) insert_node(node);
        const double taken = thread_seconds() - start;
        state.SetIterationTime(taken);
        seconds += taken;
    }
    state.counters["ns/node"] = seconds * 1e9 / kNodes / static_cast<double>(state.iterations());
}
// The share of the list's lock in both.
void LockUnlock(benchmark::State &state) {
    for (auto unused : state) {
        (void)unused;
        pthread_mutex_lock(&shm_lock);
        pthread_mutex_unlock(&shm_lock);
    }
}

// Baselines of the list: a block of a node's size is allocated and freed at once, or freed as the oldest of as many
// blocks as the list has nodes.
void MallocFree(benchmark::State &state) {
    void *(*volatile take)(size_t) = malloc;  // volatile: the pair must not be optimised away
    for (auto unused : state) {
        (void)unused;
        free(take(sizeof(circ_buf_shm)));
    }
}
void MallocFreeOldest(benchmark::State &state) {
    std::deque<void *> blocks;
    for (int i = 0; i < 4500; ++i) blocks.push_back(malloc(sizeof(circ_buf_shm)));
    for (auto unused : state) {
        (void)unused;
        blocks.push_back(malloc(sizeof(circ_buf_shm)));
        free(blocks.front());
        blocks.pop_front();
    }
    for (void *block : blocks) free(block);
}

// The cost of the first sample of a second when the ring is full: 179 steps, each with an average over 500 samples.
// With `rising` usage every average is a new peak.
void DerivedPercentages(benchmark::State &state, bool rising) {
    empty_decoder();
    g_CPUTotalPercent = 0;
    _SYSDATA_ sample = {};
    int64_t ticks = 100000;
    const auto next_second = [&] {
        sample.timestamp = sample.switch_timestamp += trace::kNsPerSecond;
        ticks += rising ? sample.timestamp / trace::kNsPerSecond : 100 + sample.timestamp / trace::kNsPerSecond % 7;
        for (int core = 0; core < kCoreCount; ++core) {
            sample.utime[core] = ticks;
            sample.stime[core] = ticks / 2;
        }
        groupData(&sample, trace::kSwitchFrame, 1);
    };
    for (int i = 0; i < 3 * kSlotCount; ++i) next_second();
    for (auto unused : state) {
        (void)unused;
        next_second();
    }
}

// The cost of the answer to one client: 17 vitals over a window of the full ring, as the client thread computes it.
void Answer(benchmark::State &state) {
    empty_decoder();
    _SYSDATA_ sample = {};
    for (int second = 1; second <= 2 * kSlotCount; ++second) {
        sample.timestamp = sample.switch_timestamp = second * trace::kNsPerSecond;
        sample.element10 = second % 5;  // 0 now and then: seconds without data
        for (int core = 0; core < kCoreCount; ++core) sample.utime[core] += 50 + second % 7;
        groupData(&sample, trace::kSwitchFrame, 1);
        for (double &figure : sample.meminfo) figure = 100 + second * 7 % 11;
        groupData(&sample, trace::kMeminfoFrame, 1);
    }
    for (auto unused : state) {
        (void)unused;
        vestra_api_data requests[VESTRA_API_VITALS] = {};
        for (int type = 0; type < VESTRA_API_VITALS; ++type) {
            requests[type].packet_type = type;
            requests[type].window = static_cast<int32_t>(state.range(0));
        }
        answer_requests(requests);
        benchmark::DoNotOptimize(requests);
    }
}

constexpr int kFewest = 10, kUsual = 1500, kMost = 10000;
const std::vector<int64_t> kProcesses = {kFewest, 30, 100, 300, 1000, kUsual, 3000, kMost};

BENCHMARK(Copy)->Arg(kUsual)->UseManualTime();
BENCHMARK(BareVarintWalk)->ArgsProduct({kProcesses})->UseManualTime();
BENCHMARK(DecodeAndStoreAll)->ArgsProduct({kProcesses})->UseManualTime();
BENCHMARK(DecodeWithoutSwap)->Arg(kUsual)->UseManualTime();
BENCHMARK(DecodeShortLived)->Arg(kMost)->UseManualTime();
BENCHMARK(ReadDump)->UseManualTime();
BENCHMARK(ReadDumpAndDerive)->UseManualTime();
BENCHMARK(HistoryMiss);
BENCHMARK(ListAtBound);
BENCHMARK(ListInsertAndTrim)->UseManualTime();
BENCHMARK(LockUnlock);
BENCHMARK(MallocFree);
BENCHMARK(MallocFreeOldest);
BENCHMARK_CAPTURE(DerivedPercentages, even, false);
BENCHMARK_CAPTURE(DerivedPercentages, rising, true);
BENCHMARK(Answer)->Arg(0)->Arg(kSlotCount);

}  // namespace

BENCHMARK_MAIN();
