#include "tools/view/dump_index.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>
#include <utility>

#include "tools/dump/explain.h"
#include "tools/dump/text.h"

namespace vestra_view {
namespace {

using vestra_dump::Checkpoint;
using vestra_dump::Processes;

constexpr int64_t kNs = trace::kNsPerSecond;
constexpr size_t kInMemory = size_t{4} << 20;    // bytes of each of the two large lists
constexpr uint64_t kPlaceDistance = 512 * 1024;  // bytes of the dump, at least
constexpr uint64_t kPlaceShare = 16;             // and this many times the bytes of a place
constexpr size_t kBinsMax = 2048;
constexpr size_t kPointsMax = 300'000;  // of all processes
constexpr size_t kTracksMax = 32768;
constexpr size_t kMarksMax = 4096;
constexpr int64_t kGap = 2 * kNs;     // less is no gap: a set that is busy samples late
constexpr int64_t kGapIntervals = 3;  // nor is what is usual

float greater(float a, float b) {
    return std::isnan(a) || b > a ? b : a;
}

float telling(size_t vital, float a, float b) {
    return low_tells(vital) ? -greater(-a, -b) : greater(a, b);
}

void sort_marks(std::vector<Mark> *marks) {
    std::stable_sort(marks->begin(), marks->end(), [](const Mark &a, const Mark &b) { return a.from_ns < b.from_ns; });
}

}  // namespace

DumpIndex::DumpIndex(int64_t newest_ns)
    : history_(newest_ns), seconds_(kInMemory), places_(kInMemory / 4), states_(kInMemory) {
    add_place({});
}

void DumpIndex::on_frame(const vestra_dump::Frame &frame, const vestra_dump::FrameMessages &messages) {
    history_.on_frame(frame, messages);
    for (const vestra_dump::Stamp &stamp : messages.stamps) {
        if (!stamp.believed || stamp.time_ns < 0) continue;
        if (newest_ns_ >= 0 && stamp.time_ns - newest_ns_ >= kGap && gaps_.size() < kMarksMax) {
            gaps_.push_back({newest_ns_, stamp.time_ns, "", {}});
        }
        if (first_ns_ < 0) first_ns_ = stamp.time_ns;
        newest_ns_ = std::max(newest_ns_, stamp.time_ns);
        const int64_t second = stamp.time_ns / kNs;
        if (extent_ == nullptr || second_ != second) {
            extent_ = &open_[second];
            second_ = second;
        }
        extent_->begin = std::min(extent_->begin, frame.offset);
        extent_->end = std::max(extent_->end, frame.offset + frame.bytes);
    }
}

void DumpIndex::on_process(const vestra_dump::SwitchSample &sample, const vestra_dump::Process &process) {
    history_.on_process(sample, process);
    if (sample.time_ns < 0) return;
    auto found = tracks_.find(process.number);
    if (found == tracks_.end()) {
        if (tracks_.size() >= kTracksMax) forget_short_tracks();
        if (tracks_.size() >= kTracksMax) return;
        const ProcessId id = {process.pid, vestra_dump::printable(process.name)};
        found = tracks_.emplace(process.number, Track{id, sample.time_ns, 0, sample.rss, {}}).first;
    }
    Track &track = found->second;
    track.last_ns = std::max(track.last_ns, sample.time_ns);
    const int64_t slots = (std::max(sample.time_ns, first_ns_) / kNs - first_ns_ / kNs) / slot_seconds_;
    const auto slot = static_cast<uint32_t>(std::min<int64_t>(slots, UINT32_MAX));
    const float cpu =
        process.usage.known ? static_cast<float>(process.usage.total) : std::numeric_limits<float>::quiet_NaN();
    const auto rss = static_cast<uint32_t>(std::min<uint64_t>(sample.rss, UINT32_MAX));
    if (!track.points.empty() && track.points.back().slot >= slot) {
        Track::Point &point = track.points.back();
        point.cpu = greater(point.cpu, cpu);
        point.rss = std::max(point.rss, rss);
        return;
    }
    track.points.push_back({slot, cpu, rss});
    if (++points_ > kPointsMax) widen_slots();
}

// Doubles the width of slots, until a quarter of the points is free.
void DumpIndex::widen_slots() {
    for (int tries = 0; tries < 32 && points_ > kPointsMax / 4 * 3; ++tries) {
        points_ = 0;
        slot_seconds_ *= 2;
        for (auto &[number, track] : tracks_) {
            std::vector<Track::Point> wide;
            for (const Track::Point &point : track.points) {
                if (wide.empty() || wide.back().slot != point.slot / 2) {
                    wide.push_back({point.slot / 2, point.cpu, point.rss});
                    continue;
                }
                wide.back().cpu = greater(wide.back().cpu, point.cpu);
                wide.back().rss = std::max(wide.back().rss, point.rss);
            }
            wide.shrink_to_fit();
            points_ += wide.size();
            track.points = std::move(wide);
        }
    }
}

void DumpIndex::forget_short_tracks() {
    for (auto at = tracks_.begin(); at != tracks_.end();) {
        const bool is_short = at->second.points.size() < 2;
        points_ -= is_short ? at->second.points.size() : 0;
        at = is_short ? tracks_.erase(at) : std::next(at);
    }
}

void DumpIndex::on_second(const vestra_dump::SecondVitals &second) {
    history_.on_second(second);
    SecondRecord record = {second.second, second.time_ns, {}, 0, 0};
    for (size_t vital = 0; vital < kVitalCount; ++vital) {
        const double value = second.knows(vital) ? second.vital[vital] : kUnknown;
        record.vitals[vital] = value;
        Extremes &extremes = extremes_[vital];
        if (seconds_.size() % kPiece == 0) extremes.tops.push_back(-std::numeric_limits<double>::infinity());
        if (!std::isfinite(value)) continue;
        const double signed_value = low_tells(vital) ? -value : value;
        extremes.tops.back() = std::max(extremes.tops.back(), signed_value);
        extremes.top = extremes.count > 0 ? std::max(extremes.top, signed_value) : signed_value;
        extremes.sum += signed_value;
        ++extremes.count;
    }
    const auto found = open_.find(second.second);
    if (found != open_.end()) {
        record.begin = found->second.begin;
        record.end = found->second.end;
    }
    open_.erase(open_.begin(), open_.upper_bound(second.second));
    extent_ = nullptr;
    seconds_.add(record);
    add_bin(record);
}

void DumpIndex::add_bin(const SecondRecord &record) {
    if (bins_.empty()) first_second_ = record.second;
    std::array<float, kVitalCount> empty;
    empty.fill(std::numeric_limits<float>::quiet_NaN());
    while ((record.second - first_second_) / bin_seconds_ >= static_cast<int64_t>(kBinsMax)) {
        bin_seconds_ *= 2;
        for (size_t i = 0; i < bins_.size(); i += 2) {
            const auto &second = i + 1 < bins_.size() ? bins_[i + 1] : empty;
            for (size_t vital = 0; vital < kVitalCount; ++vital) {
                bins_[i / 2][vital] = telling(vital, bins_[i][vital], second[vital]);
            }
        }
        bins_.resize((bins_.size() + 1) / 2);
    }
    const auto bin = static_cast<size_t>((record.second - first_second_) / bin_seconds_);
    if (bins_.size() <= bin) bins_.resize(bin + 1, empty);
    for (size_t vital = 0; vital < kVitalCount; ++vital) {
        const double value = record.vitals[vital];
        if (std::isfinite(value)) {
            bins_[bin][vital] = telling(vital, bins_[bin][vital], static_cast<float>(value));
        }
    }
}

void DumpIndex::on_damage(const vestra_dump::DamagedSpan &span) {
    if (damage_.size() >= kMarksMax) return;
    const int64_t from = span.from_ns.value_or(0);
    std::string text = span.bytes > 0 ? std::to_string(span.bytes) + " bytes are damaged" : "Damaged";
    text += " at offset " + std::to_string(span.offset) + ": " + describe(span.reason);
    damage_.push_back({from, span.to_ns.value_or(from), text, {}});
}

void DumpIndex::on_block_end(uint64_t offset, bool forgot, const std::function<Checkpoint()> &make) {
    if (forgot || offset >= next_place_) add_place(make());
}

void DumpIndex::add_place(const Checkpoint &checkpoint) {
    places_.add({checkpoint.place, checkpoint.timeline, states_.size(), checkpoint.processes.size()});
    for (const Processes::State &state : checkpoint.processes) states_.add(state);
    next_place_ = checkpoint.place.offset +
                  std::max(kPlaceDistance, kPlaceShare * sizeof(Processes::State) * checkpoint.processes.size());
}

Checkpoint DumpIndex::checkpoint_before(uint64_t offset) const {
    uint64_t low = 0, high = places_.size();  // the last one is in [low, high)
    while (high - low > 1) {
        const uint64_t middle = low + (high - low) / 2;
        (places_.at(middle).place.offset <= offset ? low : high) = middle;
    }
    const PlaceRecord place = places_.at(low);
    Checkpoint checkpoint = {place.place, place.timeline, {}};
    checkpoint.processes.resize(static_cast<size_t>(place.states));
    if (place.states > 0) states_.read(place.first_state, checkpoint.processes.data(), checkpoint.processes.size());
    return checkpoint;
}

std::string DumpIndex::problem() const {
    return !seconds_.problem().empty()  ? seconds_.problem()
           : !places_.problem().empty() ? places_.problem()
                                        : states_.problem();
}

void DumpIndex::finish(const std::string &path, int64_t first_ns) {
    for (vestra_dump::Finding &finding : vestra_dump::explain(history_, path, first_ns)) {
        findings_.push_back({finding.from_ns, finding.to_ns, std::move(finding.text), finding.pid});
    }
    history_ = vestra_dump::History(0);
    const int64_t usual = seconds_.size() > 1 ? (newest_ns_ - first_ns_) / static_cast<int64_t>(seconds_.size()) : 0;
    for (Mark &gap : gaps_) {
        const int64_t length = gap.to_ns - gap.from_ns;
        if (length < kGapIntervals * usual) continue;
        gap.text = "Nothing was recorded for " + vestra_dump::fixed(trace::to_seconds(length), 1) + " s";
        damage_.push_back(std::move(gap));
    }
    gaps_ = {};
    open_.clear();
    sort_marks(&damage_);
    sort_marks(&findings_);
    by_pid_.reserve(tracks_.size());
    for (auto &[number, track] : tracks_) by_pid_.push_back(std::move(track));
    tracks_ = {};
    std::sort(by_pid_.begin(), by_pid_.end(), [](const Track &a, const Track &b) {
        return std::tie(a.id.pid, a.first_ns) < std::tie(b.id.pid, b.first_ns);
    });
}

}  // namespace vestra_view
