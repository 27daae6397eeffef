// analysis.h -- a dump as vitals by second and as samples of processes with their percentages.
//
// A visitor for read_dump, to derive from: override on_second and on_process to get what is in the range.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "tools/dump/dump_reader.h"
#include "tools/dump/processes.h"
#include "tools/dump/vitals.h"

namespace vestra_dump {

// Stream time in ns, both ends included.
struct TimeRange {
    int64_t from = INT64_MIN;
    int64_t to = INT64_MAX;

    bool holds(int64_t time_ns) const { return time_ns >= from && time_ns <= to; }
};

// A damaged time stamp must not move the dump's clock. A sample whose time is far from the one before is held back until
// the next sample: if that is near the others again, the held one is a stray and is dropped; if not, time has jumped and
// both count.
//
// Overrides of on_switch, on_memory or on_end must call the original.
class Analysis : public DumpVisitor {
  public:
    explicit Analysis(const TimeRange &range = {});

    // Each second of the range, in the order of time, about three minutes of stream time later or at the end of the
    // dump. Ranges apply to whole seconds.
    virtual void on_second(const SecondVitals & /*second*/) {}

    // A sample of a process in the range; its pid is not 0.
    virtual void on_process(const SwitchSample & /*sample*/, const Usage & /*usage*/) {}

    // The time of every sample that is not a stray, in the range or not, in the order of the stream.
    virtual void on_time(int64_t /*time_ns*/) {}

    void on_switch(const SwitchSample &sample) override;
    void on_memory(const MemorySample &sample) override;
    void on_end(const DumpTotals &totals) override;

    // The oldest and the newest of those times, of the whole dump. Nothing before the first.
    std::optional<int64_t> first_ns() const { return first_ns_; }
    std::optional<int64_t> newest_ns() const { return newest_ns_; }

    uint64_t strays() const { return strays_; }  // samples

  private:
    struct HeldSwitch {
        SwitchSample sample;
        std::string name;
    };

    template <class Sample>
    void take_unless_stray(const Sample &sample);
    void take(const SwitchSample &sample);
    void take(const MemorySample &sample);
    void take_held();
    void pass_time(int64_t time_ns);

    TimeRange range_;
    Vitals vitals_;
    ProcessUsage usage_;
    std::optional<int64_t> first_ns_, newest_ns_;
    int64_t last_ns_ = -1;  // of the sample taken last; -1: none yet
    int64_t head_ns_ = -1;  // the newest since the clock last went back
    std::variant<std::monostate, HeldSwitch, MemorySample> held_;
    uint64_t strays_ = 0;
};

}  // namespace vestra_dump
