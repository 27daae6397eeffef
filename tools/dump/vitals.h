// vitals.h -- the seventeen vitals of every second, derived as the daemon derives them for its ring of 180 seconds, but
// over a whole dump.
//
// A second's counters are those of its latest sample. A run is a row of seconds without a gap that all hold a switch
// sample; percentages are differences between neighbours in it, so its first second has none, and the second one counts
// as a whole second however far apart the samples are.
//
// Differs from the ring where the ring is provisional or forgets: the percentages of its newest second, and for good
// those of the last one in front of a gap, are worked out from the first sample of the second; behind a gap it takes
// what the lap before left in its slots for neighbours; and its two oldest seconds count as the beginning of a run.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "platform/vestra_api.h"
#include "tools/dump/messages.h"

namespace vestra_dump {

constexpr int kVitalCount = kVestraVitals;

struct Second {
    int64_t second;                         // of stream time
    int64_t time_ns;                        // of the latest sample in it
    bool has_switch;                        // vitals 0, 1 and 5 to 8 are known
    bool has_memory;                        // vitals 11 to 16
    bool has_percent;                       // vitals 2 to 4, 9 and 10
    std::array<double, kVitalCount> vital;  // by packet type; 0 where not known

    bool knows(size_t type) const;
};

// Names of the vitals by packet type: columns of tables, keys of JSON.
extern const std::array<const char *, kVitalCount> kVitalNames;

class Vitals {
  public:
    // `sink` gets every second once, in the order of time; a restart begins anew.
    explicit Vitals(std::function<void(const Second &)> sink) : sink_(std::move(sink)) {}

    // Samples with a time stamp not below 0. One that comes more than kLateMost after its second's time is left out:
    // its second may have been handed on.
    void take(const SwitchSample &sample);
    void take(const MemorySample &sample);

    // Hands on what is still held. What comes then begins anew, at any time.
    void restart();

    static constexpr int64_t kLateMost = 180;  // seconds; what the ring takes

  private:
    struct Sums {
        int64_t user, system, iowait;  // ticks
        int32_t temperature;
    };
    struct Held {
        Second figures = {};
        int64_t switch_ns = 0;
        Sums sums = {};
        int64_t place = 0;           // in its run, the first is 0
        double iowait_accepted = 0;  // percent, up to this place of the run
    };

    Held *touch(int64_t time_ns);
    void hand_on_oldest();
    static void derive(Held *held, const Held &before);

    std::function<void(const Second &)> sink_;
    std::map<int64_t, Held> held_;   // by second
    Held *current_ = nullptr;        // the one touched last
    std::optional<Held> handed_on_;  // the newest of those
};

}  // namespace vestra_dump
