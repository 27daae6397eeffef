// processes.h -- CPU usage of processes, and the processes that use most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/dump/messages.h"

namespace vestra_dump {

// Percent of all cores over the process's last interval of more than a second.
struct Usage {
    bool known;  // false: there has been no such interval yet
    double total, user, system;
};

// Percentages of processes by the rule of the daemon's history: an interval begins with a sample, and ends with the
// first one more than a second later whose counters differ. The daemon keeps a history only of processes with memory of
// their own. Here processes without it (kernel threads) have a history, too; it restarts when such a process becomes one
// that the daemon keeps.
class ProcessUsage {
  public:
    // Takes a sample and returns the usage of its process after it.
    Usage take(const SwitchSample &sample);

    void clear() { processes_.clear(); }

  private:
    struct Process {
        int64_t time_ns, user, system;
        Usage usage;
        bool named;  // the daemon would know it
    };
    void make_room();

    std::unordered_map<int32_t, Process> processes_;
};

// Limit of both classes, and of the daemon's table.
constexpr size_t kProcessesMax = 32768;

// One process over a dump. A process id with another name is another process.
struct ProcessTotal {
    int32_t pid, parent;
    std::string name;
    int64_t first_ns, last_ns;  // of its samples
    uint64_t samples;
    double cpu_ticks;     // used between them
    double peak_percent;  // of Usage::total
    uint64_t peak_rss, peak_swap;

    int64_t counters;  // ticks, at the last sample
};

// Totals over a dump. If there are more than kProcessesMax processes, those with the smallest figures are forgotten.
class ProcessTotals {
  public:
    void take(const SwitchSample &sample, const Usage &usage);

    // The first `count` by CPU time, by peak resident memory.
    std::vector<ProcessTotal> top_by_cpu(size_t count) const;
    std::vector<ProcessTotal> top_by_memory(size_t count) const;

    size_t seen() const { return seen_; }

  private:
    using Before = bool (*)(const ProcessTotal &, const ProcessTotal &);
    std::vector<const ProcessTotal *> top(size_t count, Before before) const;
    void make_room();

    std::unordered_map<int32_t, ProcessTotal> current_;  // by process id
    std::vector<ProcessTotal> past_;                     // whose id has got another name since
    size_t seen_ = 0;
};

}  // namespace vestra_dump
