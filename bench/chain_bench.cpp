// The cost of a block from the descriptor to the chain, and of the chain to the disk. Compares read_data on a full
// chain with decoding and with copying the same block, and write_data with a loop that only writes and syncs. Watch
// Dump divided by WriteFsync (at most 1.1), and how ReadData grows with the block size and with the chain, which it
// walks to its end for every block.
//
// Runs in a simulated set, because a dump needs the set's paths:
//
//   vestra-set sandbox -- chain_bench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true
//
// Dumps are written to /tmp, a tmpfs in the set. VESTRA_BENCH_DIR names another directory to mount there.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "bench/meter.h"
#include "bench/trace_stream.h"
#include "platform/dlog.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestrad.h"

using namespace vestra_bench;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kDumps[] = "/tmp/dumps";

// As the daemon does at start-up: a large block gets a separate mapping.
const int kMapped = mallopt(M_MMAP_THRESHOLD, 64 * 1024);

// A fake control node: a read returns the block that was put last and costs no more than the kernel's copy.
class Node {
  public:
    void put(const Block &block) const {
        if (ftruncate(fd_, 0) != 0 || pwrite(fd_, block.data(), block.size(), 0) < 0 || lseek(fd_, 0, SEEK_SET) != 0) {
            perror("chain_bench");
            exit(1);
        }
    }
    int fd() const { return fd_; }

  private:
    const int fd_ = memfd_create("node", MFD_CLOEXEC);
};

// An empty chain with a budget of `mib` MiB, and a stream of blocks of `block_size` bytes.
class Chain {
  public:
    Chain(size_t block_size, int64_t mib)
        : stream_(1500, Processes::steady, trace::kBlockMax / block_size, block_size) {
        dlog_set_threshold(DLOG_ERROR + 1);
        free_bufs(&ghead_s);
        init_collected_data();
        maxTimeValue = -1;
        max_file_size = static_cast<uint32_t>(mib << 20);
    }
    void fill() {
        while (file_complete_flag == 0) {
            for (const Block &block : stream_.next()) take(block);
        }
    }
    void take(const Block &block) const {
        node_.put(block);
        read_data(&ghead_s, node_.fd(), &gtotal_bytes);
    }
    void measure_read(benchmark::State &state) {
        Meter meter;
        int64_t blocks = 0;
        for (auto unused : state) {
            (void)unused;
            for (const Block &block : stream_.next()) {
                node_.put(block);
                meter.time(state, [&] { read_data(&ghead_s, node_.fd(), &gtotal_bytes); });
                ++blocks;
            }
        }
        report(state, meter, blocks);
    }
    // Calls `work` on each block.
    template <class Work>
    void measure(benchmark::State &state, Work work) {
        Meter meter;
        int64_t blocks = 0;
        for (auto unused : state) {
            (void)unused;
            const auto &next = stream_.next();
            meter.time(state, [&] {
                for (const Block &block : next) work(block);
            });
            blocks += static_cast<int64_t>(next.size());
        }
        report(state, meter, blocks);
    }

  private:
    static void report(benchmark::State &state, const Meter &meter, int64_t blocks) {
        state.counters["us/block"] = meter.seconds() * 1e6 / static_cast<double>(blocks);
    }

    Stream stream_;
    Node node_;
};

void ReadData(benchmark::State &state) {
    Chain chain(static_cast<size_t>(state.range(0)), state.range(1));
    chain.fill();
    chain.measure_read(state);
}
void Decode(benchmark::State &state) {
    Chain(static_cast<size_t>(state.range(0)), 1).measure(state, [](const Block &block) {
        decode_file(const_cast<unsigned char *>(block.data()), static_cast<unsigned>(block.size()));
    });
}
void Memcpy(benchmark::State &state) {
    static Block target(trace::kBlockMax);
    Chain(static_cast<size_t>(state.range(0)), 1).measure(state, [](const Block &block) {
        std::memcpy(target.data(), block.data(), block.size());
        benchmark::ClobberMemory();
    });
}

// Makes the directory for dumps, and the version file that a dump needs.
void make_rooms() {
    static const bool made = [] {
        const char *directory = getenv("VESTRA_BENCH_DIR");
        if (directory != nullptr && mount(directory, "/tmp", nullptr, MS_BIND, nullptr) != 0) {
            perror(directory);
            exit(1);
        }
        fs::create_directories(kDumps);
        std::ofstream("/etc/prd_info.ini", std::ios::binary) << "Model=QX-55\nBuild=1234.5\r\n";
        return true;
    }();
    (void)made;
}

// Runs `work`, which writes files to kDumps. Measures real time, because it waits for the disk.
template <class Work>
void run_dumps(benchmark::State &state, Work work) {
    make_rooms();
    Chain(trace::kBlockMax, state.range(0)).fill();
    for (auto unused : state) {
        (void)unused;
        const auto start = Clock::now();
        const bool written = work();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (!written) state.SkipWithError("not written");
        for (const auto &entry : fs::directory_iterator(kDumps)) fs::remove(entry);
    }
    state.SetBytesProcessed(static_cast<int64_t>(gtotal_bytes) * state.iterations());
}

void Dump(benchmark::State &state) {
    run_dumps(state, [] { return write_data(&ghead_s, kDumps, "bench", 1, WRITE_REASON_FAULT) >= 0; });
}
void WriteFsync(benchmark::State &state) {
    run_dumps(state, [] {
        const int fd = open("/tmp/dumps/bare", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        bool written = fd >= 0;
        for (const circ_buf_s *node = ghead_s; node != nullptr; node = node->next) {
            written = written && write(fd, node->data, node->size) == static_cast<ssize_t>(node->size);
            fsync(fd);
        }
        close(fd);
        return written;
    });
}

const std::vector<int64_t> kSizes = {1024, 4096, 16384, 65536, 131072}, kChains = {1, 2, 4, 7, 10};

BENCHMARK(Memcpy)->ArgsProduct({kSizes})->UseManualTime()->Iterations(100);  // making the blocks takes most of the time
BENCHMARK(Decode)->ArgsProduct({kSizes})->UseManualTime();
BENCHMARK(ReadData)->ArgsProduct({kSizes, {10}})->UseManualTime();
BENCHMARK(ReadData)->ArgsProduct({{1024}, {1, 2, 4, 7}})->UseManualTime();
BENCHMARK(Dump)->ArgsProduct({kChains})->UseManualTime();
BENCHMARK(WriteFsync)->ArgsProduct({kChains})->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
