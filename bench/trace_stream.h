// The streams used to measure decoding: blocks of 128 KiB by default, eight switch messages a frame, 1500 messages a
// second of stream time.
#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "trace/frame_writer.h"

namespace vestra_bench {

using Block = std::vector<uint8_t>;

constexpr int kMessagesPerFrame = 8;
constexpr uint64_t kMessageInterval = 1'000'000'000 / 1500;
constexpr size_t kMessagesPerTick = 1500 / 250;  // the cores' counters advance once a tick

// How processes come and go.
enum class Processes {
    steady,      // each is sampled again and again
    swapless,    // the same without swap, so nothing is accounted to a process
    short_lived  // each is sampled three times, 4/3 s apart, then replaced by one with the next process id
};

// Deterministic: equal parameters give equal streams.
class Stream {
  public:
    // next() returns `blocks` blocks. 24 of them hold three samples of each of 10,000 short-lived processes.
    explicit Stream(int processes, Processes kind = Processes::steady, size_t blocks = 10,
                    size_t block_size = trace::kBlockMax)
        : kind_(kind), block_size_(block_size), blocks_(blocks) {
        for (int i = 0; i < processes; ++i) {
            Process process;
            process.pid = static_cast<uint64_t>(i) * (kind == Processes::short_lived ? 1 : 3) + 101;
            process.cpu_a = random_() % 50000;
            process.cpu_b = random_() % 20000;
            process.rss = 500 + random_() % 200000;
            process.swap = kind == Processes::swapless ? 0 : 1 + random_() % 5000;
            process.name = "process-" + std::to_string(i);
            processes_.push_back(process);
        }
        for (trace::CoreTimes &core : cores_) core = {90000, 40000, 900000, 55, 800};
    }

    // The next blocks, each full. Time continues from one call to the next, as on a set. `visit(message, first)` is
    // called for each message; `first` is true for the first message of a frame.
    template <class Visit>
    const std::vector<Block> &next(Visit visit) {
        messages_ = bytes_ = 0;
        for (Block &block : blocks_) {
            block.resize(block_size_);
            trace::FrameWriter writer(block.data(), block_size_ - trace::kEmptyRecord);
            bool room = true;
            while (room) {
                room = writer.begin_frame(trace::kSwitchFrame, 0);
                for (int i = 0; room && i < kMessagesPerFrame; ++i) {
                    const trace::SwitchMessage message = next_message();
                    room = writer.add(message);
                    if (!room) continue;
                    visit(message, i == 0);
                    ++messages_;
                }
            }
            block.resize(writer.size());
            block.insert(block.end(), trace::kEmptyRecord, 0);
            bytes_ += block.size();
        }
        return blocks_;
    }
    const std::vector<Block> &next() {
        return next([](const trace::SwitchMessage &, bool) {});
    }
    int64_t messages() const { return messages_; }
    int64_t bytes() const { return static_cast<int64_t>(bytes_); }

  private:
    struct Process {
        uint64_t pid, cpu_a, cpu_b, rss, swap;
        std::string name;
    };

    // The processes in turn; short-lived ones in groups of 2000, each group three times.
    Process &next_process() {
        static constexpr size_t kAlive = 2000, kSamples = 3;
        const size_t turn = turn_++;
        if (kind_ != Processes::short_lived) return processes_[turn % processes_.size()];
        const size_t generation = turn / (kAlive * kSamples);
        return processes_[(generation * kAlive + turn % kAlive) % processes_.size()];
    }

    trace::SwitchMessage next_message() {
        if (turn_ % kMessagesPerTick == 0) {
            for (trace::CoreTimes &core : cores_) {
                const auto spent = random_() % 16;
                ++(spent < 4 ? core.user : spent < 6 ? core.system : spent < 15 ? core.idle : core.iowait);
            }
        }
        Process &process = next_process();
        time_ += kMessageInterval;
        process.cpu_a += random_() % 3;
        process.cpu_b += random_() % 2;
        trace::SwitchMessage message;
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

    Processes kind_;
    size_t block_size_;
    std::mt19937 random_{1};
    std::vector<Process> processes_;
    std::array<trace::CoreTimes, trace::kCoreCount> cores_{};
    size_t turn_ = 0;
    uint64_t time_ = 3'600'000'000'000;  // an hour after start
    std::vector<Block> blocks_;
    int64_t messages_ = 0;
    size_t bytes_ = 0;
};

}  // namespace vestra_bench
