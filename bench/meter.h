// Measures a thread's CPU time, for rows whose preparation must not count.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace vestra_bench {

// CPU time of this thread. Other load on the machine does not count.
inline double thread_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Adds up the time of a row's iterations. Reading the clock is a system call and costs as much as a small
// block, so that time is subtracted.
class Meter {
  public:
    template <class Work>
    void time(benchmark::State &state, Work work) {
        const double start = thread_seconds();
        work();
        const double taken = std::max(thread_seconds() - start - clock_cost(), 1e-9);
        state.SetIterationTime(taken);
        seconds_ += taken;
    }
    double seconds() const { return seconds_; }
    void report(benchmark::State &state, int64_t messages, int64_t bytes) const {
        state.SetBytesProcessed(bytes);
        state.counters["ns/message"] = seconds_ * 1e9 / static_cast<double>(messages);
        state.counters["bytes/message"] = static_cast<double>(bytes) / static_cast<double>(messages);
    }

  private:
    static double clock_cost() {
        static const double cost = [] {
            double least = 1;
            for (int i = 0; i < 1000; ++i) {
                const double start = thread_seconds();
                least = std::min(least, thread_seconds() - start);
            }
            return least;
        }();
        return cost;
    }

    double seconds_ = 0;
};

}  // namespace vestra_bench
