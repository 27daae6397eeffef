// trace_events.h -- a dump as trace events in JSON, the format that trace viewers import.
//
// Every vital is a counter of a track of its own, every process a track with counters for CPU and memory, every damaged
// span an instant. Times are the stream's, in microseconds. A counter holds its figure until the next one in the
// viewer: the format cannot show gaps.
#pragma once

#include <string_view>
#include <unordered_map>

#include "tools/dump/output.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// Writes while the dump is read, and the end of the document at its end. Memory is bounded: a process that was
// forgotten among too many gets another track when it comes again.
class TraceEvents : public Summariser {
  public:
    TraceEvents(std::string path, const DumpTime &time, size_t top, Output &out);

    void on_second(const Second &second) override;
    void on_process(const SwitchSample &sample, const Usage &usage) override;
    void on_time(int64_t time_ns) override;
    void on_damage(const DamagedSpan &span) override;
    void on_end(const DumpTotals &totals) override;

  private:
    struct Track {
        int64_t number;  // what the viewer knows it by; a process's id where it can be
        std::string name;
        double percent;     // what was written last; below 0: nothing yet
        int64_t rss, swap;  // KiB; 0 is not written to begin with: kernel threads would all have empty tracks
    };

    Track &track_of(const SwitchSample &sample);
    void begin_event(const char *phase, std::string_view name, int64_t track);
    void add_time(int64_t time_ns);
    void name_track(int64_t track, const char *what, const std::string &name);
    template <class Number>
    void count(int64_t track, int64_t time_ns, std::string_view name, std::string_view unit, Number figure);
    void mark(const DamagedSpan &span, int64_t time_ns);
    std::string &end_event();

    TimeRange range_;
    Output &out_;
    std::unordered_map<int32_t, Track> tracks_;  // by process id
    int64_t vitals_;                             // track of the vitals
    int64_t next_number_;                        // for tracks that cannot have the process's id
    bool numbers_only_ = false;                  // processes were forgotten: an id may be taken
    int64_t last_ns_ = -1;                       // time of the sample before; -1: none yet
};

}  // namespace vestra_dump
