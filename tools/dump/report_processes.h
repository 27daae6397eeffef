// report_processes.h -- the processes of a dump of any length as a bounded number of figures.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <unordered_map>
#include <vector>

#include "tools/dump/analysis.h"
#include "tools/dump/finding.h"

namespace vestra_dump {

// CPU ticks and memory of the processes that an earlier pass over the same dump found. Neighbouring seconds share a
// bucket. Ticks count in the bucket of the sample that reports them; those used during a gap are left out.
// Memory: kKnown times kBucketsMax of VitalSeries times 8 bytes.
class ProcessSeries : public DumpSink {
  public:
    // `summary`: of the earlier pass, with kKnown processes in each list. `width`: seconds in a bucket.
    ProcessSeries(const Summary &summary, const std::vector<Finding> &findings, int64_t width);

    void on_process(const SwitchSample &sample, const Process &process) override;

    // {"known": [[pid, parent, name, first second, last second, CPU seconds], ...], "unlisted": number of others,
    //  "cpu": indices of the kPlotted that matter, "memory": of those that grew most,
    //  "buckets": [[second, ticks of all processes, ticks of "cpu", KiB of "memory", busiest first: index, ticks, KiB, ...]]}
    nlohmann::json to_json() const;

    static constexpr size_t kKnown = 500, kPlotted = 10;

  private:
    struct Cell {
        uint32_t ticks, rss;  // rss: KiB after the last sample plus 1; 0: no sample
    };
    struct Bucket {
        uint64_t ticks = 0;  // of all processes
        std::vector<Cell> cells;
    };

    size_t know(const Process &process);

    const int64_t width_;
    std::vector<Process> known_;
    uint64_t unlisted_;
    std::vector<size_t> cpu_, memory_;
    std::unordered_map<uint64_t, size_t> indices_;  // by Process::number
    std::map<int64_t, Bucket> buckets_;             // by second / width
    int64_t gap_end_ = INT64_MIN;                   // the first bucket after the newest gap
};

}  // namespace vestra_dump
