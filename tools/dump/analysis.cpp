#include "tools/dump/analysis.h"

#include <algorithm>

#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr int64_t kNear = Vitals::kLateMax * trace::kNsPerSecond;

bool near(int64_t a, int64_t b) {
    return trace::distance(a, b) <= static_cast<uint64_t>(kNear);
}

int64_t whole_second(int64_t time_ns) {
    return time_ns / trace::kNsPerSecond * trace::kNsPerSecond;
}

}  // namespace

Analysis::Analysis(const TimeRange &range)
    : range_(range), vitals_([this](const SecondVitals &second) {
          const int64_t begin = second.second * trace::kNsPerSecond;
          const bool from = range_.from <= 0 || begin >= whole_second(range_.from);
          if (from && begin <= range_.to) on_second(second);
      }) {}

template <class Sample>
void Analysis::take_unless_stray(const Sample &sample) {
    if (sample.time_ns < 0) {
        ++strays_;
        return;
    }
    if (last_ns_ >= 0 && !near(sample.time_ns, last_ns_)) {
        // The held sample was no stray: time has jumped.
        const bool was_held = !std::holds_alternative<std::monostate>(held_);
        take_held();
        if (!was_held || !near(sample.time_ns, last_ns_)) {
            if constexpr (std::is_same_v<Sample, SwitchSample>) {
                held_ = HeldSwitch{sample, std::string(sample.name)};
            } else {
                held_ = sample;
            }
            return;
        }
    } else if (!std::holds_alternative<std::monostate>(held_)) {
        held_ = std::monostate();
        ++strays_;
    }
    take(sample);
}

void Analysis::take_held() {
    if (auto *held = std::get_if<HeldSwitch>(&held_)) {
        held->sample.name = held->name;
        take(held->sample);
    } else if (const auto *memory = std::get_if<MemorySample>(&held_)) {
        take(*memory);
    }
    held_ = std::monostate();
}

// Moves the clock. One that has gone back starts over.
void Analysis::pass_time(int64_t time_ns) {
    if (head_ns_ >= 0 && time_ns < head_ns_ - kNear) {
        vitals_.restart();
        usage_.clear();
        head_ns_ = -1;
    }
    last_ns_ = time_ns;
    head_ns_ = std::max(head_ns_, time_ns);
    first_ns_ = std::min(first_ns_.value_or(time_ns), time_ns);
    newest_ns_ = std::max(newest_ns_.value_or(time_ns), time_ns);
    on_time(time_ns);
}

void Analysis::take(const SwitchSample &sample) {
    pass_time(sample.time_ns);
    if (sample.pid != 0) {
        const Usage usage = usage_.take(sample);
        if (range_.holds(sample.time_ns)) on_process(sample, usage);
    }
    vitals_.take(sample);
}

void Analysis::take(const MemorySample &sample) {
    pass_time(sample.time_ns);
    vitals_.take(sample);
}

void Analysis::on_switch(const SwitchSample &sample) {
    take_unless_stray(sample);
}

void Analysis::on_memory(const MemorySample &sample) {
    take_unless_stray(sample);
}

void Analysis::on_end(const DumpTotals & /*totals*/) {
    take_held();
    vitals_.restart();
}

}  // namespace vestra_dump
