// summary.h -- a dump at a glance: trailer, damage, and the processes that use most.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/dump/analysis.h"
#include "tools/dump/wall_clock.h"

namespace vestra_dump {

struct Summary {
    std::string path;
    DumpTotals totals;
    DumpTime time;                             // with the epoch, once it is known
    std::optional<int64_t> first_ns, last_ns;  // of the samples in the range
    std::vector<DamagedSpan> spans;            // the first kSpansKept of them
    std::vector<ProcessTotal> by_cpu, by_memory;
    size_t processes = 0;  // seen in the range
    uint64_t strays = 0;   // samples ignored because of their time stamps

    static constexpr size_t kSpansKept = 1000;

    double seconds() const;  // between the first and the last sample
    // Average percent of all cores that a process used.
    double average_percent(const ProcessTotal &process) const;
};

// Reads a dump for its summary.
class Summariser : public Analysis {
  public:
    // `top`: number of processes in each list. With 0 they are not counted either.
    Summariser(std::string path, const DumpTime &time, size_t top);

    void on_process(const SwitchSample &sample, const Usage &usage) override;
    void on_time(int64_t time_ns) override;
    void on_damage(const DamagedSpan &span) override;
    void on_end(const DumpTotals &totals) override;

    const Summary &summary() const { return summary_; }

  private:
    Summary summary_;
    size_t top_;
    ProcessTotals processes_;
};

// For people: "5 bytes are damaged, in 1 place", "no trailer: ...". Empty for a clean dump.
std::vector<std::string> findings(const DumpTotals &totals);

nlohmann::ordered_json to_json(const Summary &summary);
void print(const Summary &summary, std::ostream &out);

}  // namespace vestra_dump
