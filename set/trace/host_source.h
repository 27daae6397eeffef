// Samples the machine that the simulated set runs on: real processes, CPU times, memory and temperature, as a set's
// kernel module would report them. What goes into which element is in docs/trace-format.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "set/trace/source.h"
#include "trace/frame_writer.h"

namespace vestra_set {

// Null with the reason in *error when the machine's process file system cannot be read. The source samples what /proc
// shows. With the first block it starts a thread that samples at the given rate, whether anyone reads or not; of what
// nobody reads it keeps the newest megabyte.
std::unique_ptr<TraceSource> make_host_source(const SourceOptions &options, std::string *error);

// Turns readings of a counter into a rate over the last second.
class Rate {
  public:
    // Takes in the counter's value at the time `now_ns`. Returns its growth per second since the newest reading that is
    // at least a second old, or since the first one while all are younger; 0 where that is less than 10 ms ago. Where
    // the counter went back, the old rate stays and counting begins again. A 32-bit counter may wrap.
    uint64_t update(uint64_t now_ns, unsigned long count);

  private:
    struct Reading {
        uint64_t ns;
        unsigned long count;
    };
    std::deque<Reading> readings_;
    uint64_t rate_ = 0;
};

// One machine CPU's counters since it was started.
struct CpuTicks {
    uint64_t user = 0;
    uint64_t system = 0;
    uint64_t idle = 0;
    uint64_t iowait = 0;
};

// A machine's CPUs as the four cores of a set, `hertz` (not 0) ticks a second as 250. CPU i of N stands for the stretch
// from i * 4 / N to (i + 1) * 4 / N of the cores: with two CPUs each becomes two cores, with eight two become one. So a
// core never counts more than 250 ticks a second, and the four together show 100 % when the machine is busy on all its
// CPUs, however many it has. Temperatures stay 0. No CPU: all 0.
std::array<CoreTimes, kCoreCount> fold_cores(const std::vector<CpuTicks> &cpus, uint64_t hertz);

}  // namespace vestra_set
