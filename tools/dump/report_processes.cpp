#include "tools/dump/report_processes.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "tools/dump/report_series.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

using nlohmann::json;

uint32_t saturated(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

// In seconds, with three digits after the point.
double short_time(int64_t time_ns) {
    return static_cast<double>(time_ns / 1000000) / 1000;
}

// Indices of the kPlotted processes for which `figure` is greatest, without those for which it is 0 or less.
template <class Figure>
std::vector<size_t> greatest(const std::vector<Process> &processes, Figure figure) {
    std::vector<size_t> order;
    for (size_t i = 0; i < processes.size(); ++i) {
        if (figure(processes[i]) > 0) order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return figure(processes[a]) > figure(processes[b]); });
    order.resize(std::min(order.size(), ProcessSeries::kPlotted));
    return order;
}

}  // namespace

size_t ProcessSeries::know(const Process &process) {
    const auto place = indices_.try_emplace(process.number, known_.size());
    if (place.second) known_.push_back(process);
    return place.first->second;
}

ProcessSeries::ProcessSeries(const Summary &summary, const std::vector<Finding> &findings, int64_t width)
    : width_(width) {
    double most_ticks = 1, greatest_peak = 1;
    for (const Process &process : summary.by_cpu) {
        if (known_.size() < kKnown) know(process);
        most_ticks = std::max(most_ticks, process.cpu_ticks);
        greatest_peak = std::max(greatest_peak, process.peak_percent.value_or(0));
    }
    for (const size_t index : greatest(summary.by_memory, [](const Process &process) {
             return static_cast<double>(process.last_rss) - static_cast<double>(process.first_rss);
         })) {
        memory_.push_back(know(summary.by_memory[index]));
    }
    unlisted_ = summary.processes - std::min<uint64_t>(summary.processes, known_.size());
    // Those of the findings come first; then total and peak count alike.
    cpu_ = greatest(known_, [&](const Process &process) {
        const bool found = std::any_of(findings.begin(), findings.end(), [&process](const Finding &finding) {
            return finding.pid == process.pid && finding.name == printable(process.name);
        });
        return (found ? 2 : 0) + process.cpu_ticks / most_ticks + process.peak_percent.value_or(0) / greatest_peak;
    });
}

void ProcessSeries::on_process(const SwitchSample &sample, const Process &process) {
    const int64_t number = sample.time_ns / trace::kNsPerSecond / width_;
    // There are no more unless damage has left the seconds without vitals.
    if (buckets_.size() >= VitalSeries::kBucketsMax && buckets_.count(number) == 0) return;
    if (!buckets_.empty() && number > buckets_.rbegin()->first + 1) gap_end_ = number;
    Bucket &bucket = buckets_[number];
    const bool over_gap = process.used_since_ns / trace::kNsPerSecond / width_ < gap_end_;
    const uint64_t ticks = over_gap ? 0 : static_cast<uint64_t>(process.used_ticks);
    bucket.ticks += ticks;
    const auto found = indices_.find(process.number);
    if (found == indices_.end()) return;
    bucket.cells.resize(known_.size());
    Cell &cell = bucket.cells[found->second];
    cell.ticks = saturated(cell.ticks + ticks);
    cell.rss = saturated(std::min(sample.rss, UINT64_MAX - 1) + 1);
}

json ProcessSeries::to_json() const {
    json data = {{"known", json::array()},
                 {"unlisted", unlisted_},
                 {"cpu", cpu_},
                 {"memory", memory_},
                 {"buckets", json::array()}};
    for (const Process &process : known_) {
        data["known"].push_back({process.pid, process.parent, printable(process.name), short_time(process.first_ns),
                                 short_time(process.last_ns), process.cpu_seconds()});
    }
    for (const auto &[number, bucket] : buckets_) {
        const auto &cells = bucket.cells;
        const auto cell = [&cells](size_t index) { return index < cells.size() ? cells[index] : Cell{}; };
        const auto rss = [&cell](size_t index) {
            return cell(index).rss > 0 ? json(cell(index).rss - 1) : json(nullptr);
        };
        json ticks = json::array(), memory = json::array(), busy = json::array();
        for (const size_t index : cpu_) ticks.push_back(cell(index).ticks);
        for (const size_t index : memory_) memory.push_back(rss(index));
        std::vector<size_t> order;
        for (size_t i = 0; i < cells.size(); ++i) {
            if (cells[i].ticks > 0) order.push_back(i);
        }
        const size_t shown = std::min(order.size(), kPlotted);
        std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(shown), order.end(),
                          [&cells](size_t a, size_t b) {
                              return cells[a].ticks != cells[b].ticks ? cells[a].ticks > cells[b].ticks : a < b;
                          });
        for (size_t i = 0; i < shown; ++i) {
            busy.push_back(order[i]);
            busy.push_back(cells[order[i]].ticks);
            busy.push_back(rss(order[i]));
        }
        data["buckets"].push_back({number * width_, bucket.ticks, ticks, memory, busy});
    }
    return data;
}

}  // namespace vestra_dump
