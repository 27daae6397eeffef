// perfetto_trace.h -- a dump as a native trace of Perfetto: protocol buffers, as perfetto_fields.h names them.
//
// What is where:
//   vitals          a counter track for each, with unit and description, in groups below "Vitals of NAME"
//   processes       the process tree; CPU percentage as a counter of the process; memory as process statistics
//   cores, memory   system statistics once a second: times of each core, free and available memory, page cache
//   damage, gaps    an instant for each damaged span and each finding, a slice for seconds without samples
//   the dump        trace attributes: name, version, damage
//
// Every packet has the machine's id, so the traces of two sets can be merged. Times do not rise from packet to packet, as
// vitals come minutes after the samples that they are made of: importers sort. All packets are of one sequence, and nothing
// is interned, so none depends on another one.
//
// Memory of processes is in batches of a tenth of a second: a packet's time is that of its first sample, and it says when
// the last one was. A counter keeps its figure until the next one: the format has no end of a counter.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/dump/finding.h"
#include "tools/dump/output.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// Who recorded a dump.
struct TraceIdentity {
    std::string name;  // printable; of the machine, or of the dump
    uint32_t machine;  // its id: never 0, at most 28 bits
    uint64_t tracks;   // added to the trace's own numbers of tracks, so that two traces hardly share one
};

// `machine`: the machine's name; empty: what tells this dump from others, which are its name, its size and its times.
TraceIdentity identify(const std::string &machine, const std::string &path, const Survey &survey);

// Writes while the dump is read. Memory is bounded as in TraceEvents (trace_events.h).
class PerfettoTrace : public DumpSink {
  public:
    // `first_ns`: the dump's oldest sample.
    PerfettoTrace(const TraceIdentity &identity, const DumpTime &time, int64_t first_ns, Output &out);

    void on_frame(const Frame &frame, const FrameMessages &messages) override;
    void on_process(const SwitchSample &sample, const Process &process) override;
    void on_second(const SecondVitals &second) override;
    void on_damage(const DamagedSpan &span) override;

    // Writes what is left.
    void end(const Overview &overview, const std::vector<Finding> &findings);

  private:
    struct Track {
        uint64_t uuid;  // of the process; its CPU counter has the next one
        std::string name;
        double percent;      // written last; below 0: nothing yet
        uint64_t rss, swap;  // KiB; as in TraceEvents
        uint64_t batch;      // the last one with figures of it
    };

    template <class Fill>
    void write_packet(int64_t time_ns, Fill fill);
    template <class Fill>
    void write_track(int64_t time_ns, uint64_t uuid, uint64_t parent, std::string_view name, Fill fill);
    void write_counter(int64_t time_ns, uint64_t uuid, double figure);
    template <class Fill>
    void write_event(int64_t time_ns, uint64_t uuid, int32_t type, std::string_view category, std::string_view name,
                     Fill annotate);
    void write_clocks(const DumpTime &time, int64_t first_ns);
    void write_vital_tracks(const std::string &name);
    void write_attributes(const Overview &overview);
    void write_cores();
    Track &track_of(const SwitchSample &sample);
    void start_batch(int64_t time_ns);

    const uint32_t machine_;
    const TimeRange range_;
    Output &out_;
    bool first_ = true;                          // the next packet
    const uint64_t tracks_begin_;                // number of the first track
    uint64_t next_track_;                        // for processes
    std::unordered_map<int32_t, Track> tracks_;  // by process id
    bool forgot_ = false;                        // there were too many processes: a new one may have been there before
    uint64_t batch_ = 1;                         // number of these two:
    std::string tree_, stats_;                   // fields of a process tree and of process statistics, to be written
    int64_t batch_ns_ = 0, batch_end_ns_ = 0;    // the first and the newest sample of it
    int64_t last_second_ = -1;                   // with vitals
    TickCounter core_counter_;                   // all ticks of all cores
    int64_t cores_ns_ = -1;                      // of cores_; -1: written already, or none
    std::array<CoreFigures, trace::kCoreCount> cores_{};
};

}  // namespace vestra_dump
