// history.h -- the last minutes before a moment: vitals by second, and memory and CPU time of processes over time. What
// explain.h looks at.
//
// Memory is bounded, whatever a dump contains: at most 20 MiB.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dump/analysis.h"

namespace vestra_dump {

class History : public DumpSink {
  public:
    static constexpr int64_t kSeconds = 600;

    // Of the ten minutes up to that stream time.
    explicit History(int64_t at_ns);

    // Older and newer ones are ignored. They come about in the order of time: add_time for every sample, before add.
    void add_time(int64_t time_ns);
    // `used_ticks`: clock ticks that the process used since its sample before.
    void add(const SwitchSample &sample, int64_t used_ticks);
    void add(const SecondVitals &second);

    void on_frame(const Frame &frame, const FrameMessages &messages) override;
    void on_process(const SwitchSample &sample, const vestra_dump::Process &process) override {
        add(sample, process.used_ticks);
    }
    void on_second(const SecondVitals &second) override { add(second); }

    struct Point {
        uint32_t ms;     // since begin_ns()
        uint32_t rss;    // KiB
        uint32_t ticks;  // since the first sample
    };
    struct Process {
        int32_t pid, parent;
        std::string name;
        int64_t first_ns, last_ns;  // of its samples
        int64_t counters;           // ticks, at the last
        int64_t ticks;              // used between them
        int64_t longest_ns;         // the longest time between two, recording gaps left out
        uint64_t samples;
        std::vector<Point> points;  // the newest of every width() seconds
    };
    struct Gap {
        int64_t from_ns, to_ns;  // samples, between which there is none
    };
    struct Birth {
        int64_t second;
        int32_t parent;
    };

    int64_t at_ns() const { return at_ns_; }
    int64_t begin_ns() const { return begin_ns_; }
    int64_t first_ns() const { return first_ns_; }  // the oldest and the newest sample; -1: none
    int64_t newest_ns() const { return newest_ns_; }
    const std::map<int64_t, SecondVitals> &seconds() const { return seconds_; }
    const std::unordered_map<int32_t, Process> &processes() const { return processes_; }  // by process id
    const std::vector<Process> &past() const { return past_; }  // whose id has been used again
    const std::vector<Gap> &gaps() const { return gaps_; }      // of two seconds and more
    const std::vector<Birth> &births() const { return births_; }

  private:
    void add_point(Process *process, const SwitchSample &sample);
    void widen();
    void make_room();

    int64_t at_ns_, begin_ns_;
    int64_t first_ns_ = -1, newest_ns_ = -1;
    std::map<int64_t, SecondVitals> seconds_;
    std::unordered_map<int32_t, Process> processes_;
    std::vector<Process> past_;
    std::vector<Gap> gaps_;
    std::vector<Birth> births_;
    size_t points_ = 0;
    uint32_t width_ms_ = 1000;
};

}  // namespace vestra_dump
