#include "tools/dump/history.h"

#include <algorithm>
#include <utility>

#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr int64_t kNs = trace::kNsPerSecond;
constexpr int64_t kGap = 2 * kNs;       // less is no gap: a set that is busy samples late
constexpr int64_t kSettled = 5 * kNs;   // every process is new at first; later ones were born
constexpr size_t kPointsMax = 400'000;  // of all processes; 24 of them need 14,400, 400 need 240,000
constexpr size_t kBirthsMax = 200'000;

uint32_t limited(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX));
}

}  // namespace

History::History(int64_t at_ns) : at_ns_(at_ns), begin_ns_(at_ns > kSeconds * kNs ? at_ns - kSeconds * kNs : 0) {}

void History::on_frame(const Frame & /*frame*/, const FrameMessages &messages) {
    for (const Stamp &stamp : messages.stamps) {
        if (stamp.believed) add_time(stamp.time_ns);
    }
}

void History::add_time(int64_t time_ns) {
    if (time_ns < begin_ns_ || time_ns > at_ns_) return;
    if (newest_ns_ >= 0 && time_ns - newest_ns_ >= kGap) gaps_.push_back({newest_ns_, time_ns});
    first_ns_ = first_ns_ < 0 ? time_ns : std::min(first_ns_, time_ns);
    newest_ns_ = std::max(newest_ns_, time_ns);
}

void History::add(const SecondVitals &second) {
    if (second.time_ns >= begin_ns_ && second.time_ns <= at_ns_) seconds_[second.second] = second;
}

void History::add(const SwitchSample &sample, int64_t used_ticks) {
    const int64_t time = sample.time_ns;
    if (sample.pid == 0 || time < begin_ns_ || time > at_ns_) return;
    const int64_t counters = trace::wrapping_sum(sample.cpu_user, sample.cpu_system);
    if (processes_.size() + past_.size() >= Processes::kMax) make_room();
    const auto [place, is_new] = processes_.try_emplace(sample.pid);
    Process &process = place->second;
    // A process that starts another program has a new name, but the same parent and counters that go on.
    const bool same =
        !is_new && (process.name == sample.name || (process.parent == sample.parent && counters >= process.counters));
    if (!same) {
        if (!is_new) past_.push_back(std::move(process));
        process = {sample.pid, sample.parent, {}, time, time, counters, 0, 0, 0, {}};
        if (time - first_ns_ > kSettled && births_.size() < kBirthsMax) births_.push_back({time / kNs, sample.parent});
    }
    if (process.name != sample.name) process.name = sample.name;
    process.parent = sample.parent;
    ++process.samples;
    if (time < process.last_ns) return;
    process.ticks += used_ticks;
    process.counters = counters;
    const bool over_gap = !gaps_.empty() && gaps_.back().to_ns > process.last_ns;
    if (!over_gap) process.longest_ns = std::max(process.longest_ns, time - process.last_ns);
    process.last_ns = time;
    add_point(&process, sample);
}

void History::add_point(Process *process, const SwitchSample &sample) {
    const auto ms = static_cast<uint32_t>((sample.time_ns - begin_ns_) / 1'000'000);
    const Point point = {ms, limited(sample.rss), limited(static_cast<uint64_t>(process->ticks))};
    std::vector<Point> &points = process->points;
    if (!points.empty() && points.back().ms / width_ms_ == ms / width_ms_) {
        points.back() = point;
        return;
    }
    points.push_back(point);
    if (++points_ > kPointsMax) widen();
}

// Keeps the last point of every two.
void History::widen() {
    width_ms_ *= 2;
    points_ = 0;
    const auto thin = [this](Process *process) {
        std::vector<Point> kept;
        for (const Point &point : process->points) {
            if (!kept.empty() && kept.back().ms / width_ms_ == point.ms / width_ms_) kept.pop_back();
            kept.push_back(point);
        }
        points_ += kept.size();
        kept.shrink_to_fit();
        process->points = std::move(kept);
    };
    for (auto &[pid, process] : processes_) thin(&process);
    for (Process &process : past_) thin(&process);
}

// Forgets the processes of the past, and those that were seen for a short time only, the half of all.
void History::make_room() {
    for (const Process &process : past_) points_ -= process.points.size();
    past_.clear();
    std::vector<int64_t> lives;
    lives.reserve(processes_.size());
    for (const auto &[pid, process] : processes_) lives.push_back(process.last_ns - process.first_ns);
    if (lives.size() < Processes::kMax / 2) return;
    const auto middle = lives.begin() + static_cast<std::ptrdiff_t>(lives.size() / 2);
    std::nth_element(lives.begin(), middle, lives.end());
    size_t surplus = lives.size() / 2;
    for (auto at = processes_.begin(); at != processes_.end() && surplus > 0;) {
        if (at->second.last_ns - at->second.first_ns > *middle) {
            ++at;
            continue;
        }
        points_ -= at->second.points.size();
        at = processes_.erase(at);
        --surplus;
    }
}

}  // namespace vestra_dump
