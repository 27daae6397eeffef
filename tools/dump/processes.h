// processes.h -- the processes of a dump: CPU usage after each sample, totals, and those that use most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dump/messages.h"
#include "trace/percentages.h"

namespace vestra_dump {

// Percent of all cores over the process's last interval of more than a second.
struct Usage {
    bool known;  // false: there has been no such interval yet
    double total, user, system;
};

// A counter of clock ticks of up to four cores. A reading that differs from the last one by more ticks than the time
// between them has is held until the next: if that agrees with it, the counter has begun anew, else it was damaged.
class TickCounter {
  public:
    enum Verdict : uint8_t {
        kGood,
        kHeld,   // not believed now
        kBegun,  // agrees with the reading that was held: the counter goes on from there
    };

    // `wrong`: set to the offset of a reading that was held and is damaged, else left alone.
    Verdict take(int64_t ticks, int64_t time_ns, uint64_t offset, std::optional<uint64_t> *wrong);

    // The offset of a reading that is still held at the end, if it was ahead.
    std::optional<uint64_t> left_over() const;

    int64_t ticks() const { return last_.ticks; }

    // The most that a counter is believed to change in that time.
    static double most(double seconds);

  private:
    struct Reading {
        int64_t ticks, time_ns;
        uint64_t offset;
    };
    static bool agrees(const Reading &before, const Reading &now);

    Reading last_ = {};
    std::optional<Reading> held_;
    bool known_ = false;
};

// One process over a dump. A process id with another name is another process.
struct Process {
    int32_t pid, parent;
    std::string name;
    int64_t first_ns, last_ns;  // of its samples in the range
    uint64_t samples;
    double cpu_ticks;                    // used between them
    int64_t used_ticks;                  // of those, since the sample before
    int64_t used_since_ns;               // time of that sample
    std::optional<double> peak_percent;  // of Usage::total; nothing if the process was too short-lived to have one
    uint64_t peak_rss, peak_swap;        // KiB
    uint64_t first_rss, last_rss;        // KiB
    Usage usage;                         // after the sample that came last
    uint64_t number;                     // of the process, in the order of appearance

    double cpu_seconds() const { return cpu_ticks / trace::kTicksPerSecond; }
};

// Percentages follow the rule of the daemon's history: an interval begins with a sample, and ends with the first one more
// than a second later whose counters differ. The daemon keeps a history only of processes with memory of their own. Here
// processes without it (kernel threads) have a history, too; it restarts when such a process becomes one that the daemon
// keeps.
//
// At most kMax processes; when there are more, those with the smallest figures are forgotten.
class Processes {
  public:
    // Takes a sample whose process id is not 0 and returns its process after it, valid until the next call. `counts`:
    // whether the sample counts for totals. `wrong`: as for TickCounter.
    const Process &take(const SwitchSample &sample, bool counts, uint64_t offset, std::optional<uint64_t> *wrong);

    // The first `count` by CPU time, by peak resident memory.
    std::vector<Process> top_by_cpu(size_t count) const;
    std::vector<Process> top_by_memory(size_t count) const;

    // Offsets of counters that were still held at the end.
    std::vector<uint64_t> left_over() const;

    uint64_t seen() const { return seen_; }  // that have a sample which counts

    // What the usage of a process id after its next samples depends on. Restored, it makes the same percentages, but
    // totals begin anew.
    struct State {
        int32_t pid;
        bool named;
        Usage usage;
        int64_t time_ns, user, system;
        TickCounter counter;
    };
    std::vector<State> save() const;
    void restore(const std::vector<State> &states);

    uint64_t times_forgotten() const { return times_forgotten_; }  // how often it was full

    static constexpr size_t kMax = 32768;  // as in the daemon's table

  private:
    struct Entry {
        Process process;
        TickCounter counter;
        int64_t time_ns, user, system;  // at the beginning of the interval
        bool named;                     // the daemon would know it
    };
    using Before = bool (*)(const Process &, const Process &);
    static void update_usage(Entry *entry, const SwitchSample &sample);
    std::vector<const Process *> top(size_t count, Before before) const;
    void make_room();

    std::unordered_map<int32_t, Entry> current_;  // by process id
    std::vector<Process> past_;                   // whose id has got another name since
    uint64_t seen_ = 0, numbers_ = 0, times_forgotten_ = 0;
};

}  // namespace vestra_dump
