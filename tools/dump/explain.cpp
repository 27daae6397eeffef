#include "tools/dump/explain.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

#include "tools/dump/text.h"
#include "trace/percentages.h"

namespace vestra_dump {
namespace {

constexpr int64_t kNs = trace::kNsPerSecond;
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

// What counts. Each figure is above what a healthy set does by itself, with the reason.
constexpr double kLeastScore = 0.5;       // of a finding that is worth reading
constexpr int kFindingsMax = 20;          // nobody reads more
constexpr double kOver = 0.55;            // what was over before the moment may be the cause if it was long and strong
constexpr double kNoChange = 0.6;         // so may what has been so all the time
constexpr double kHogPercent = 30;        // of a core: a busy process of a healthy set takes less, but for some seconds
constexpr size_t kHogSeconds = 12;        // an application starts, and a channel changes, in less
constexpr double kWholeCore = 90;         // percent: no process needs that all the time
constexpr double kGrowthKib = 8192;       // caches and drawn pages come and go in steps of a few MiB
constexpr double kGrowthSeconds = 20;     // loading something takes less
constexpr double kStartSeconds = 60;      // a process that has just been started fills its memory for so long
constexpr double kBirthsPerSecond = 2;    // scripts start a handful at once, and then wait for them
constexpr size_t kStormBirths = 20;       // in all: fewer do not slow a set down
constexpr size_t kStormSeconds = 5;       // starting an application may take a few
constexpr double kAvailablePercent = 10;  // of memory: the kernel begins to reclaim what is in use
constexpr double kIoWaitPercent = 6;      // of all cores
constexpr size_t kIoWaitSeconds = 10;     // reading a large file takes less
constexpr double kHotDegrees = 65;        // processors throttle at 70 to 110
constexpr double kRiseDegrees = 15;       // load alone changes the temperature by less
constexpr double kThrottledShare = 0.8;   // of the CPU time before: what is left when the processor throttles
constexpr int64_t kVanishedLife = 60 * kNs;    // helpers end by themselves sooner
constexpr int64_t kVanishedBefore = 15 * kNs;  // one that was gone for longer did not trigger the dump
constexpr double kVanishedSilence = 2.2;       // times the longest silence before: one sample that is lost doubles it
constexpr double kGapSeconds = 3;              // a set that is busy reads a second or two late
constexpr double kGapIntervals = 3;            // times the usual interval of samples

/* ------------------------------ Series ------------------------------ */

// One figure a second. A figure that is not known is not a number.
using Series = std::vector<double>;

struct Stretch {
    size_t begin, end;  // [begin, end)
    size_t size() const { return end - begin; }
};

std::vector<double> known(const Series &series, Stretch part) {
    std::vector<double> figures;
    for (size_t i = part.begin; i < std::min(part.end, series.size()); ++i) {
        if (!std::isnan(series[i])) figures.push_back(series[i]);
    }
    return figures;
}

// The figure that a share `q` of all is below; not a number without figures.
double quantile(const Series &series, Stretch part, double q) {
    std::vector<double> figures = known(series, part);
    if (figures.empty()) return kUnknown;
    const auto place = static_cast<std::ptrdiff_t>(std::lround(q * static_cast<double>(figures.size() - 1)));
    std::nth_element(figures.begin(), figures.begin() + place, figures.end());
    return figures[static_cast<size_t>(place)];
}

double median(const Series &series, Stretch part) {
    return quantile(series, part, 0.5);
}

double mean(const Series &series, Stretch part) {
    const std::vector<double> figures = known(series, part);
    double sum = 0;
    for (const double figure : figures) sum += figure;
    return figures.empty() ? kUnknown : sum / static_cast<double>(figures.size());
}

// The stretch with the greatest sum of what is above the limit, less what is missing to it. Nothing if it is shorter, or
// if a fifth of its seconds are below the limit.
std::optional<Stretch> sustained(const Series &series, double limit, size_t least_seconds) {
    Stretch best = {0, 0};
    double best_sum = 0, sum = 0;
    for (size_t i = 0, begin = 0; i < series.size(); ++i) {
        sum += std::isnan(series[i]) ? 0 : series[i] - limit;
        if (sum <= 0) {
            sum = 0;
            begin = i + 1;
        } else if (sum > best_sum) {
            best_sum = sum;
            best = {begin, i + 1};
        }
    }
    if (best.size() < least_seconds || quantile(series, best, 0.2) < limit) return std::nullopt;
    return best;
}

// A rise to what a series is at its end.
struct Ramp {
    size_t begin, top;
    double low, high;
};

std::optional<Ramp> ramp_to_end(const Series &series) {
    constexpr size_t kTop = 5;  // seconds at the end
    const size_t size = series.size();
    if (size < 30) return std::nullopt;
    Ramp ramp = {0, 0, quantile(series, {0, size}, 0.25), median(series, {size - kTop, size})};
    for (int pass = 0; pass < 3; ++pass) {
        const double fifth = (ramp.high - ramp.low) / 5;
        if (!(fifth > 0)) return std::nullopt;
        size_t low = size - 1;  // the last second below a fifth of the rise; then the first above four fifths
        while (low > 0 && !(series[low] < ramp.low + fifth)) --low;
        ramp.top = low;
        while (ramp.top < size - 1 && !(series[ramp.top] >= ramp.high - fifth)) ++ramp.top;
        const size_t before = (ramp.top - low) / 3;
        ramp.begin = low - std::min(low, before);
        if (ramp.begin < 10) return std::nullopt;  // nothing to compare with
        ramp.low = median(series, {ramp.begin - std::min<size_t>(ramp.begin, 30), ramp.begin});
    }
    return ramp;
}

/* ------------------------------ Texts ------------------------------ */

// "40,120"
std::string grouped(double value) {
    std::string digits = std::to_string(static_cast<int64_t>(std::llround(value)));
    for (size_t place = digits.size(); place > 3 + (value < 0 ? 1U : 0U);) {
        place -= 3;
        digits.insert(place, ",");
    }
    return digits;
}

// In single quotes if a shell would take it apart.
std::string shell_word(const std::string &text) {
    const auto plain = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::string_view("_-./+").find(c) != std::string_view::npos;
    };
    if (!text.empty() && std::all_of(text.begin(), text.end(), plain)) return text;
    std::string word = "'";
    for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

double ratio(double value, double full) {
    return std::clamp(value / full, 0.0, 1.0);
}

// Of a finding that has what it must have, by how clear its two figures are, each 0 to 1.
double score_of(double one, double other) {
    return 0.6 + 0.2 * one + 0.2 * other;
}

/* ------------------------------ What is looked for ------------------------------ */

class Explainer {
  public:
    Explainer(const History &history, const std::string &path, int64_t first_ns)
        : history_(history),
          path_(shell_word(printable(path))),
          first_ns_(first_ns),
          first_second_(std::max<int64_t>(history.first_ns(), 0) / kNs),
          size_(history.newest_ns() < 0 ? 0 : static_cast<size_t>(history.newest_ns() / kNs - first_second_ + 1)) {
        for (const auto &[pid, process] : history.processes()) all_.push_back(&process);
        for (const History::Process &process : history.past()) all_.push_back(&process);
        std::sort(all_.begin(), all_.end(), [](const auto *a, const auto *b) {
            return a->pid != b->pid ? a->pid < b->pid : a->first_ns < b->first_ns;
        });
    }

    std::vector<Finding> findings() {
        if (size_ < 30) find_gaps();
        if (size_ >= 30) {  // less is no baseline
            find_growth();
            find_hogs();
            find_storms();
            find_pressure();
            find_io_wait();
            find_heat();
            find_vanished();
            find_gaps();
        }
        const auto is_weak = [](const Finding &finding) { return finding.score < kLeastScore; };
        findings_.erase(std::remove_if(findings_.begin(), findings_.end(), is_weak), findings_.end());
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](const Finding &a, const Finding &b) { return a.score > b.score; });
        if (findings_.size() > kFindingsMax) findings_.erase(findings_.begin() + kFindingsMax, findings_.end());
        return std::move(findings_);
    }

  private:
    using Process = History::Process;

    int64_t ns_of(size_t index) const { return (first_second_ + static_cast<int64_t>(index)) * kNs; }
    Stretch all() const { return {0, size_}; }
    // What the score of something is multiplied by that may have been over before the moment.
    double still(Stretch stretch) const {
        if (stretch.end + 5 >= size_) return 1;
        return kOver + (1 - kOver) * ratio(static_cast<double>(stretch.size()), 120);
    }

    // "00:02:11" since the dump's oldest sample.
    std::string clock(int64_t ns) const {
        const int64_t seconds = std::max<int64_t>(ns - first_ns_, 0) / kNs;
        char text[32];
        std::snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(seconds / 3600 % 100),
                      static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
        return text;
    }
    std::string between(int64_t from_ns, int64_t to_ns) const {
        return " between " + clock(from_ns) + " and " + clock(to_ns);
    }
    static std::string called(const Process &process) {
        return printable(process.name) + " (pid " + std::to_string(process.pid) + ")";
    }

    // A csv command for the time and some before; `filter`: a pattern of the rows to show.
    std::string csv(const std::string &table, int64_t from_ns, int64_t to_ns, const std::string &filter = {}) const {
        const int64_t from = std::max<int64_t>((from_ns - first_ns_) / kNs - 5, 0), to = (to_ns - first_ns_) / kNs + 1;
        return "vestra-dump csv " + table + "--from +" + std::to_string(from) + " --to +" + std::to_string(to) + " " +
               path_ + (filter.empty() ? "" : " | grep '" + filter + "'");
    }
    std::string csv_of(const Process &process, int64_t from_ns, int64_t to_ns) const {
        return csv("--processes ", from_ns, to_ns, "^[0-9]*," + std::to_string(process.pid) + ",");
    }

    Series vital(std::string_view column) const {
        Series series(size_, kUnknown);
        size_t type = 0;
        while (kVitalNames[type].column != column) ++type;
        for (const auto &[second, figures] : history_.seconds()) {
            const auto index = static_cast<size_t>(second - first_second_);
            if (second >= first_second_ && index < size_ && figures.knows(type) && std::isfinite(figures.vital[type])) {
                series[index] = figures.vital[type];
            }
        }
        return series;
    }

    // CPU usage in percent of a core, spread over the seconds between two points; 0 before and after them.
    Series usage(const Process &process) const {
        Series series(size_, 0);
        const int64_t begin_ms = history_.begin_ns() / 1'000'000 - first_second_ * 1000;
        for (size_t i = 1; i < process.points.size(); ++i) {
            const History::Point &a = process.points[i - 1], &b = process.points[i];
            const double seconds = (b.ms - a.ms) / 1000.0;
            const double percent = (b.ticks - a.ticks) * 100.0 / (trace::kTicksPerSecond * seconds);
            const auto index = [&](uint32_t ms) {
                return static_cast<size_t>(std::max<int64_t>(begin_ms + ms, 0) / 1000);
            };
            for (size_t at = index(a.ms) + 1; at <= index(b.ms) && at < size_; ++at) series[at] = percent;
        }
        return series;
    }

    Finding &add(const char *kind, const Process *process, int64_t from_ns, int64_t to_ns, double score) {
        Finding finding = {kind, {}, {}, from_ns, to_ns, score, {}, {}, {}};
        if (process != nullptr) {
            finding.pid = process->pid;
            finding.name = printable(process->name);
        }
        findings_.push_back(std::move(finding));
        return findings_.back();
    }

    void find_growth();
    void find_hogs();
    void find_storms();
    void find_pressure();
    void find_io_wait();
    void find_heat();
    void find_vanished();
    void find_gaps();

    const History &history_;
    const std::string path_;
    const int64_t first_ns_, first_second_;
    const size_t size_;  // seconds
    std::vector<const Process *> all_;
    std::vector<Finding> findings_;
};

// Resident memory that is flat, and then rises until the end: the bend is where that fits best, by least squares.
struct Bend {
    size_t point;
    double level, rate;  // KiB; KiB a second from there on
};

Bend find_bend(const std::vector<History::Point> &points) {
    Bend best = {0, 0, 0};
    double best_gain = 0;
    const double count = static_cast<double>(points.size());
    double all_y = 0;
    for (const History::Point &point : points) all_y += point.rss;
    // Sums over the points from i on; times are relative to the last point.
    double n = 0, t = 0, tt = 0, y = 0, ty = 0;
    for (size_t i = points.size(); i-- > 0;) {
        const double time = (static_cast<double>(points[i].ms) - points.back().ms) / 1000, rss = points[i].rss;
        n += 1;
        t += time;
        tt += time * time;
        y += rss;
        ty += time * rss;
        // y = level + rate * u with u = max(0, t - time)
        const double u = t - time * n, uu = tt - 2 * time * t + time * time * n, uy = ty - time * y;
        const double spread = uu - u * u / count, together = uy - u * all_y / count;
        if (spread <= 0 || together <= 0) continue;
        const double gain = together * together / spread;  // by which the sum of squares becomes less
        if (gain > best_gain) {
            best_gain = gain;
            const double rate = together / spread;
            best = {i, (all_y - rate * u) / count, rate};
        }
    }
    return best;
}

void Explainer::find_growth() {
    for (const Process *process : all_) {
        const auto &points = process->points;
        if (points.size() < 20 || history_.newest_ns() - process->last_ns > kVanishedLife) continue;
        const Bend bend = find_bend(points);
        const double end = points.back().rss, seconds = (points.back().ms - points[bend.point].ms) / 1000.0;
        const double growth = end - bend.level;
        if (std::min(growth, bend.rate * seconds) < kGrowthKib || seconds < kGrowthSeconds) continue;
        // It must be more than the process does by itself, go on in both halves, and nothing must be given back.
        double least = bend.level, most = 0, highest = 0, given_back = 0, half = 0;
        for (size_t i = 0; i < points.size(); ++i) {
            const double rss = points[i].rss;
            if (i < bend.point) {
                least = std::min(least, rss);
                most = std::max(most, rss);
                continue;
            }
            highest = std::max(highest, rss);
            given_back = std::max(given_back, highest - rss);
            if ((points[i].ms - points[bend.point].ms) / 1000.0 <= seconds / 2) half = rss;
        }
        const double before = (points[bend.point].ms - points.front().ms) / 1000.0;
        const double usual = bend.point > 0 ? most - least : 0;
        if (before < kGrowthSeconds && seconds < kStartSeconds) continue;
        if (bend.point > 0 && end - most < std::max(kGrowthKib * 0.75, usual * 0.35)) continue;
        if (given_back > std::max(growth * 0.1, usual) || half - bend.level < growth * 0.1 ||
            end - half < growth * 0.1) {
            continue;
        }
        const int64_t from = history_.begin_ns() + int64_t{points[bend.point].ms} * 1'000'000;
        const double score = score_of(ratio(growth, 131'072), ratio(growth, 4 * usual + 1));
        Finding &finding = add("memory-growth", process, from, process->last_ns, score);
        finding.text = called(*process) + " grew from " + grouped(bend.level) + " to " + grouped(end) + " KiB" +
                       between(from, process->last_ns) + ", " + grouped(bend.rate) +
                       " KiB a second, without giving memory back";
        finding.command = csv_of(*process, from, process->last_ns);
        finding.numbers = {{"from_kib", std::round(bend.level)},
                           {"to_kib", end},
                           {"kib_per_second", std::round(bend.rate)},
                           {"usual_range_kib", usual}};
    }
}

void Explainer::find_hogs() {
    for (const Process *process : all_) {
        if (process->ticks < static_cast<int64_t>(kHogSeconds * kHogPercent / 100 * trace::kTicksPerSecond)) continue;
        const Series series = usage(*process);
        // What it usually takes: a low quantile, so that a hog may take most of the time, and a lower one if that is
        // far less, because then it took nearly all the time.
        const double least = quantile(series, all(), 0.1), low = quantile(series, all(), 0.25);
        const double usual = least < low / 2 ? least : low;
        auto stretch = sustained(series, std::max(kHogPercent, usual + std::min(usual + 10, 40.0)), kHogSeconds);
        const bool always = !stretch && least >= kWholeCore;
        if (always) stretch = all();
        if (!stretch || (!always && stretch->begin < 10)) continue;
        const double taken = mean(series, *stretch);
        double score = score_of(ratio(taken, 100), ratio(static_cast<double>(stretch->size()), 60)) * still(*stretch);
        if (always) score *= kNoChange;
        const int64_t from = ns_of(stretch->begin), to = std::min(ns_of(stretch->end), history_.newest_ns());
        const double before = median(series, {0, stretch->begin});
        Finding &finding = add("cpu-hog", process, from, to, score);
        finding.text = called(*process) + " took " + grouped(taken) + " % of a core" + between(from, to) +
                       (always ? ", all the time" : ", after " + grouped(before) + " % before");
        finding.command = csv_of(*process, from, to);
        finding.numbers = {{"percent_of_a_core", taken}, {"before", always ? taken : before}};
    }
}

void Explainer::find_storms() {
    auto births = history_.births();
    std::sort(births.begin(), births.end(), [](const auto &a, const auto &b) { return a.parent < b.parent; });
    for (size_t begin = 0, end = 0; begin < births.size(); begin = end) {
        const int32_t parent = births[begin].parent;
        while (end < births.size() && births[end].parent == parent) ++end;
        if (end - begin < kStormBirths) continue;
        Series series(size_, 0);
        for (size_t i = begin; i < end; ++i) {
            const int64_t index = births[i].second - first_second_;
            if (index >= 0 && index < static_cast<int64_t>(size_)) ++series[static_cast<size_t>(index)];
        }
        const auto stretch = sustained(series, kBirthsPerSecond, kStormSeconds);
        if (!stretch) continue;
        double count = 0, outside = 0;
        for (size_t i = 0; i < size_; ++i) (i >= stretch->begin && i < stretch->end ? count : outside) += series[i];
        const double rate = count / static_cast<double>(stretch->size());
        const double usual = outside / static_cast<double>(std::max<size_t>(size_ - stretch->size(), 1));
        if (count < kStormBirths || rate < 5 * usual) continue;
        std::map<std::string, size_t> names;
        for (const Process *process : all_) {
            if (process->parent == parent && process->first_ns >= ns_of(stretch->begin)) ++names[process->name];
        }
        const auto most = std::max_element(names.begin(), names.end(),
                                           [](const auto &a, const auto &b) { return a.second < b.second; });
        const int64_t from = ns_of(stretch->begin), to = std::min(ns_of(stretch->end), history_.newest_ns());
        const auto found = history_.processes().find(parent);
        const Process *process = found == history_.processes().end() ? nullptr : &found->second;
        const double score = score_of(ratio(rate, 20), ratio(count, 300)) * still(*stretch);
        Finding &finding = add("process-storm", process, from, to, score);
        finding.pid = parent;
        finding.text = (process != nullptr ? called(*process) : "The process with pid " + std::to_string(parent)) +
                       " started " + grouped(count) + " processes" + between(from, to) + ", " + fixed(rate, 1) +
                       " a second" + (most == names.end() ? "" : ", many of them " + printable(most->first));
        finding.command = csv("--processes ", from, to, "^[0-9]*,[0-9]*," + std::to_string(parent) + ",");
        finding.numbers = {{"processes", count}, {"per_second", rate}, {"per_second_before", usual}};
    }
}

void Explainer::find_pressure() {
    const Series used = vital("memory_used"), swap = vital("swap_used"), cache = vital("page_cache");
    Series both = used;  // swap that fills shows the begin better than memory, which may have been short before
    for (size_t i = 0; i < size_; ++i) both[i] += swap[i];
    const auto ramp = ramp_to_end(both);
    if (!ramp) return;
    const Stretch before = {0, ramp->begin}, end = {size_ - 5, size_};
    const double left = 100 - median(used, end), least = 100 - quantile(used, before, 0.95);
    const double swapped =
        median(swap, end) - median(swap, {ramp->begin - std::min<size_t>(ramp->begin, 30), ramp->begin});
    const double cache_left = median(cache, end) / std::max(quantile(cache, before, 0.05), 1.0);
    if (!(left <= kAvailablePercent && left <= least / 2 && (swapped >= 3 || cache_left <= 0.6))) return;
    const int64_t from = ns_of(ramp->begin), to = history_.newest_ns();
    const double usual = 100 - median(used, {ramp->begin - std::min<size_t>(ramp->begin, 30), ramp->begin});
    double score = score_of(ratio(kAvailablePercent - left, kAvailablePercent), ratio(swapped, 20));
    for (const Finding &finding : findings_) {
        // A process that grew is the cause, and this the effect.
        if (finding.from_ns < to && std::string_view(finding.kind) == "memory-growth")
            score = std::min(score, finding.score - 0.1);
    }
    Finding &finding = add("memory-pressure", nullptr, from, to, score);
    finding.text =
        "Available memory fell from " + grouped(usual) + " to " + grouped(left) + " %" +
        between(from, ns_of(ramp->top)) +
        (swapped >= 1
             ? ", and swap in use rose by " + grouped(swapped) + " points to " + grouped(median(swap, end)) + " %"
             : ", and page cache shrank to " + grouped(cache_left * 100) + " % of its least before");
    finding.command = csv("", from, to);
    finding.numbers = {{"available_percent", left}, {"available_percent_before", usual}, {"swap_points", swapped}};
}

void Explainer::find_io_wait() {
    const Series series = vital("io_wait");
    const double usual = quantile(series, all(), 0.25);
    const auto stretch = sustained(series, std::max(kIoWaitPercent, usual * 2 + 2), kIoWaitSeconds);
    if (!stretch) return;
    const double waited = mean(series, *stretch), before = median(series, {0, stretch->begin});
    const int64_t from = ns_of(stretch->begin), to = std::min(ns_of(stretch->end), history_.newest_ns());
    const auto length = static_cast<double>(stretch->size());
    Finding &finding =
        add("io-wait", nullptr, from, to, score_of(ratio(waited, 40), ratio(length, 60)) * still(*stretch));
    finding.text = "All cores waited for storage for " + grouped(waited) + " % of the time" + between(from, to) +
                   (std::isnan(before) ? "" : ", after " + grouped(before) + " % before");
    finding.command = csv("", from, to);
    finding.numbers = {{"percent", waited}, {"before", before}};
}

void Explainer::find_heat() {
    const Series heat = vital("temperature_average"), cpu = vital("cpu_total");
    const auto ramp = ramp_to_end(heat);
    if (!ramp || ramp->high < kHotDegrees || ramp->high - ramp->low < kRiseDegrees) return;
    const double before = median(cpu, {ramp->begin - std::min<size_t>(ramp->begin, 30), ramp->begin});
    const double after = median(cpu, {std::min(ramp->top + 1, size_ - 5), size_});
    const bool throttled = after <= before * kThrottledShare;
    const int64_t from = ns_of(ramp->begin), to = history_.newest_ns();
    Finding &finding =
        add("overheating", nullptr, from, to, score_of(throttled ? 1 : 0, ratio(ramp->high - kHotDegrees, 30)));
    finding.text =
        "The temperature rose from " + grouped(ramp->low) + " to " + grouped(ramp->high) + " degrees" +
        between(from, to) +
        (throttled ? ", and then CPU usage fell from " + grouped(before) + " to " + grouped(after) + " %" : "");
    finding.command = csv("", from, to);
    finding.numbers = {
        {"degrees", ramp->high}, {"degrees_before", ramp->low}, {"cpu_percent", after}, {"cpu_percent_before", before}};
}

void Explainer::find_vanished() {
    const int64_t newest = history_.newest_ns();
    std::vector<const Process *> gone;
    size_t alive = 0;
    for (const Process *process : all_) {
        const int64_t silence = newest - process->last_ns, life = process->last_ns - process->first_ns;
        if (silence < 2 * kNs) ++alive;
        if (process->samples < 20 || life < kVanishedLife || silence > kVanishedBefore) continue;
        if (static_cast<double>(silence) <
            kVanishedSilence * static_cast<double>(std::max(process->longest_ns, kNs / 2)))
            continue;
        gone.push_back(process);
    }
    if (gone.size() > alive / 2) return;  // a filter was set, or the module stopped
    for (const Process *process : gone) {
        const auto seconds = [](int64_t ns) { return trace::to_seconds(ns); };
        const int64_t silence = newest - process->last_ns;
        const double usual = seconds(process->last_ns - process->first_ns) / static_cast<double>(process->samples - 1);
        Finding &finding =
            add("vanished", process, process->last_ns, newest,
                score_of(ratio(seconds(silence), 5 * seconds(process->longest_ns)),
                         ratio(seconds(process->last_ns - process->first_ns), static_cast<double>(size_))));
        finding.text = called(*process) + " was reported every " + fixed(usual, 1) + " s until " +
                       clock(process->last_ns) + ", and not in the last " + fixed(seconds(silence), 1) + " s";
        finding.command = csv_of(*process, process->last_ns, newest);
        finding.numbers = {{"silent_s", seconds(silence)}, {"longest_silence_before_s", seconds(process->longest_ns)}};
    }
}

void Explainer::find_gaps() {
    Series intervals;
    const SecondVitals *before = nullptr;
    for (const auto &[second, figures] : history_.seconds()) {
        if (before != nullptr) intervals.push_back(trace::to_seconds(figures.time_ns - before->time_ns));
        before = &figures;
    }
    const double usual = intervals.empty() ? 1 : median(intervals, {0, intervals.size()});
    for (const History::Gap &gap : history_.gaps()) {
        const double seconds = trace::to_seconds(gap.to_ns - gap.from_ns);
        if (seconds < std::max(kGapSeconds, kGapIntervals * usual)) continue;
        Finding &finding = add("gap", nullptr, gap.from_ns, gap.to_ns, score_of(ratio(seconds, 30), 0));
        finding.text = "Nothing was recorded for " + fixed(seconds, 1) + " s," + between(gap.from_ns, gap.to_ns);
        finding.command = csv("", gap.from_ns, gap.to_ns);
        finding.numbers = {{"seconds", seconds}, {"usual_interval_s", usual}};
    }
}

}  // namespace

std::vector<Finding> explain(const History &history, const std::string &path, int64_t first_ns) {
    return Explainer(history, path, first_ns).findings();
}

nlohmann::ordered_json to_json(const std::vector<Finding> &findings) {
    using nlohmann::ordered_json;
    ordered_json list = ordered_json::array();
    for (const Finding &finding : findings) {
        ordered_json evidence = {{"command", finding.command}};
        for (const auto &[name, number] : finding.numbers) {
            evidence[name] =
                std::isfinite(number) ? ordered_json(std::round(number * 100) / 100) : ordered_json(nullptr);
        }
        list.push_back({{"kind", finding.kind},
                        {"pid", finding.pid ? ordered_json(*finding.pid) : ordered_json(nullptr)},
                        {"name", finding.name.empty() ? ordered_json(nullptr) : ordered_json(finding.name)},
                        {"from_ns", finding.from_ns},
                        {"to_ns", finding.to_ns},
                        {"score", std::round(finding.score * 100) / 100},
                        {"text", finding.text},
                        {"evidence", evidence}});
    }
    return {{"findings", list}};
}

}  // namespace vestra_dump
