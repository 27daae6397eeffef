// dump_index.h -- what is known of a dump after it was read once: a record for each second, places from which its processes
// can be read again, and how each process went on over time.
//
// Memory is bounded, whatever a dump contains: about 16 MiB. Records and places beyond that are in a temporary file.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dump/analysis.h"
#include "tools/dump/history.h"
#include "tools/view/recording.h"
#include "tools/view/spill.h"

namespace vestra_view {

// Fill it with analyse(), then call finish().
class DumpIndex : public vestra_dump::DumpSink {
  public:
    // `newest_ns`: of the dump.
    explicit DumpIndex(int64_t newest_ns);

    struct SecondRecord {
        int64_t second, time_ns;
        std::array<double, kVitalCount> vitals;
        uint64_t begin, end;  // offsets: all frames with a sample of the second are between them
    };
    struct Track {  // a process
        ProcessId id;
        int64_t first_ns, last_ns;
        uint64_t first_rss;
        struct Point {
            uint32_t slot;  // of slot_seconds() each, since the first
            float cpu;      // the greatest in it
            uint32_t rss;   //
        };
        std::vector<Point> points;
    };
    static constexpr size_t kPiece = 256;  // seconds
    struct Extremes {                      // of a vital, upside down where low figures tell
        double sum = 0, count = 0, top = 0;
        std::vector<double> tops;  // of every kPiece seconds; -infinity if none is known
    };

    const Spill<SecondRecord> &seconds() const { return seconds_; }
    int64_t first_second() const { return first_second_; }
    const std::vector<std::array<float, kVitalCount>> &bins() const { return bins_; }  // of bin_seconds() each
    int64_t bin_seconds() const { return bin_seconds_; }
    const Extremes &extremes(size_t vital) const { return extremes_[vital]; }
    const std::vector<Track> &tracks() const { return by_pid_; }  // by pid, then by first_ns
    int64_t slot_seconds() const { return slot_seconds_; }
    const std::vector<Mark> &damage() const { return damage_; }
    const std::vector<Mark> &findings() const { return findings_; }
    std::string problem() const;

    // The last place at or before that offset.
    vestra_dump::Checkpoint checkpoint_before(uint64_t offset) const;

    // `path`, `first_ns`: as for explain().
    void finish(const std::string &path, int64_t first_ns);

    void on_frame(const vestra_dump::Frame &frame, const vestra_dump::FrameMessages &messages) override;
    void on_process(const vestra_dump::SwitchSample &sample, const vestra_dump::Process &process) override;
    void on_second(const vestra_dump::SecondVitals &second) override;
    void on_damage(const vestra_dump::DamagedSpan &span) override;
    void on_block_end(uint64_t offset, bool forgot, const std::function<vestra_dump::Checkpoint()> &make) override;

  private:
    struct Extent {
        uint64_t begin = UINT64_MAX, end = 0;
    };
    struct PlaceRecord {
        vestra_dump::Place place;
        vestra_dump::Timeline::Position timeline;
        uint64_t first_state, states;
    };
    void add_bin(const SecondRecord &record);
    void add_place(const vestra_dump::Checkpoint &checkpoint);
    void widen_slots();
    void forget_short_tracks();

    vestra_dump::History history_;  // for the findings
    Spill<SecondRecord> seconds_;
    Spill<PlaceRecord> places_;
    Spill<vestra_dump::Processes::State> states_;
    uint64_t next_place_ = 0;         // offset
    std::map<int64_t, Extent> open_;  // of seconds that are not in seconds_ yet
    Extent *extent_ = nullptr;        // of second_
    int64_t second_ = -1;
    int64_t first_second_ = 0, bin_seconds_ = 1, slot_seconds_ = 1;
    int64_t newest_ns_ = -1, first_ns_ = -1;
    std::vector<std::array<float, kVitalCount>> bins_;
    std::array<Extremes, kVitalCount> extremes_;
    std::unordered_map<uint64_t, Track> tracks_;  // by number
    std::vector<Track> by_pid_;
    size_t points_ = 0;
    std::vector<Mark> damage_, findings_, gaps_;
};

}  // namespace vestra_view
