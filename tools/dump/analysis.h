// analysis.h -- a dump as vitals by second and as samples of processes with their percentages.
//
//   struct Peak : DumpSink { void on_second(const SecondVitals &second) override { ... } } peak;
//   Timeline timeline = survey(source).timeline;
//   Summary summary = analyse(source, &timeline, range, 10, peak);
//
// What the timeline does not believe is left out and counts as damage.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/dump/dump_reader.h"
#include "tools/dump/processes.h"
#include "tools/dump/timeline.h"
#include "tools/dump/vitals.h"

namespace vestra_dump {

// Stream time in ns, both ends included.
struct TimeRange {
    int64_t from = INT64_MIN;
    int64_t to = INT64_MAX;

    bool holds(int64_t time_ns) const { return time_ns >= from && time_ns <= to; }
    bool is_all() const { return from == INT64_MIN && to == INT64_MAX; }
};

// Where an analysis was: a replay can go on from here.
struct Checkpoint {
    Place place;
    Timeline::Position timeline;
    std::vector<Processes::State> processes;
};

// Gets what is in the range. Arguments are valid until the call returns.
class DumpSink {
  public:
    virtual ~DumpSink() = default;

    // A frame with a message in the range, or one without messages after such a frame. Stamps tell which messages are
    // believed.
    virtual void on_frame(const Frame & /*frame*/, const FrameMessages & /*messages*/) {}

    // A sample of a process; its pid is not 0.
    virtual void on_process(const SwitchSample & /*sample*/, const Process & /*process*/) {}

    // Each second, in the order of time, about three minutes of stream time later or at the end. Ranges apply to whole
    // seconds.
    virtual void on_second(const SecondVitals & /*second*/) {}

    // These do not depend on the range. Damage comes when the time after it is known: with the next sample.
    virtual void on_damage(const DamagedSpan & /*span*/) {}
    virtual void on_empty_record(uint64_t /*offset*/) {}

    // At `offset` a block begins. `forgot`: processes were forgotten in the block before, which a replay does not do.
    virtual void on_block_end(uint64_t /*offset*/, bool /*forgot*/, const std::function<Checkpoint()> & /*make*/) {}
};

// What a dump is, at a glance.
struct Summary {
    DumpTotals totals;                         // damage includes what is intact but not believed
    std::optional<int64_t> first_ns, last_ns;  // of the samples in the range
    std::vector<DamagedSpan> spans;            // the first kSpansKept of them
    std::vector<Process> by_cpu, by_memory;    // in the range
    uint64_t processes = 0;                    // seen in the range
    uint64_t samples_astray = 0;               // not believed because of their time stamps
    uint64_t counters_wrong = 0;               // not believed because of their clock ticks

    static constexpr size_t kSpansKept = 1000;

    double seconds() const;  // between the first and the last sample
    // Average percent of all cores that a process used.
    double average_percent(const Process &process) const;
};

// The first pass: finds out which time stamps to believe.
struct Survey {
    Timeline timeline;
    DumpTotals totals;  // as if all samples were believed

    // Whether the newest sample is that of the recording: there is a trailer, and no damage in the last block.
    bool end_is_whole() const;
};
Survey survey(ByteSource &source);

// The second pass. `top`: number of processes in each list.
Summary analyse(ByteSource &source, Timeline *timeline, const TimeRange &range, size_t top, DumpSink &sink);

// The second pass once more, from a checkpoint of it to the first frame at or after offset `stop`. `sink` gets frames,
// damage, and the same samples of processes with the same usage, but totals of processes begin anew, and its seconds mean
// nothing. Returns the reason if the source could not be read, or "".
std::string replay(ByteSource &source, Timeline *timeline, const Checkpoint &from, uint64_t stop, uint64_t payload,
                   DumpSink &sink);

// Both in one, without a range, for a dump whose samples can all be believed. Nothing if that is not so; then *survey is
// what survey() returns.
std::optional<Summary> analyse_at_once(ByteSource &source, size_t top, DumpSink &sink, Survey *survey);

}  // namespace vestra_dump
