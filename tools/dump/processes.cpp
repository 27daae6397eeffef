#include "tools/dump/processes.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>
#include <utility>

namespace vestra_dump {

// Ticks that a counter may differ without time for them: they are accounted in portions.
constexpr uint64_t kPortion = 100;

bool TickCounter::agrees(const Reading &before, const Reading &now) {
    const uint64_t ticks = trace::distance(before.ticks, now.ticks);
    if (ticks <= kPortion) return true;
    const auto seconds = static_cast<double>(trace::distance(before.time_ns, now.time_ns)) / trace::kNsPerSecond;
    return static_cast<double>(ticks) <= most(seconds);
}

double TickCounter::most(double seconds) {
    return trace::ticks_in(seconds) + kPortion;
}

TickCounter::Verdict TickCounter::take(int64_t ticks, int64_t time_ns, uint64_t offset,
                                       std::optional<uint64_t> *wrong) {
    const Reading now = {ticks, time_ns, offset};
    if (!known_ || agrees(last_, now)) {
        if (held_) *wrong = held_->offset;
        held_.reset();
        if (!known_ || time_ns >= last_.time_ns) last_ = now;
        known_ = true;
        return kGood;
    }
    if (held_ && agrees(*held_, now)) {
        *wrong = left_over();
        held_.reset();
        last_ = now;
        return kBegun;
    }
    if (held_) *wrong = held_->offset;
    held_ = now;
    return kHeld;
}

// A counter that went back belongs to another process with the same name, or to a set that was started again.
std::optional<uint64_t> TickCounter::left_over() const {
    return held_ && held_->ticks > last_.ticks ? std::optional(held_->offset) : std::nullopt;
}

void Processes::update_usage(Entry *entry, const SwitchSample &sample) {
    Usage &usage = entry->process.usage;
    const auto begin_interval = [&] {
        entry->time_ns = sample.time_ns;
        entry->user = sample.cpu_user;
        entry->system = sample.cpu_system;
    };
    // The daemon takes a record with time 0 for one that was never used.
    if (entry->time_ns == 0 || (sample.accounted && !entry->named)) {
        begin_interval();
        entry->named = sample.accounted && !sample.name.empty();
        usage = {};
        return;
    }
    const uint64_t interval = trace::distance(sample.time_ns, entry->time_ns);
    const bool changed = entry->user != sample.cpu_user || entry->system != sample.cpu_system;
    if (entry->time_ns >= sample.time_ns || !changed || interval <= trace::kNsPerSecond) return;
    const double interval_ms = static_cast<double>(interval) / 1000000;
    const double ticks = trace::ticks_in(interval_ms / 1000);
    usage.known = true;
    usage.system = trace::percent_of(sample.cpu_system, entry->system, ticks);
    usage.user = trace::percent_of(sample.cpu_user, entry->user, ticks);
    usage.total = trace::percent_of(trace::wrapping_sum(sample.cpu_user, sample.cpu_system),
                                    trace::wrapping_sum(entry->user, entry->system), ticks);
    begin_interval();
}

const Process &Processes::take(const SwitchSample &sample, bool counts, uint64_t offset,
                               std::optional<uint64_t> *wrong) {
    if (current_.size() + past_.size() >= kMax) make_room();
    auto found = current_.find(sample.pid);
    if (found == current_.end()) {
        found = current_.try_emplace(sample.pid).first;
        found->second.process.samples = 0;
    }
    Entry &entry = found->second;
    Process &process = entry.process;
    if (process.number == 0 || process.name != sample.name) {
        const Usage usage = process.usage;
        if (process.samples > 0) past_.push_back(std::move(process));
        process = Process{};
        process.pid = sample.pid;
        process.name = sample.name;
        process.usage = usage;
        process.number = ++numbers_;
    }
    const int64_t ticks = trace::wrapping_sum(sample.cpu_user, sample.cpu_system);
    const bool first = process.samples == 0;
    const int64_t before = first ? ticks : entry.counter.ticks();
    const TickCounter::Verdict verdict = entry.counter.take(ticks, sample.time_ns, offset, wrong);
    if (verdict == TickCounter::kBegun) entry.time_ns = 0;
    if (verdict != TickCounter::kHeld) update_usage(&entry, sample);
    process.used_ticks = 0;
    if (!counts) return process;
    process.parent = sample.parent;
    if (first) {
        ++seen_;
        process.first_ns = process.last_ns = sample.time_ns;
        process.first_rss = sample.rss;
    }
    ++process.samples;
    if (verdict == TickCounter::kGood && sample.time_ns >= process.last_ns && ticks > before) {
        process.used_ticks = ticks - before;
        process.cpu_ticks += static_cast<double>(process.used_ticks);
    }
    process.used_since_ns = process.last_ns;
    if (sample.time_ns >= process.last_ns) process.last_rss = sample.rss;
    process.last_ns = std::max(process.last_ns, sample.time_ns);
    process.first_ns = std::min(process.first_ns, sample.time_ns);
    const Usage &usage = process.usage;
    if (usage.known) process.peak_percent = std::max(process.peak_percent.value_or(0), usage.total);
    process.peak_rss = std::max(process.peak_rss, sample.rss);
    process.peak_swap = std::max(process.peak_swap, sample.swap);
    return process;
}

namespace {

bool more_cpu(const Process &a, const Process &b) {
    return a.cpu_ticks != b.cpu_ticks ? a.cpu_ticks > b.cpu_ticks : a.pid < b.pid;
}

bool more_memory(const Process &a, const Process &b) {
    return a.peak_rss != b.peak_rss ? a.peak_rss > b.peak_rss : a.pid < b.pid;
}

std::vector<Process> copies(const std::vector<const Process *> &processes) {
    std::vector<Process> result;
    for (const Process *process : processes) result.push_back(*process);
    return result;
}

}  // namespace

std::vector<const Process *> Processes::top(size_t count, Before before) const {
    std::vector<const Process *> all;
    all.reserve(current_.size() + past_.size());
    for (const auto &[pid, entry] : current_) {
        if (entry.process.samples > 0) all.push_back(&entry.process);
    }
    for (const Process &process : past_) all.push_back(&process);
    count = std::min(count, all.size());
    std::partial_sort(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count), all.end(),
                      [before](const Process *a, const Process *b) { return before(*a, *b); });
    all.resize(count);
    return all;
}

std::vector<Process> Processes::top_by_cpu(size_t count) const {
    return copies(top(count, more_cpu));
}

std::vector<Process> Processes::top_by_memory(size_t count) const {
    return copies(top(count, more_memory));
}

std::vector<uint64_t> Processes::left_over() const {
    std::vector<uint64_t> offsets;
    for (const auto &[pid, entry] : current_) {
        if (const auto offset = entry.counter.left_over()) offsets.push_back(*offset);
    }
    std::sort(offsets.begin(), offsets.end());
    return offsets;
}

std::vector<Processes::State> Processes::save() const {
    std::vector<State> states;
    states.reserve(current_.size());
    for (const auto &[pid, entry] : current_) {
        states.push_back(
            {pid, entry.named, entry.process.usage, entry.time_ns, entry.user, entry.system, entry.counter});
    }
    return states;
}

void Processes::restore(const std::vector<State> &states) {
    for (const State &state : states) {
        Entry &entry = current_[state.pid];  // number 0: with its next sample it becomes a process
        entry.named = state.named;
        entry.process.usage = state.usage;
        entry.time_ns = state.time_ns;
        entry.user = state.user;
        entry.system = state.system;
        entry.counter = state.counter;
    }
}

// Keeps the quarter that used most CPU time and the quarter that had most memory.
void Processes::make_room() {
    ++times_forgotten_;
    std::unordered_set<const Process *> kept;
    for (const Before before : {more_cpu, more_memory}) {
        for (const Process *process : top(kMax / 4, before)) kept.insert(process);
    }
    for (auto at = current_.begin(); at != current_.end();) {
        at = kept.count(&at->second.process) > 0 ? std::next(at) : current_.erase(at);
    }
    std::vector<Process> past;
    for (Process &process : past_) {
        if (kept.count(&process) > 0) past.push_back(std::move(process));
    }
    past_ = std::move(past);
}

}  // namespace vestra_dump
