#include "tools/dump/processes.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>
#include <utility>

#include "trace/percentages.h"

namespace vestra_dump {

Usage ProcessUsage::take(const SwitchSample &sample) {
    const Process fresh = {
        sample.time_ns, sample.cpu_user, sample.cpu_system, {}, sample.accounted && !sample.name.empty()};
    const auto [place, is_new] = processes_.try_emplace(sample.pid, fresh);
    Process &known = place->second;
    if (is_new) {
        if (processes_.size() > kProcessesMax) make_room();
        return {};
    }
    // The daemon takes a record with time 0 for one that was never used.
    if (known.time_ns == 0 || (sample.accounted && !known.named)) {
        known = fresh;
        return {};
    }
    const uint64_t interval = trace::distance(sample.time_ns, known.time_ns);
    const bool changed = known.user != sample.cpu_user || known.system != sample.cpu_system;
    if (known.time_ns >= sample.time_ns || !changed || interval <= trace::kNsPerSecond) return known.usage;
    const double interval_ms = static_cast<double>(interval) / 1000000;
    const double ticks = trace::ticks_in(interval_ms / 1000);
    known.usage.known = true;
    known.usage.system = trace::percent_of(sample.cpu_system, known.system, ticks);
    known.usage.user = trace::percent_of(sample.cpu_user, known.user, ticks);
    known.usage.total = trace::percent_of(trace::wrapping_sum(sample.cpu_user, sample.cpu_system),
                                          trace::wrapping_sum(known.user, known.system), ticks);
    known.time_ns = sample.time_ns;
    known.user = sample.cpu_user;
    known.system = sample.cpu_system;
    return known.usage;
}

// Forgets the older half.
void ProcessUsage::make_room() {
    std::vector<int64_t> times;
    times.reserve(processes_.size());
    for (const auto &[pid, process] : processes_) times.push_back(process.time_ns);
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    const int64_t limit = *middle;
    size_t surplus = processes_.size() / 2;  // exactly half, even if all times are equal
    for (auto at = processes_.begin(); at != processes_.end() && surplus > 0;) {
        if (at->second.time_ns <= limit) {
            at = processes_.erase(at);
            --surplus;
        } else {
            ++at;
        }
    }
}

namespace {

bool more_cpu(const ProcessTotal &a, const ProcessTotal &b) {
    return a.cpu_ticks != b.cpu_ticks ? a.cpu_ticks > b.cpu_ticks : a.pid < b.pid;
}

bool more_memory(const ProcessTotal &a, const ProcessTotal &b) {
    return a.peak_rss != b.peak_rss ? a.peak_rss > b.peak_rss : a.pid < b.pid;
}

std::vector<ProcessTotal> copies(const std::vector<const ProcessTotal *> &totals) {
    std::vector<ProcessTotal> result;
    for (const ProcessTotal *total : totals) result.push_back(*total);
    return result;
}

}  // namespace

void ProcessTotals::take(const SwitchSample &sample, const Usage &usage) {
    if (sample.pid == 0) return;  // only the cores' counters
    const int64_t counters = trace::wrapping_sum(sample.cpu_user, sample.cpu_system);
    const auto found = current_.find(sample.pid);
    ProcessTotal *total = found == current_.end() ? nullptr : &found->second;
    if (total == nullptr || total->name != sample.name) {
        if (total != nullptr) past_.push_back(std::move(*total));
        if (current_.size() + past_.size() >= kProcessesMax) make_room();
        ++seen_;
        total = &(current_[sample.pid] = {sample.pid, sample.parent, std::string(sample.name), sample.time_ns,
                                          sample.time_ns, 0, 0, 0, 0, 0, counters});
    }
    total->parent = sample.parent;
    ++total->samples;
    if (sample.time_ns >= total->last_ns) {
        // A counter that went back belongs to another process with the same name.
        const uint64_t used = static_cast<uint64_t>(counters) - static_cast<uint64_t>(total->counters);
        if (counters > total->counters) total->cpu_ticks += static_cast<double>(used);
        total->counters = counters;
        total->last_ns = sample.time_ns;
    }
    total->first_ns = std::min(total->first_ns, sample.time_ns);
    if (usage.known) total->peak_percent = std::max(total->peak_percent, usage.total);
    total->peak_rss = std::max(total->peak_rss, sample.rss);
    total->peak_swap = std::max(total->peak_swap, sample.swap);
}

std::vector<const ProcessTotal *> ProcessTotals::top(size_t count, Before before) const {
    std::vector<const ProcessTotal *> all;
    all.reserve(current_.size() + past_.size());
    for (const auto &[pid, total] : current_) all.push_back(&total);
    for (const ProcessTotal &total : past_) all.push_back(&total);
    count = std::min(count, all.size());
    std::partial_sort(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count), all.end(),
                      [before](const ProcessTotal *a, const ProcessTotal *b) { return before(*a, *b); });
    all.resize(count);
    return all;
}

std::vector<ProcessTotal> ProcessTotals::top_by_cpu(size_t count) const {
    return copies(top(count, more_cpu));
}

std::vector<ProcessTotal> ProcessTotals::top_by_memory(size_t count) const {
    return copies(top(count, more_memory));
}

// Keeps the quarter that used most CPU time and the quarter that had most memory.
void ProcessTotals::make_room() {
    std::unordered_set<const ProcessTotal *> kept;
    for (const Before before : {more_cpu, more_memory}) {
        for (const ProcessTotal *total : top(kProcessesMax / 4, before)) kept.insert(total);
    }
    for (auto at = current_.begin(); at != current_.end();) {
        at = kept.count(&at->second) > 0 ? std::next(at) : current_.erase(at);
    }
    std::vector<ProcessTotal> past;
    for (ProcessTotal &total : past_) {
        if (kept.count(&total) > 0) past.push_back(std::move(total));
    }
    past_ = std::move(past);
}

}  // namespace vestra_dump
