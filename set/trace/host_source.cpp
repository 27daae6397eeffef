#include "set/trace/host_source.h"

#include <fcntl.h>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "set/trace/synthetic_source.h"

#if defined(__SANITIZE_ADDRESS__)
#define VESTRA_LEAKS_ARE_LOOKED_FOR
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESTRA_LEAKS_ARE_LOOKED_FOR
#endif
#endif
#ifdef VESTRA_LEAKS_ARE_LOOKED_FOR
// The library keeps some buffers for each thread that uses it, and does not give them back when the thread ends.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return "leak:libproc2.so";
}
#endif

namespace vestra_set {
namespace {

constexpr uint64_t kSetHertz = 250;
constexpr double kDefaultRate = 2;                     // samples a second
constexpr size_t kFrameBytes = 8192;                   // a switch frame is closed when it has grown to this
constexpr size_t kPendingLimit = size_t{1024} * 1024;  // bytes of frames that wait for a reader
constexpr int kMaxZones = 64;                          // thermal zones that are looked for
constexpr std::string_view kIdleName = "swapper";

// What is asked for, in order, of each process, ...
enum { kPid, kParent, kName, kProcessor, kUserTicks, kSystemTicks, kBegan, kRss, kSwap, kDiskRead, kDiskWritten };
pids_item kPidItems[] = {PIDS_ID_PID,    PIDS_ID_PPID,       PIDS_CMD,           PIDS_PROCESSOR,
                         PIDS_TICS_USER, PIDS_TICS_SYSTEM,   PIDS_TICS_BEGAN,    PIDS_VM_RSS,
                         PIDS_VM_SWAP,   PIDS_IO_READ_BYTES, PIDS_IO_WRITE_BYTES};
constexpr int kPidItemsWithDisk = static_cast<int>(std::size(kPidItems));
constexpr int kPidItemsWithoutDisk = kDiskRead;  // those two cost a file more for each process

// ... of each CPU and all together, ...
enum { kCpuUser, kCpuSystem, kCpuIdle, kCpuIoWait, kSwitches, kRunning };
stat_item kStatItems[] = {STAT_TIC_SUM_USER, STAT_TIC_SUM_SYSTEM,   STAT_TIC_IDLE,
                          STAT_TIC_IOWAIT,   STAT_SYS_CTX_SWITCHES, STAT_SYS_PROC_RUNNING};

// ... and of the memory.
enum { kTotal, kFree, kAvailable, kCached, kBuffers, kShared, kDirty, kSwapTotal, kSwapUsed };
meminfo_item kMemoryItems[] = {MEMINFO_MEM_TOTAL,  MEMINFO_MEM_FREE,    MEMINFO_MEM_AVAILABLE,
                               MEMINFO_MEM_CACHED, MEMINFO_MEM_BUFFERS, MEMINFO_MEM_SHARED,
                               MEMINFO_MEM_DIRTY,  MEMINFO_SWAP_TOTAL,  MEMINFO_SWAP_USED};

uint64_t monotonic_ns() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::nanoseconds(now).count());
}

// Degrees Celsius of the machine's first thermal zone that has a credible figure. False without one.
bool machine_temperature(int *degrees) {
    constexpr int kCredible[] = {-40'000, 150'000};  // millidegrees
    for (int zone = 0; zone < kMaxZones; ++zone) {
        char path[64];
        std::snprintf(path, sizeof path, "/sys/class/thermal/thermal_zone%d/temp", zone);
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        char text[32];
        const ssize_t size = read(fd, text, sizeof text);
        close(fd);
        int value = 0;
        if (size <= 0 || std::from_chars(text, text + size, value).ec != std::errc()) continue;
        if (value < kCredible[0] || value > kCredible[1]) continue;
        *degrees = value / 1000;
        return true;
    }
    return false;
}

// A share of `whole` in thousandths.
uint64_t thousandths(uint64_t part, uint64_t whole) {
    return whole > 0 ? std::min(part, whole) * 1000 / whole : 0;
}

/* ------------------------------ One sample ------------------------------ */

// Reads the machine. One thread at a time.
class Sampler {
  public:
    // With `every_process`, also those are reported that did not run since the last sample.
    explicit Sampler(bool every_process) : every_process_(every_process) {}
    Sampler(const Sampler &) = delete;
    Sampler &operator=(const Sampler &) = delete;
    ~Sampler() {
        if (pids_ != nullptr) procps_pids_unref(&pids_);
        if (stat_ != nullptr) procps_stat_unref(&stat_);
        if (memory_ != nullptr) procps_meminfo_unref(&memory_);
    }

    bool open(std::string *error) {
        int result = procps_pids_new(&pids_, kPidItems, kPidItemsWithoutDisk);
        if (result >= 0) result = procps_stat_new(&stat_);
        if (result >= 0) result = procps_meminfo_new(&memory_);
        if (result < 0) *error = std::string("cannot sample this machine: ") + std::strerror(-result);
        // The first reading, so that the first sample has a rate.
        SwitchMessage ignored;
        ignored.time_ns = monotonic_ns();
        return result >= 0 && read_cpus(&ignored);
    }

    // Appends the frames of one sample to `out`. What cannot be read is left out.
    void sample(const ModuleControl &control, std::vector<uint8_t> *out) {
        SwitchMessage message;  // what all messages of the sample have in common
        message.time_ns = monotonic_ns();
        if (!read_cpus(&message)) return;
        int degrees = control.temperature;
        machine_temperature(&degrees);
        for (CoreTimes &core : message.cores) core.temperature = static_cast<uint64_t>(int64_t{degrees});
        FrameWriter writer(out);
        const size_t processes = write_processes(control, message, &writer);
        write_memory(message, processes, &writer);
    }

  private:
    struct Seen {
        uint64_t began = 0, ticks = 0, rss = 0, swap = 0;
        bool operator==(const Seen &other) const {
            return began == other.began && ticks == other.ticks && rss == other.rss && swap == other.swap;
        }
    };

    bool read_cpus(SwitchMessage *message) {
        const stat_reaped *reaped =
            procps_stat_reap(stat_, STAT_REAP_CPUS_ONLY, kStatItems, static_cast<int>(std::size(kStatItems)));
        if (reaped == nullptr) return false;
        cpus_.clear();
        for (int i = 0; i < reaped->cpus->total; ++i) {
            const stat_result *cpu = reaped->cpus->stacks[i]->head;
            cpus_.push_back({cpu[kCpuUser].result.ull_int, cpu[kCpuSystem].result.ull_int, cpu[kCpuIdle].result.ull_int,
                             cpu[kCpuIoWait].result.ull_int});
        }
        // The kernel's idle and I/O wait times may go back a little, and all do when a CPU is switched off.
        const auto cores = fold_cores(cpus_, hertz_);
        for (size_t i = 0; i < kCoreCount; ++i) {
            cores_[i].user = std::max(cores_[i].user, cores[i].user);
            cores_[i].system = std::max(cores_[i].system, cores[i].system);
            cores_[i].idle = std::max(cores_[i].idle, cores[i].idle);
            cores_[i].iowait = std::max(cores_[i].iowait, cores[i].iowait);
        }
        message->cores = cores_;
        message->element10 = switches_.update(message->time_ns, reaped->summary->head[kSwitches].result.ul_int);
        message->element11 = reaped->summary->head[kRunning].result.ul_int;
        return true;
    }

    // Every process that the filter lets through and that ran since the last sample, or all, one core's after the
    // other's. Returns how many processes there are.
    size_t write_processes(const ModuleControl &control, const SwitchMessage &common, FrameWriter *writer) {
        const bool disk = control.disk_read || control.disk_write;
        if (disk != with_disk_ &&
            procps_pids_reset(pids_, kPidItems, disk ? kPidItemsWithDisk : kPidItemsWithoutDisk) >= 0) {
            with_disk_ = disk;
        }
        const pids_fetch *fetch = procps_pids_reap(pids_, PIDS_FETCH_TASKS_ONLY);
        const int total = fetch != nullptr ? fetch->counts->total : 0;
        std::unordered_map<int, Seen> seen;
        std::array<std::vector<SwitchMessage>, kCoreCount> messages;
        for (int i = 0; i < total; ++i) {
            const pids_result *process = fetch->stacks[i]->head;
            const int pid = process[kPid].result.s_int;
            const char *name = process[kName].result.str;
            if (name == nullptr || name[0] == '\0')
                name = "?";  // a process can take its name away; readers refuse none
            SwitchMessage message = common;
            message.element1 = static_cast<uint64_t>(std::max(process[kParent].result.s_int, 0));
            message.pid = static_cast<uint64_t>(pid);
            message.name = name;
            message.cpu_a = process[kUserTicks].result.ull_int * kSetHertz / hertz_;
            message.cpu_b = process[kSystemTicks].result.ull_int * kSetHertz / hertz_;
            message.rss = process[kRss].result.ul_int;
            message.swap = process[kSwap].result.ul_int;
            const Seen now{process[kBegan].result.ull_int, message.cpu_a + message.cpu_b, message.rss, message.swap};
            const auto before = seen_.find(pid);
            const bool ran = before == seen_.end() || !(before->second == now);
            seen.emplace(pid, now);
            if ((!ran && !every_process_) || !reports(control, pid, name)) continue;
            // Readers keep account of a process only if neither memory figure is 0; most have nothing swapped out.
            if (message.rss > 0) message.swap = std::max<uint64_t>(message.swap, 1);
            if (with_disk_ && control.disk_read) message.element4 = process[kDiskRead].result.ul_int / 1024;
            if (with_disk_ && control.disk_write) message.element5 = process[kDiskWritten].result.ul_int / 1024;
            messages[core_of(process[kProcessor].result.s_int)].push_back(message);
        }
        seen_.swap(seen);
        bool any = false;
        for (size_t core = 0; core < kCoreCount; ++core) {
            any = any || !messages[core].empty();
            write_frames(core, messages[core], writer);
        }
        if (!any) {
            SwitchMessage idle = common;
            idle.name = kIdleName;
            write_frames(0, {idle}, writer);
        }
        return static_cast<size_t>(total);
    }

    static void write_frames(size_t core, const std::vector<SwitchMessage> &messages, FrameWriter *writer) {
        size_t frame_start = 0;
        for (const SwitchMessage &message : messages) {
            if (&message == messages.data() || writer->size() - frame_start > kFrameBytes) {
                frame_start = writer->size();
                writer->begin_frame(kSwitchFrame, static_cast<uint8_t>(core));
            }
            writer->add(message);
        }
    }

    void write_memory(const SwitchMessage &common, size_t processes, FrameWriter *writer) {
        const meminfo_stack *stack =
            procps_meminfo_select(memory_, kMemoryItems, static_cast<int>(std::size(kMemoryItems)));
        if (stack == nullptr) return;
        const auto kib = [&](int item) { return uint64_t{stack->head[item].result.ul_int}; };
        double load = 0;
        if (procps_loadavg(&load, nullptr, nullptr) < 0 || !(load >= 0 && load < 1e6)) load = 0;
        MeminfoMessage message;
        message.time_ns = common.time_ns;
        message.element1 = processes;
        message.element2 = common.element11;
        message.name = "meminfo";
        message.decimal[0] = tenths(thousandths(kib(kTotal) - std::min(kib(kAvailable), kib(kTotal)), kib(kTotal)));
        message.decimal[1] = tenths(thousandths(kib(kSwapUsed), kib(kSwapTotal)));
        message.decimal[2] = tenths(static_cast<uint64_t>(std::llround(load * 10)));
        message.element10 = kib(kTotal);
        message.element11 = kib(kSwapTotal);
        message.element12 = kib(kDirty);
        message.figure13 = kib(kFree);
        message.element14 = kib(kBuffers);
        message.element15 = kib(kShared);
        message.figure16 = kib(kCached);
        message.figure17 = kib(kAvailable);
        writer->begin_frame(kMeminfoFrame, 0);
        writer->add(message);
    }

    size_t core_of(int cpu) const {
        if (cpu < 0 || cpus_.empty()) return 0;
        return std::min(static_cast<size_t>(cpu) * kCoreCount / cpus_.size(), size_t{kCoreCount - 1});
    }

    pids_info *pids_ = nullptr;
    stat_info *stat_ = nullptr;
    meminfo_info *memory_ = nullptr;
    const uint64_t hertz_ = static_cast<uint64_t>(std::max(procps_hertz_get(), 1L));
    const bool every_process_;
    bool with_disk_ = false;
    std::vector<CpuTicks> cpus_;
    std::array<CoreTimes, kCoreCount> cores_{};  // of the last sample
    Rate switches_;
    std::unordered_map<int, Seen> seen_;  // processes of the last sample
};

/* ------------------------------ The source ------------------------------ */

class HostSource : public TraceSource {
  public:
    HostSource(std::unique_ptr<Sampler> sampler, const SourceOptions &options)
        : sampler_(std::move(sampler)),
          block_size_(options.block_size > 0 ? options.block_size : kBlockMax),
          period_(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
              std::chrono::duration<double>(1 / (options.rate > 0 ? options.rate : kDefaultRate)))) {
        control_.tracing = true;
    }

    ~HostSource() override {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

    size_t next_block(uint8_t *out, size_t capacity) override try {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!control_.tracing) return 0;
        if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
        sampled_changed_.wait(lock, [this] { return sampled_; });
        return take(out, std::min<size_t>(capacity, block_size_));
    } catch (const std::exception &) {
        return 0;  // no memory, no thread: tried again with the next read
    }

    void apply(const ModuleControl &control) override try {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            if (!control.tracing) pending_.clear();
            if (control.tracing && !control_.tracing) sampled_ = false;
            control_.tracing = control.tracing;
            control_ = control;
        }
        wake_.notify_all();
    } catch (const std::exception &) {
        // Out of memory: tracing is switched, the rest stays as it was.
    }

  private:
    void run() {
        pthread_setname_np(pthread_self(), "vestra-sampler");
        std::unique_lock<std::mutex> lock(mutex_);
        auto next = std::chrono::steady_clock::now();
        while (!stop_) {
            const auto now = std::chrono::steady_clock::now();
            if (!control_.tracing) {
                wake_.wait(lock);
            } else if (sampled_ && now < next) {
                wake_.wait_until(lock, next);
            } else {
                sample(&lock);
                sampled_ = true;
                sampled_changed_.notify_all();
                // A sample that came late does not make the next ones come early.
                next = std::max(next + period_, now);
            }
        }
    }

    // Reads the machine without the lock: it takes milliseconds.
    void sample(std::unique_lock<std::mutex> *lock) try {
        const ModuleControl control = control_;
        lock->unlock();
        std::vector<uint8_t> frames;
        sampler_->sample(control, &frames);
        lock->lock();
        if (!control_.tracing) return;
        pending_.insert(pending_.end(), frames.begin(), frames.end());
        size_t dropped = 0;
        while (pending_.size() - dropped > kPendingLimit) dropped += record_size(dropped);
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(dropped));
    } catch (const std::exception &) {
        if (!lock->owns_lock()) lock->lock();  // out of memory: this sample is lost
    }

    size_t record_size(size_t offset) const { return kLengthField + get_frame_len(pending_.data() + offset); }

    // Moves whole frame records into `out`, oldest first.
    size_t take(uint8_t *out, size_t limit) {
        if (limit < kEmptyRecord) return 0;
        size_t used = 0;     // of what waits
        size_t written = 0;  // into the block
        while (used < pending_.size()) {
            const size_t size = record_size(used);
            if (size > limit - kEmptyRecord - written) {
                if (written > 0) break;
                used += size;  // fits into no block of that size
                continue;
            }
            std::memcpy(out + written, pending_.data() + used, size);
            used += size;
            written += size;
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
        if (written == 0) return 0;
        FrameWriter mark(out + written, kEmptyRecord);
        mark.end_block();
        return written + mark.size();
    }

    std::unique_ptr<Sampler> sampler_;  // the thread's
    const size_t block_size_;
    const std::chrono::steady_clock::duration period_;

    std::mutex mutex_;              // guards what follows; never held while the thread reads the machine
    std::condition_variable wake_;  // the thread: something it looks at has changed
    std::condition_variable sampled_changed_;
    ModuleControl control_;
    bool sampled_ = false;          // since tracing was switched on
    std::vector<uint8_t> pending_;  // whole frame records that wait for a reader
    bool stop_ = false;

    std::thread thread_;  // the caller's
};

}  // namespace

uint64_t Rate::update(uint64_t now_ns, unsigned long count) {
    constexpr uint64_t kSecond = 1'000'000'000;
    constexpr uint64_t kLeastSpan = kSecond / 100;
    if (!readings_.empty() && static_cast<long>(count - readings_.back().count) < 0) readings_.clear();
    while (readings_.size() > 1 && now_ns - readings_[1].ns >= kSecond) readings_.pop_front();
    const uint64_t passed = readings_.empty() ? 0 : now_ns - readings_[0].ns;
    if (passed >= kLeastSpan) {
        const auto growth = static_cast<double>(count - readings_[0].count);
        rate_ = static_cast<uint64_t>(std::llround(growth * 1e9 / static_cast<double>(passed)));
    }
    readings_.push_back({now_ns, count});
    return rate_;
}

std::array<CoreTimes, kCoreCount> fold_cores(const std::vector<CpuTicks> &cpus, uint64_t hertz) {
    std::array<CoreTimes, kCoreCount> cores{};
    const size_t count = cpus.size();
    // Both CPUs and cores lie on a line of 4 N units; a CPU is 4 units long, a core N.
    for (size_t core = 0; core < kCoreCount; ++core) {
        CpuTicks sum;
        for (size_t cpu = core * count / kCoreCount; cpu < count && cpu * kCoreCount < (core + 1) * count; ++cpu) {
            const size_t begin = std::max(cpu * kCoreCount, core * count);
            const size_t end = std::min((cpu + 1) * kCoreCount, (core + 1) * count);
            sum.user += cpus[cpu].user * (end - begin);
            sum.system += cpus[cpu].system * (end - begin);
            sum.idle += cpus[cpu].idle * (end - begin);
            sum.iowait += cpus[cpu].iowait * (end - begin);
        }
        const uint64_t divisor = hertz * count;
        if (divisor == 0) continue;
        cores[core] = {sum.user * kSetHertz / divisor, sum.system * kSetHertz / divisor, sum.idle * kSetHertz / divisor,
                       0, sum.iowait * kSetHertz / divisor};
    }
    return cores;
}

std::unique_ptr<TraceSource> make_host_source(const SourceOptions &options, std::string *error) {
    auto sampler = std::make_unique<Sampler>(options.every_process);
    if (!sampler->open(error)) return nullptr;
    return std::make_unique<HostSource>(std::move(sampler), options);
}

}  // namespace vestra_set
