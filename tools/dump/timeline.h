// timeline.h -- which of a recording's time stamps can be believed.
//
// The samples of one core are recorded in the order of their time, or nearly (kLate). So the sequence of stamps of each
// core is divided into runs that rise without a gap (kStep), and the longest chain of runs that rise together, by number
// of samples, is the recording. Everything else is astray: damaged stamps, and pieces of other recordings.
//
// A part at the beginning or the end that a gap separates from the rest may be another recording that happens to be
// older or newer. A recording can have gaps, too, while tracing is off or nothing is read: then whole blocks end and begin
// there, and no byte is damaged.
//
// Feed it all samples, block ends and damage in the order of the file, call finish(), and then ask believes() for the same
// samples in the same order. Memory is bounded: kRunsMax runs for each core. One thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "trace/percentages.h"
#include "trace/trace_format.h"

namespace vestra_dump {

struct TimeSpan {
    int64_t first_ns, newest_ns;
};

class Timeline {
  public:
    // A sample of a core, 0 to 3. `begin`, `end`: of its frame in the file; they never decrease.
    void add(int core, int64_t time_ns, uint64_t begin, uint64_t end);
    // Between samples: an empty record, damaged bytes.
    void add_block_end() { ++here_.blocks; }
    void add_damage() { ++here_.damage; }

    // Decides. From here on add() must not be called.
    void finish();

    // Whether the next sample of that core is believed. Begins with the first one after finish() and after rewind().
    bool believes(int core);
    void rewind();

    // Which sample is next, by core: so that a reader can go back to a place. After finish().
    struct Position {
        struct {
            size_t run;
            uint64_t ordinal;
        } cores[trace::kCoreCount];
    };
    Position position() const;
    void go_to(const Position &position);

    // Of the samples that are believed; nothing if there are none.
    const std::optional<TimeSpan> &span() const { return span_; }
    uint64_t astray() const { return astray_; }  // samples
    // End of the last frame with a sample astray; nothing if there is none.
    std::optional<uint64_t> last_astray() const { return last_astray_; }

    static constexpr int64_t kStep = trace::kNsPerSecond / 2;
    static constexpr int64_t kLate = trace::kNsPerSecond;
    // Of a core. If there are more, larger gaps do not end a run; if that is not enough, short runs count as astray.
    static constexpr size_t kRunsMax = 1 << 14;

  private:
    // Of a frame in the file.
    struct Place {
        uint64_t offset;
        uint32_t blocks, damage;  // block ends and damaged spans before it; they may wrap
    };
    // Consecutive samples of a core, or of all cores.
    struct Run {
        uint64_t ordinal;         // of its first sample, among those of the core
        uint64_t samples;         // 0: there is no run
        int64_t low_ns, high_ns;  // of its samples
        Place begin, end;         // of its first frame, and after its last
        bool sound;               // false: it cannot be part of the recording
    };
    using Runs = std::vector<Run>;
    struct Stream {
        Runs runs;      // that are complete; after finish() those that are not believed
        Run open = {};  // the run that grows
        int64_t step = kStep;
        uint64_t samples = 0;
        size_t next_run = 0;  // of believes()
        uint64_t next_ordinal = 0;
    };

    static void begin_run(Stream *stream, const Run &run);
    static void coarsen(Stream *stream);
    static std::vector<size_t> longest_chain(const Runs &runs);
    static void trim(Runs *parts);
    Runs parts() const;

    Place here_ = {};
    std::array<Stream, trace::kCoreCount> streams_;
    std::optional<TimeSpan> span_;
    uint64_t astray_ = 0;
    std::optional<uint64_t> last_astray_;
};

}  // namespace vestra_dump
