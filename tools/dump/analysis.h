// analysis.h -- a dump as vitals by second and as samples of processes with their percentages.
//
// A visitor for read_dump that is itself to be derived from: on_second and on_process get what lies in the range.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "tools/dump/dump_reader.h"
#include "tools/dump/processes.h"
#include "tools/dump/vitals.h"

namespace vestra_dump {

// Stream time, ns; both ends belong to it.
struct TimeRange {
    int64_t from = INT64_MIN;
    int64_t to = INT64_MAX;

    bool holds(int64_t time_ns) const { return time_ns >= from && time_ns <= to; }
};

// Time stamps come from outside, and one that was damaged must not take the dump's clock along. One that is far from
// those before it is held until the next, and believed only when that is not near the others again.
//
// Whoever overrides on_switch, on_memory or on_end here calls the original.
class Analysis : public DumpVisitor {
  public:
    explicit Analysis(const TimeRange &range = {});

    // A second is handed on about three minutes of stream time later, or at the end. Ranges apply to whole seconds.
    virtual void on_second(const Second & /*second*/) {}

    // A sample of a process; pid is not 0.
    virtual void on_process(const SwitchSample & /*sample*/, const Usage & /*usage*/) {}

    // Every time stamp that is believed, in the range or not, in the order of the stream.
    virtual void on_time(int64_t /*time_ns*/) {}

    void on_switch(const SwitchSample &sample) override;
    void on_memory(const MemorySample &sample) override;
    void on_end(const DumpTotals &totals) override;

    // Time stamps that were believed, of the whole dump: the oldest and the newest. Nothing before the first.
    std::optional<int64_t> first_ns() const { return first_ns_; }
    std::optional<int64_t> newest_ns() const { return newest_ns_; }

    // Samples that were left out because of their time stamps.
    uint64_t astray() const { return astray_; }

  private:
    struct HeldSwitch {
        SwitchSample sample;
        std::string name;
    };
    using Held = std::variant<std::monostate, HeldSwitch, MemorySample>;

    template <class Sample>
    void judge(const Sample &sample);
    void take(const SwitchSample &sample);
    void take(const MemorySample &sample);
    void take_held();
    void pass_time(int64_t time_ns);

    TimeRange range_;
    Vitals vitals_;
    ProcessUsage usage_;
    std::optional<int64_t> first_ns_, newest_ns_;
    int64_t last_ns_ = -1;  // of the sample believed last; -1: none yet
    int64_t head_ns_ = -1;  // the newest since the clock went back last
    Held held_;
    uint64_t astray_ = 0;
};

}  // namespace vestra_dump
