#include "tools/dump/vitals.h"

#include <algorithm>

#include "trace/percentages.h"

namespace vestra_dump {

const std::array<const char *, kVitalCount> kVitalNames = {"context_switches",  "running_processes",
                                                           "cpu_total",         "cpu_system",
                                                           "cpu_user",          "temperature_core0",
                                                           "temperature_core1", "temperature_core2",
                                                           "temperature_core3", "temperature_average",
                                                           "io_wait",           "memory_used",
                                                           "swap_used",         "load",
                                                           "memory_free",       "page_cache",
                                                           "memory_available"};

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

bool Second::knows(size_t type) const {
    if (type >= kMemory0) return has_memory;
    if ((type >= kCpuTotal && type <= kCpuUser) || type == kAverageTemperature || type == kIowait) return has_percent;
    return has_switch;
}

// The second of a sample; null when it is too late for it.
Vitals::Held *Vitals::touch(int64_t time_ns) {
    const int64_t second = time_ns / trace::kNsPerSecond;
    if (current_ == nullptr || current_->figures.second != second) {
        if (!held_.empty() && second < held_.rbegin()->first - kLateMost) return nullptr;
        while (!held_.empty() && held_.begin()->first < second - kLateMost) hand_on_oldest();
        current_ = &held_[second];
        current_->figures.second = second;
    }
    current_->figures.time_ns = time_ns;
    return current_;
}

void Vitals::take(const SwitchSample &sample) {
    Held *held = touch(sample.time_ns);
    if (held == nullptr) return;
    Second &figures = held->figures;
    figures.has_switch = true;
    figures.vital[kContextSwitches] = sample.context_switches;
    figures.vital[kRunning] = sample.running;
    held->switch_ns = sample.time_ns;
    held->sums = {};
    uint32_t temperature = 0;
    for (size_t i = 0; i < sample.cores.size(); ++i) {
        const CoreFigures &core = sample.cores[i];
        held->sums.user = trace::wrapping_sum(held->sums.user, core.user);
        held->sums.system = trace::wrapping_sum(held->sums.system, core.system);
        held->sums.iowait = trace::wrapping_sum(held->sums.iowait, core.iowait);
        temperature += static_cast<uint32_t>(core.temperature);
        figures.vital[kCoreTemperature0 + i] = static_cast<double>(core.temperature);
    }
    held->sums.temperature = static_cast<int32_t>(temperature);
}

void Vitals::take(const MemorySample &sample) {
    Held *held = touch(sample.time_ns);
    if (held == nullptr) return;
    held->figures.has_memory = true;
    std::copy(sample.figures.begin(), sample.figures.end(), held->figures.vital.begin() + kMemory0);
}

// Operation by operation as the daemon does it: figures are equal to the last bit.
void Vitals::derive(Held *held, const Held &before) {
    auto &vital = held->figures.vital;
    held->place = before.place + 1;
    held->figures.has_percent = true;
    const double dt = held->place == 1 ? 1.0
                                       : static_cast<double>(trace::distance(held->switch_ns, before.switch_ns)) /
                                             trace::kNsPerSecond;
    const double ticks = trace::ticks_in(dt);
    const Sums &now = held->sums, &then = before.sums;
    vital[kCpuUser] = trace::percent_of(now.user, then.user, ticks);
    vital[kCpuSystem] = trace::percent_of(now.system, then.system, ticks);
    vital[kCpuTotal] = trace::percent_of(trace::wrapping_sum(now.user, now.system),
                                         trace::wrapping_sum(then.user, then.system), ticks);
    vital[kAverageTemperature] = now.temperature / trace::kCoreCount;
    const double iowait = trace::percent_of(now.iowait, then.iowait, ticks);
    held->iowait_accepted = iowait < trace::kIowaitGlitch ? iowait : before.iowait_accepted;
    vital[kIowait] = held->iowait_accepted;
}

void Vitals::hand_on_oldest() {
    const auto oldest = held_.begin();
    Held &held = oldest->second;
    const bool neighbours = handed_on_ && handed_on_->figures.second == oldest->first - 1;
    if (neighbours && held.figures.has_switch && handed_on_->figures.has_switch) derive(&held, *handed_on_);
    sink_(held.figures);
    handed_on_ = held;
    if (current_ == &held) current_ = nullptr;
    held_.erase(oldest);
}

void Vitals::restart() {
    while (!held_.empty()) hand_on_oldest();
    handed_on_.reset();
}

}  // namespace vestra_dump
