// vitals.h -- the seventeen vitals of every second, derived as the daemon derives them for its ring of 180 seconds, but
// over a whole dump.
//
// A second's counters are those of its latest sample. A run is a sequence of seconds without a gap that all have a switch
// sample. Percentages compare a second with the one before in its run, so the first second of a run has none. The second
// one counts as a whole second, however far apart the samples are.
//
// Differs from the ring where the ring is provisional or forgets:
//   - The ring computes the percentages of its newest second from the first sample of that second, and never again if it
//     is the last one before a gap.
//   - After a gap the ring compares with what an earlier lap left in its slots.
//   - The ring's two oldest seconds count as the beginning of a run.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "tools/dump/messages.h"
#include "tools/vitals.h"

namespace vestra_dump {

constexpr int kVitalCount = VESTRA_API_VITALS;

struct SecondVitals {
    int64_t second;                         // of stream time
    int64_t time_ns;                        // of the latest sample in it
    bool has_switch;                        // vitals 0, 1 and 5 to 8 are known
    bool has_memory;                        // vitals 11 to 16
    bool has_percent;                       // vitals 2 to 4, 9 and 10
    std::array<double, kVitalCount> vital;  // by packet type; 0 if not known

    bool knows(size_t type) const;
};

using VitalName = vestra_tools::Vital;
inline constexpr const std::array<VitalName, kVitalCount> &kVitalNames = vestra_tools::kVitals;  // by packet type

class Vitals {
  public:
    // `sink` gets every second once, in the order of time.
    explicit Vitals(std::function<void(const SecondVitals &)> sink) : sink_(std::move(sink)) {}

    // Samples with a time stamp not below 0. A sample whose second is more than kLateMax before the newest is left out,
    // because that second may have been handed on.
    void take(const SwitchSample &sample);
    void take(const MemorySample &sample);

    // Hands on all seconds.
    void finish();

    static constexpr int64_t kLateMax = 180;  // seconds, as in the ring

  private:
    struct Sums {
        int64_t user, system, iowait;  // ticks
        int32_t temperature;
    };
    struct OpenSecond {
        SecondVitals figures = {};
        int64_t switch_ns = 0;
        Sums sums = {};
        int64_t place = 0;           // in its run; the first is 0
        double iowait_accepted = 0;  // percent, the last that was accepted in the run
    };

    OpenSecond *touch(int64_t time_ns);
    void hand_on_oldest();
    static void derive(OpenSecond *second, const OpenSecond &before);

    std::function<void(const SecondVitals &)> sink_;
    std::map<int64_t, OpenSecond> open_;   // by second
    OpenSecond *current_ = nullptr;        // the one touched last
    std::optional<OpenSecond> handed_on_;  // the newest of those
};

}  // namespace vestra_dump
