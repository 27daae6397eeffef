// trace_events.h -- a dump as trace events in JSON, the format that trace viewers import.
//
// Every vital is a counter on one track, every process has a track with counters for CPU and memory, every damaged span
// is an instant event. Times are stream time in microseconds. A viewer keeps a counter's figure until the next one: the
// format has no gaps.
#pragma once

#include <string_view>
#include <unordered_map>

#include "tools/dump/output.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

// Writes while the dump is read. Memory is bounded: if there are too many
// processes they are forgotten, and get new tracks when they appear again.
class TraceEvents : public DumpSink {
  public:
    TraceEvents(const TimeRange &range, Output &out);

    void on_second(const SecondVitals &second) override;
    void on_process(const SwitchSample &sample, const Process &process) override;
    void on_damage(const DamagedSpan &span) override;

    // Writes the end of the document.
    void end(const Overview &overview);

  private:
    struct Track {
        int64_t number;  // the viewer's key; the process's id if possible
        std::string name;
        double percent;     // written last; below 0: nothing yet
        int64_t rss, swap;  // KiB; begins with 0, which is not written, or kernel threads would all have empty tracks
    };

    Track &track_of(const SwitchSample &sample);
    void begin_event(const char *phase, std::string_view name, int64_t track);
    void add_time(int64_t time_ns);
    void name_track(int64_t track, const char *what, const std::string &name);
    template <class Number>
    void count(int64_t track, int64_t time_ns, std::string_view name, std::string_view unit, Number figure);
    std::string &end_event();

    TimeRange range_;
    Output &out_;
    std::unordered_map<int32_t, Track> tracks_;  // by process id
    int64_t vitals_;                             // track of the vitals
    int64_t next_number_;                        // for tracks that cannot have the process's id
    bool numbers_only_ = false;                  // processes were forgotten: an id may be in use already
};

}  // namespace vestra_dump
