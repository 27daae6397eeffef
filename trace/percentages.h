// percentages.h -- percentages from counters of clock ticks, the same for the daemon and the tools.
//
// Counters come from outside: their sums, differences and products wrap. Any thread.
#pragma once

#include <cmath>
#include <cstdint>

#include "trace/trace_format.h"

namespace trace {

constexpr int64_t kNsPerSecond = 1000000000;
constexpr double kTicksPerSecond = 250;  // of each core
constexpr double kIowaitGlitch = 80.0;   // percent: a figure of this or more is not used

inline double to_seconds(int64_t ns) {
    return static_cast<double>(ns) / kNsPerSecond;
}

inline int64_t wrapping_sum(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

inline uint64_t distance(int64_t a, int64_t b) {
    return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                 : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

// Ticks of all cores in an interval.
inline double ticks_in(double seconds) {
    return seconds * kTicksPerSecond * kCoreCount;
}

inline double percent_of(int64_t now, int64_t before, double ticks) {
    const uint64_t delta = static_cast<uint64_t>(now) - static_cast<uint64_t>(before);
    return std::fabs(static_cast<double>(static_cast<int64_t>(delta * 100)) / ticks);
}

}  // namespace trace
