#include "tools/dump/timeline.h"

#include <algorithm>
#include <map>

namespace vestra_dump {
namespace {

constexpr int64_t kTimeMax = INT64_MAX / 2;           // ns; sums with it do not overflow
constexpr uint64_t kClusterMax = 160 * 1024;          // bytes: a storage cluster, and the frames at its ends
constexpr int64_t kPause = 10 * trace::kNsPerSecond;  // a gap that little damage can make
constexpr size_t kRounds = 8;
constexpr uint64_t kFew = 4;  // samples: so many may have damaged stamps
constexpr int64_t kStepMax = 60 * trace::kNsPerSecond;

int64_t sum(int64_t a, int64_t b) {
    int64_t result = 0;
    if (__builtin_add_overflow(a, b, &result)) return b > 0 ? INT64_MAX : INT64_MIN;
    return result;
}

template <class Run>
void extend(Run *run, const Run &by) {
    run->samples += by.samples;
    run->low_ns = std::min(run->low_ns, by.low_ns);
    run->high_ns = std::max(run->high_ns, by.high_ns);
    if (by.begin.offset < run->begin.offset) run->begin = by.begin;
    if (by.end.offset > run->end.offset) run->end = by.end;
}

// Joins elements next to each other. `joins`: whether the second is to become part of the first, which it may change.
template <class Run, class Joins>
void join(std::vector<Run> *runs, Joins joins) {
    size_t size = 0;
    for (const Run &run : *runs) {
        if (size > 0 && joins(&(*runs)[size - 1], run)) {
            extend(&(*runs)[size - 1], run);
        } else {
            (*runs)[size++] = run;
        }
    }
    runs->resize(size);
}

template <class Run>
uint64_t samples_of(const std::vector<Run> &chain) {
    uint64_t samples = 0;
    for (const Run &run : chain) samples += run.samples;
    return samples;
}

// What is known about the gaps between the parts of a recording.
template <class Run>
class Gaps {
  public:
    explicit Gaps(const std::vector<Run> &parts) : parts_(parts) {
        double bytes = 0, length = 0;
        for (const Run &part : parts) {
            length += static_cast<double>(part.high_ns - part.low_ns);
            bytes += static_cast<double>(part.end.offset - part.begin.offset);
        }
        if (bytes > 0) ns_per_byte_ = length / bytes;
        const bool all_are_short =
            std::all_of(parts.begin(), parts.end(), [](const Run &part) { return part.samples <= kFew; });
        for (const bool inside : {false, true}) {
            std::vector<int64_t> gaps;
            for (size_t i = 0; i + 1 < parts.size(); ++i) {
                if (is_inside_block(i) == inside) gaps.push_back(gap(i));
            }
            if (gaps.empty() || (gaps.size() < kMany && !all_are_short)) continue;
            const auto middle = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
            std::nth_element(gaps.begin(), middle, gaps.end());
            usual_[inside ? 1 : 0] = static_cast<double>(*middle);
        }
    }

    // Whether the recording can have the gap after a part, with `samples` on the one side of it.
    bool is_possible(size_t i, uint64_t samples) const {
        const auto &before = parts_[i].end, &after = parts_[i + 1].begin;
        const double missing = after.offset > before.offset ? static_cast<double>(after.offset - before.offset) : 0;
        if (gap(i) <= Timeline::kLate + trusted(missing * ns_per_byte_)) return true;
        // Cores may be in the one or the other order in a block.
        const bool in_order = before.offset <= after.offset + trace::kBlockMax;
        if (!in_order) return false;
        if (before.damage != after.damage) return samples > kFew && gap(i) <= std::max(kPause, trusted(usual_[0]));
        return samples > (is_inside_block(i) ? kFew : 1) || gap(i) <= trusted(usual_[is_inside_block(i) ? 1 : 0]);
    }

  private:
    int64_t gap(size_t i) const { return sum(parts_[i + 1].low_ns, -parts_[i].high_ns); }
    bool is_inside_block(size_t i) const { return parts_[i].end.blocks == parts_[i + 1].begin.blocks; }
    // Rates vary.
    static int64_t trusted(double ns) { return static_cast<int64_t>(std::min(4 * ns, static_cast<double>(kTimeMax))); }

    static constexpr size_t kMany = 8;  // gaps are usual
    const std::vector<Run> &parts_;
    double ns_per_byte_ = 0;
    double usual_[2] = {};  // between blocks, inside one
};

}  // namespace

void Timeline::add(int core, int64_t time_ns, uint64_t begin, uint64_t end) {
    Stream &stream = streams_[static_cast<size_t>(core)];
    Run &open = stream.open;
    here_.offset = end;
    // Nearly all samples end here.
    if (open.samples > 0 && time_ns >= open.high_ns - kLate && time_ns <= open.high_ns + stream.step) {
        ++open.samples;
        open.high_ns = std::max(open.high_ns, time_ns);
        open.low_ns = std::min(open.low_ns, time_ns);
        open.end = here_;
    } else {
        const Place from = {begin, here_.blocks, here_.damage};
        begin_run(&stream, {stream.samples, 1, time_ns, time_ns, from, here_, time_ns >= 0 && time_ns <= kTimeMax});
    }
    ++stream.samples;
}

void Timeline::begin_run(Stream *stream, const Run &run) {
    if (stream->open.samples > 0) stream->runs.push_back(stream->open);
    stream->open = {};
    if (run.sound) {
        stream->open = run;
    } else if (run.samples > 0) {
        stream->runs.push_back(run);
    }
    if (stream->runs.size() >= kRunsMax) coarsen(stream);
}

// Halves the number of runs: larger gaps do not end a run, or else short ones next to each other become one that is not
// sound.
void Timeline::coarsen(Stream *stream) {
    Runs &runs = stream->runs;
    const size_t enough = runs.size() / 2;
    while (runs.size() > enough && stream->step < kStepMax) {
        stream->step *= 2;
        join(&runs, [step = stream->step](const Run *run, const Run &by) {
            return run->sound && by.sound && by.low_ns >= run->high_ns - kLate && by.low_ns <= run->high_ns + step;
        });
    }
    for (uint64_t most = 1; runs.size() > enough; most *= 2) {
        join(&runs, [most](Run *run, const Run &by) {
            if (run->samples > most || by.samples > most) return false;
            run->sound = false;
            return true;
        });
    }
}

// The chain with most samples among those in which every run begins after the end of the run before, or a little earlier.
std::vector<size_t> Timeline::longest_chain(const Runs &runs) {
    constexpr size_t kNone = SIZE_MAX;
    std::vector<uint64_t> samples(runs.size());  // of the longest chain that ends with a run
    std::vector<size_t> before(runs.size(), kNone);
    std::map<int64_t, size_t> best;  // by end: the chains that no chain with an earlier end surpasses;
                                     // of two with as many samples, the later one leaves the smaller gap
    for (size_t i = 0; i < runs.size(); ++i) {
        const Run &run = runs[i];
        if (!run.sound) continue;
        samples[i] = run.samples;
        auto place = best.upper_bound(sum(run.low_ns, kLate));
        if (place != best.begin()) {
            before[i] = std::prev(place)->second;
            samples[i] += samples[before[i]];
        }
        place = best.upper_bound(run.high_ns);
        if (place != best.begin() && samples[std::prev(place)->second] > samples[i]) continue;
        place = best.lower_bound(run.high_ns);
        while (place != best.end() && samples[place->second] < samples[i]) place = best.erase(place);
        best[run.high_ns] = i;
    }
    std::vector<size_t> chain;
    for (size_t i = best.empty() ? kNone : best.rbegin()->second; i != kNone; i = before[i]) chain.push_back(i);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

// Takes parts off both ends that a gap without a reason separates from the rest.
void Timeline::trim(Runs *parts) {
    const Gaps<Run> gaps(*parts);
    size_t begin = 0, end = parts->size();
    // More than a cluster of another recording.
    const auto is_sure = [all = samples_of(*parts)](uint64_t samples, uint64_t bytes) {
        return 3 * samples >= all || bytes > kClusterMax;
    };
    uint64_t samples = 0, bytes = 0;
    const auto take = [&](const Run &part) {
        samples += part.samples;
        bytes += part.end.offset - part.begin.offset;
        return !is_sure(samples, bytes);
    };
    for (size_t i = 0; i + 1 < parts->size() && take((*parts)[i]); ++i) {
        if (!gaps.is_possible(i, samples)) begin = i + 1;
    }
    samples = bytes = 0;
    for (size_t i = parts->size(); i-- > begin + 1 && take((*parts)[i]);) {
        if (!gaps.is_possible(i - 1, samples)) end = i;
    }
    parts->erase(parts->begin() + static_cast<std::ptrdiff_t>(end), parts->end());
    parts->erase(parts->begin(), parts->begin() + static_cast<std::ptrdiff_t>(begin));
}

// The longest chains of all cores together, in the order of time: what no gap separates is one.
Timeline::Runs Timeline::parts() const {
    Runs parts;
    for (const Stream &stream : streams_) {
        for (const size_t i : longest_chain(stream.runs)) parts.push_back(stream.runs[i]);
    }
    std::sort(parts.begin(), parts.end(), [](const Run &a, const Run &b) { return a.low_ns < b.low_ns; });
    join(&parts, [](const Run *run, const Run &by) { return by.low_ns <= run->high_ns + kLate; });
    return parts;
}

void Timeline::finish() {
    for (Stream &stream : streams_) begin_run(&stream, {});
    const auto is_inside = [this](const Run &run) {
        return span_ && run.low_ns >= span_->first_ns && run.high_ns <= span_->newest_ns;
    };
    // What is taken off may have displaced other samples: these get another chance.
    for (size_t round = 0, taken_off = 1; taken_off > 0 && round < kRounds; ++round) {
        Runs recording = parts();
        taken_off = recording.size();
        trim(&recording);
        taken_off -= recording.size();
        if (!recording.empty()) span_ = TimeSpan{recording.front().low_ns, recording.back().high_ns};
        for (Stream &stream : streams_) {
            if (taken_off == 0) break;
            for (const size_t i : longest_chain(stream.runs)) stream.runs[i].sound = is_inside(stream.runs[i]);
        }
    }
    for (Stream &stream : streams_) {
        for (Run &run : stream.runs) run.sound = run.sound && is_inside(run);
        std::vector<bool> believed(stream.runs.size());
        for (const size_t i : longest_chain(stream.runs)) believed[i] = true;
        Runs astray;
        for (size_t i = 0; i < stream.runs.size(); ++i) {
            const Run &run = stream.runs[i];
            if (believed[i]) continue;
            astray.push_back(run);
            astray_ += run.samples;
            last_astray_ = std::max(last_astray_.value_or(0), run.end.offset);
        }
        stream.runs = std::move(astray);
    }
    rewind();
}

bool Timeline::believes(int core) {
    Stream &stream = streams_[static_cast<size_t>(core)];
    const uint64_t ordinal = stream.next_ordinal++;
    if (stream.next_run == stream.runs.size()) return true;
    const Run &run = stream.runs[stream.next_run];
    if (ordinal < run.ordinal) return true;
    if (ordinal + 1 == run.ordinal + run.samples) ++stream.next_run;
    return false;
}

void Timeline::rewind() {
    go_to({});
}

Timeline::Position Timeline::position() const {
    Position position = {};
    for (size_t i = 0; i < streams_.size(); ++i) position.cores[i] = {streams_[i].next_run, streams_[i].next_ordinal};
    return position;
}

void Timeline::go_to(const Position &position) {
    for (size_t i = 0; i < streams_.size(); ++i) {
        streams_[i].next_run = position.cores[i].run;
        streams_[i].next_ordinal = position.cores[i].ordinal;
    }
}

}  // namespace vestra_dump
