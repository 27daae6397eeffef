#include "tools/dump/timeline.h"

#include <algorithm>
#include <map>

namespace vestra_dump {
namespace {

constexpr int64_t kTimeMax = INT64_MAX / 2;           // ns; sums with it do not overflow
constexpr uint64_t kClusterMax = 160 * 1024;          // bytes: a storage cluster, and the frames at its ends
constexpr int64_t kPause = 10 * trace::kNsPerSecond;  // a gap that a second core can confirm
constexpr int64_t kApart = 5 * trace::kNsPerSecond;   // between the beginnings, or the ends, of different cores

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
    run->end = by.end;
}

// Halves the number of runs: short ones next to each other become one that is not sound.
template <class Run>
void coarsen(std::vector<Run> *runs) {
    const size_t wanted = runs->size() / 2;
    for (uint64_t most = 1; runs->size() > wanted; most *= 2) {
        std::vector<Run> fewer;
        for (const Run &run : *runs) {
            if (!fewer.empty() && fewer.back().samples <= most && run.samples <= most) {
                extend(&fewer.back(), run);
                fewer.back().sound = false;
            } else {
                fewer.push_back(run);
            }
        }
        *runs = std::move(fewer);
    }
}

template <class Run>
uint64_t samples_of(const std::vector<Run> &chain) {
    uint64_t samples = 0;
    for (const Run &run : chain) samples += run.samples;
    return samples;
}

// The chain with most samples among those in which every run begins after the end of the run before, or a little earlier.
template <class Run>
std::vector<Run> longest_chain(const std::vector<Run> &runs) {
    constexpr size_t kNone = SIZE_MAX;
    std::vector<uint64_t> samples(runs.size());  // of the longest chain that ends with a run
    std::vector<size_t> before(runs.size(), kNone);
    std::map<int64_t, size_t> best;  // by end: the chains that no chain with an earlier end surpasses;
                                     // of two with as many samples, the later one leaves the smaller gap
    for (size_t i = 0; i < runs.size(); ++i) {
        const Run &run = runs[i];
        if (!run.sound) continue;
        samples[i] = run.samples;
        auto place = best.upper_bound(sum(run.low_ns, Timeline::kLate));
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
    std::vector<Run> chain;
    for (size_t i = best.empty() ? kNone : best.rbegin()->second; i != kNone; i = before[i]) chain.push_back(runs[i]);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

// What is known about the gaps of a chain.
template <class Run>
class Gaps {
  public:
    explicit Gaps(const std::vector<Run> &chain) : chain_(chain) {
        double bytes = 0, length = 0;
        for (const Run &run : chain) {
            length += static_cast<double>(run.high_ns - run.low_ns);
            bytes += static_cast<double>(run.end - run.begin);
        }
        if (bytes > 0) ns_per_byte_ = length / bytes;
        if (chain.size() <= kMany) return;
        std::vector<int64_t> gaps;
        for (size_t i = 0; i + 1 < chain.size(); ++i) gaps.push_back(gap(i));
        std::nth_element(gaps.begin(), gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2), gaps.end());
        usual_ = gaps[gaps.size() / 2];
    }

    // Whether the gap after a run has a reason: the bytes that are damaged there, or that gaps are usual.
    bool has_reason(size_t i) const {
        constexpr double kTimes = 4;  // the rate of a recording varies
        const double bytes = static_cast<double>(chain_[i + 1].begin - chain_[i].end);
        const double explained = std::max(bytes * ns_per_byte_, static_cast<double>(usual_)) * kTimes;
        return static_cast<double>(gap(i)) <= explained + static_cast<double>(Timeline::kLate);
    }

    int64_t gap(size_t i) const { return sum(chain_[i + 1].low_ns, -chain_[i].high_ns); }

  private:
    static constexpr size_t kMany = 8;  // gaps are usual
    const std::vector<Run> &chain_;
    double ns_per_byte_ = 0;
    int64_t usual_ = 0;
};

}  // namespace

void Timeline::add(int core, int64_t time_ns, uint64_t offset) {
    Stream &stream = streams_[static_cast<size_t>(core)];
    Run &open = stream.open;
    // Nearly all samples end here.
    if (open.samples > 0 && time_ns >= open.high_ns - kLate && time_ns <= open.high_ns + kStep) {
        ++open.samples;
        open.high_ns = std::max(open.high_ns, time_ns);
        open.low_ns = std::min(open.low_ns, time_ns);
        open.end = offset;
    } else {
        begin_run(&stream, {stream.samples, 1, time_ns, time_ns, offset, offset, time_ns >= 0 && time_ns <= kTimeMax});
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
    if (stream->runs.size() >= kRunsMax) coarsen(&stream->runs);
}

// Whether another core has samples near that time.
bool Timeline::has_other(const Stream &stream, int64_t time_ns) const {
    return std::any_of(streams_.begin(), streams_.end(), [&](const Stream &other) {
        return &other != &stream && std::any_of(other.runs.begin(), other.runs.end(), [time_ns](const Run &run) {
            return run.sound && run.low_ns <= time_ns + kLate && run.high_ns >= time_ns - kLate;
        });
    });
}

// Takes short runs off both ends of a chain that a gap without a reason separates from the rest.
void Timeline::trim(const Stream &stream, Runs *chain) const {
    const Gaps<Run> gaps(*chain);
    const auto is_wrong = [&](size_t gap, int64_t edge_ns) {
        return !gaps.has_reason(gap) && (gaps.gap(gap) > kPause || !has_other(stream, edge_ns));
    };
    // More than a cluster of another recording.
    const auto is_sure = [&, all = samples_of(*chain)](uint64_t samples, uint64_t bytes) {
        return 4 * samples >= all || bytes > kClusterMax;
    };
    size_t begin = 0, end = chain->size();
    uint64_t samples = 0;
    for (size_t i = 0; i + 1 < chain->size(); ++i) {
        const Run &run = (*chain)[i];
        samples += run.samples;
        if (is_sure(samples, run.end - chain->front().begin)) break;
        if (is_wrong(i, run.high_ns)) begin = i + 1;
    }
    samples = 0;
    for (size_t i = chain->size(); i-- > begin + 1;) {
        const Run &run = (*chain)[i];
        samples += run.samples;
        if (is_sure(samples, chain->back().end - run.begin)) break;
        if (is_wrong(i - 1, run.low_ns)) end = i;
    }
    chain->erase(chain->begin() + static_cast<std::ptrdiff_t>(end), chain->end());
    chain->erase(chain->begin(), chain->begin() + static_cast<std::ptrdiff_t>(begin));
}

// Begins with the core that has most samples and adds what the others have next to it. Other times are astray.
void Timeline::find_span(const std::array<Runs, trace::kCoreCount> &chains) {
    const auto main = std::max_element(chains.begin(), chains.end(),
                                       [](const auto &a, const auto &b) { return samples_of(a) < samples_of(b); });
    if (main->empty()) return;
    int64_t low = INT64_MAX, high = 0;
    Runs all;
    for (const auto &chain : chains) all.insert(all.end(), chain.begin(), chain.end());
    for (const Run &run : *main) {
        low = std::min(low, run.low_ns);
        high = std::max(high, run.high_ns);
    }
    std::sort(all.begin(), all.end(), [](const Run &a, const Run &b) { return a.low_ns < b.low_ns; });
    for (const Run &run : all) {
        if (run.low_ns <= sum(high, kApart) && run.high_ns >= low) high = std::max(high, run.high_ns);
    }
    std::sort(all.begin(), all.end(), [](const Run &a, const Run &b) { return a.high_ns > b.high_ns; });
    for (const Run &run : all) {
        if (run.high_ns >= low - kApart && run.low_ns <= high) low = std::min(low, run.low_ns);
    }
    span_ = TimeSpan{low, high};
}

void Timeline::finish() {
    for (Stream &stream : streams_) begin_run(&stream, {});
    std::array<Runs, trace::kCoreCount> chains;
    for (size_t core = 0; core < streams_.size(); ++core) {
        chains[core] = longest_chain(streams_[core].runs);
        trim(streams_[core], &chains[core]);
    }
    find_span(chains);
    for (size_t core = 0; core < streams_.size(); ++core) {
        Runs astray;
        auto believed = chains[core].begin();
        for (const Run &run : streams_[core].runs) {
            if (believed != chains[core].end() && believed->ordinal == run.ordinal) {
                ++believed;
                if (run.low_ns >= span_->first_ns && run.high_ns <= span_->newest_ns) continue;
            }
            astray.push_back(run);
            astray_ += run.samples;
            last_astray_ = std::max(last_astray_.value_or(0), run.end);
        }
        streams_[core].runs = std::move(astray);
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
    for (Stream &stream : streams_) {
        stream.next_run = 0;
        stream.next_ordinal = 0;
    }
}

}  // namespace vestra_dump
