#include "tools/dump/vitals.h"

#include <algorithm>

#include "trace/percentages.h"

namespace vestra_dump {

namespace {

enum VitalType : size_t {
    kContextSwitches,
    kRunning,
    kCpuTotal,
    kCpuSystem,
    kCpuUser,
    kCoreTemperature0,
    kAverageTemperature = kCoreTemperature0 + trace::kCoreCount,
    kIowait,
    kMemory0
};

}  // namespace

bool SecondVitals::knows(size_t type) const {
    if (type >= kMemory0) return has_memory;
    if ((type >= kCpuTotal && type <= kCpuUser) || type == kAverageTemperature || type == kIowait) return has_percent;
    return has_switch;
}

// The second of a sample; null if the sample comes too late.
Vitals::OpenSecond *Vitals::touch(int64_t time_ns) {
    const int64_t second = time_ns / trace::kNsPerSecond;
    if (current_ == nullptr || current_->figures.second != second) {
        if (!open_.empty() && second < open_.rbegin()->first - kLateMax) return nullptr;
        while (!open_.empty() && open_.begin()->first < second - kLateMax) hand_on_oldest();
        current_ = &open_[second];
        current_->figures.second = second;
    }
    current_->figures.time_ns = time_ns;
    return current_;
}

void Vitals::take(const SwitchSample &sample) {
    OpenSecond *open = touch(sample.time_ns);
    if (open == nullptr) return;
    SecondVitals &figures = open->figures;
    figures.has_switch = true;
    figures.vital[kContextSwitches] = sample.context_switches;
    figures.vital[kRunning] = sample.running;
    open->switch_ns = sample.time_ns;
    open->sums = {};
    uint32_t temperature = 0;
    for (size_t i = 0; i < sample.cores.size(); ++i) {
        const CoreFigures &core = sample.cores[i];
        open->sums.user = trace::wrapping_sum(open->sums.user, core.user);
        open->sums.system = trace::wrapping_sum(open->sums.system, core.system);
        open->sums.iowait = trace::wrapping_sum(open->sums.iowait, core.iowait);
        temperature += static_cast<uint32_t>(core.temperature);
        figures.vital[kCoreTemperature0 + i] = static_cast<double>(core.temperature);
    }
    open->sums.temperature = static_cast<int32_t>(temperature);
}

void Vitals::take(const MemorySample &sample) {
    OpenSecond *open = touch(sample.time_ns);
    if (open == nullptr) return;
    open->figures.has_memory = true;
    std::copy(sample.figures.begin(), sample.figures.end(), open->figures.vital.begin() + kMemory0);
}

// The same operations in the same order as in the daemon, so that figures are equal to the last bit.
void Vitals::derive(OpenSecond *open, const OpenSecond &before) {
    auto &vital = open->figures.vital;
    open->place = before.place + 1;
    open->figures.has_percent = true;
    const double dt = open->place == 1 ? 1.0
                                       : static_cast<double>(trace::distance(open->switch_ns, before.switch_ns)) /
                                             trace::kNsPerSecond;
    const double ticks = trace::ticks_in(dt);
    const Sums &now = open->sums, &then = before.sums;
    vital[kCpuUser] = trace::percent_of(now.user, then.user, ticks);
    vital[kCpuSystem] = trace::percent_of(now.system, then.system, ticks);
    vital[kCpuTotal] = trace::percent_of(trace::wrapping_sum(now.user, now.system),
                                         trace::wrapping_sum(then.user, then.system), ticks);
    vital[kAverageTemperature] = now.temperature / trace::kCoreCount;
    const double iowait = trace::percent_of(now.iowait, then.iowait, ticks);
    open->iowait_accepted = iowait < trace::kIowaitGlitch ? iowait : before.iowait_accepted;
    vital[kIowait] = open->iowait_accepted;
}

void Vitals::hand_on_oldest() {
    const auto oldest = open_.begin();
    OpenSecond &open = oldest->second;
    const bool neighbours = handed_on_ && handed_on_->figures.second == oldest->first - 1;
    if (neighbours && open.figures.has_switch && handed_on_->figures.has_switch) derive(&open, *handed_on_);
    sink_(open.figures);
    handed_on_ = open;
    if (current_ == &open) current_ = nullptr;
    open_.erase(oldest);
}

void Vitals::finish() {
    while (!open_.empty()) hand_on_oldest();
}

}  // namespace vestra_dump
