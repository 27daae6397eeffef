#include "tools/dump/comparison.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

using nlohmann::ordered_json;

// The smallest changes that count. A set that does the same all the time varies by less.
constexpr double kVitalFloors[kVitalCount] = {
    100,       2,                          // context switches, running processes
    2,         2,         2,               // CPU, %
    3,         3,         3,        3, 3,  // temperatures
    2,                                     // I/O wait, %
    4,                                     // memory used, %
    15,                                    // swap used, %: what was swapped out stays there for long
    0.5,                                   // load
    16 * 1024, 16 * 1024, 16 * 1024        // KiB
};

// The three figures of a vital.
struct Statistic {
    const char *name;
    const char *title;
    double factor;  // of the tolerance
    double (*of)(const Levels &levels);
};
constexpr Statistic kStatistics[] = {
    {"mean", "mean", 1, [](const Levels &levels) { return levels.mean(); }},
    {"p95", "95th percentile", 1, [](const Levels &levels) { return levels.percentile(95); }},
    {"peak", "peak", 2, [](const Levels &levels) { return levels.peak(); }}};

// The three figures of a name's processes.
struct NameFigure {
    const char *name;
    const char *title;
    const char *unit;
    double floor;
    double (*of)(const NameFigures &figures, const Compared &dump);
};
constexpr NameFigure kNameFigures[] = {
    {"cpu_percent", "CPU, mean", "%", 0.5,
     [](const NameFigures &figures, const Compared &dump) {
         const double ticks = trace::ticks_in(dump.overview.summary.seconds());
         return ticks > 0 ? figures.cpu_ticks * 100 / ticks : 0;
     }},
    {"peak_rss_kib", "memory, peak", "KiB", 2048,
     [](const NameFigures &figures, const Compared &) { return static_cast<double>(figures.peak_rss); }},
    {"growth_kib_per_minute", "memory, growth", "KiB/min", 1024, [](const NameFigures &figures, const Compared &dump) {
         const double growth = figures.growth();
         return growth == 0 ? 0 : growth / dump.profile.minutes_of_growth();
     }}};

class Comparing {
  public:
    Comparing(const Compared &a, const Compared &b, double tolerance) : a_(a), b_(b), tolerance_(tolerance) {}

    std::vector<Difference> all() {
        for (size_t type = 0; type < kVitalCount; ++type) compare_vital(type);
        for (const auto &[name, figures] : a_.profile.names) {
            const auto other = b_.profile.names.find(name);
            compare_name(name, &figures, other == b_.profile.names.end() ? nullptr : &other->second);
        }
        for (const auto &[name, figures] : b_.profile.names) {
            if (a_.profile.names.count(name) == 0) compare_name(name, nullptr, &figures);
        }
        std::stable_sort(found_.begin(), found_.end(),
                         [](const Difference &x, const Difference &y) { return x.weight > y.weight; });
        return std::move(found_);
    }

  private:
    // Keeps the greatest difference of one vital or name.
    static void consider(Difference *most, const Difference &candidate) {
        if (most->figure == nullptr || candidate.weight > most->weight) *most = candidate;
    }

    bool differ(double a, double b, double floor, double factor = 1) const {
        const double change = std::fabs(b - a), part = tolerance_ / 100 * factor;
        return change > floor && change > part * std::max(std::fabs(a), std::fabs(b));
    }

    void compare_vital(size_t type) {
        const VitalName &vital = kVitalNames[type];
        const Levels &a = a_.profile.vitals[type], &b = b_.profile.vitals[type];
        const bool in_a = a.count() > 0, in_b = b.count() > 0;
        if (!in_a && !in_b) return;
        Difference most = {};
        for (const Statistic &statistic : kStatistics) {
            Difference found = {
                Difference::kVital, vital.column, vital.label, statistic.name, statistic.title, vital.unit, {}, {}, 1};
            if (in_a) found.a = statistic.of(a);
            if (in_b) found.b = statistic.of(b);
            if (in_a && in_b) {
                if (!differ(*found.a, *found.b, kVitalFloors[type], statistic.factor)) continue;
                found.weight = std::fabs(*found.b - *found.a) / kVitalFloors[type];
            }
            consider(&most, found);
        }
        if (most.figure != nullptr) found_.push_back(most);
    }

    // A name that only one recording has counts if it is there in half of its windows, or uses the CPU. Its figures are
    // compared with 0.
    void compare_name(const std::string &name, const NameFigures *a, const NameFigures *b) {
        static const NameFigures kNone;
        const Difference::Kind kind = a == nullptr   ? Difference::kAppeared
                                      : b == nullptr ? Difference::kVanished
                                                     : Difference::kProcess;
        const bool alone = kind != Difference::kProcess;
        const NameFigures &in_a = a != nullptr ? *a : kNone, &in_b = b != nullptr ? *b : kNone;
        const bool stays =
            a != nullptr ? in_a.windows * 2 >= a_.profile.windows() : in_b.windows * 2 >= b_.profile.windows();
        Difference most = {};
        for (const NameFigure &figure : kNameFigures) {
            const bool is_cpu = &figure == kNameFigures;
            const double x = figure.of(in_a, a_), y = figure.of(in_b, b_);
            const bool differs = differ(x, y, figure.floor);
            if (!(alone ? stays || (is_cpu && differs) : differs)) continue;
            Difference found = {kind,
                                printable(name),
                                printable(name),
                                figure.name,
                                figure.title,
                                figure.unit,
                                {},
                                {},
                                std::fabs(y - x) / figure.floor};
            if (a != nullptr) found.a = x;
            if (b != nullptr) found.b = y;
            consider(&most, found);
        }
        if (most.figure != nullptr) found_.push_back(most);
    }

    const Compared &a_, &b_;
    const double tolerance_;
    std::vector<Difference> found_;
};

// Nothing where there is nothing to compare with.
std::optional<double> change_percent(const Difference &difference) {
    if (!difference.a || !difference.b || *difference.a == 0) return std::nullopt;
    return (*difference.b - *difference.a) * 100 / std::fabs(*difference.a);
}

const char *describe(Difference::Kind kind) {
    static constexpr const char *kNames[] = {"vital", "process", "appeared", "vanished"};
    return kNames[kind];
}

ordered_json number(const std::optional<double> &value) {
    return value ? ordered_json(*value) : ordered_json();
}

ordered_json dump_json(const Compared &dump) {
    const Summary &summary = dump.overview.summary;
    const auto &trailer = summary.totals.trailer;
    return {{"file", printable(dump.overview.path)},
            {"build", trailer ? ordered_json(printable(trailer->build)) : ordered_json()},
            {"model", trailer ? ordered_json(printable(trailer->model)) : ordered_json()},
            {"seconds", summary.seconds()},
            {"clean", summary.totals.is_clean()}};
}

ordered_json levels_json(const Levels &levels) {
    ordered_json json;
    if (levels.count() == 0) return json;
    for (const Statistic &statistic : kStatistics) json[statistic.name] = statistic.of(levels);
    return json;
}

ordered_json name_json(const Compared &dump, const std::string &name) {
    ordered_json json;
    const auto found = dump.profile.names.find(name);
    if (found == dump.profile.names.end()) return json;
    for (const NameFigure &figure : kNameFigures) json[figure.name] = figure.of(found->second, dump);
    return json;
}

std::string value_text(const std::optional<double> &value, std::string_view unit) {
    return value ? fixed(*value, unit.substr(0, 3) == "KiB" ? 0 : 2) : "-";
}

std::string change_text(const Difference &difference) {
    if (difference.kind == Difference::kAppeared || difference.kind == Difference::kVanished) {
        return describe(difference.kind);
    }
    const auto percent = change_percent(difference);
    return percent ? (*percent > 0 ? "+" : "") + fixed(*percent, 0) + " %" : "";
}

}  // namespace

/* ------------------------------ Figures ------------------------------ */

// The bucket of a value: its sign, its power of two, and the next seven bits. Values below 2^-20 are 0.
static int bucket_of(double value) {
    constexpr int kParts = 128, kLeastPower = -20;
    int power = 0;
    const double fraction = std::frexp(std::fabs(value), &power);  // 0.5 up to 1
    if (!(fraction > 0) || power <= kLeastPower) return 0;
    const int bucket =
        1 + (std::min(power, 64) - kLeastPower) * kParts + static_cast<int>((fraction - 0.5) * 2 * kParts);
    return value < 0 ? -bucket : bucket;
}

void Levels::add(double value) {
    if (!std::isfinite(value)) return;
    const auto [found, added] = buckets_.try_emplace(bucket_of(value), Bucket{0, value});
    ++found->second.count;
    found->second.greatest = std::max(found->second.greatest, value);
    peak_ = count_ == 0 ? value : std::max(peak_, value);
    sum_ += value;
    ++count_;
}

double Levels::percentile(double percent) const {
    const double rank = std::ceil(static_cast<double>(count_) * percent / 100);
    uint64_t below = 0;
    for (const auto &[index, bucket] : buckets_) {
        below += bucket.count;
        if (static_cast<double>(below) >= rank) return bucket.greatest;
    }
    return peak_;
}

double NameFigures::growth() const {
    if (first_least > first_greatest || last_least > last_greatest) return 0;
    if (last_least > first_greatest) return static_cast<double>(last_least - first_greatest);
    if (last_greatest < first_least) return -static_cast<double>(first_least - last_greatest);
    return 0;
}

Profile::Profile(const std::optional<TimeSpan> &span) : span_(span.value_or(TimeSpan{0, 0})) {}

void Profile::on_second(const SecondVitals &second) {
    for (size_t type = 0; type < kVitalCount; ++type) {
        if (second.knows(type)) vitals[type].add(second.vital[type]);
    }
}

void Profile::on_process(const SwitchSample &sample, const Process &process) {
    const int64_t window = sample.time_ns / kWindowNs;
    if (!window_ || window > *window_) {
        end_window();
        window_ = window;
    }
    auto found = names.find(process.name);
    if (found == names.end()) {
        full = full || names.size() >= kNamesMax;
        if (full) return;
        found = names.try_emplace(process.name).first;
    }
    found->second.cpu_ticks += static_cast<double>(process.used_ticks);
    if (in_window_.size() < Processes::kMax) in_window_[process.number] = {&found->second, sample.rss};
}

void Profile::end() {
    end_window();
}

void Profile::end_window() {
    if (in_window_.empty()) return;
    ++windows_;
    std::unordered_map<NameFigures *, uint64_t> sums;
    for (const auto &[number, process] : in_window_) sums[process.name] += process.rss;
    in_window_.clear();
    for (const auto &[name, rss] : sums) {
        NameFigures &figures = *name;
        ++figures.windows;
        figures.peak_rss = std::max(figures.peak_rss, rss);
        if (*window_ < first_third()) {
            figures.first_least = std::min(figures.first_least, rss);
            figures.first_greatest = std::max(figures.first_greatest, rss);
        }
        if (*window_ >= last_third()) {
            figures.last_least = std::min(figures.last_least, rss);
            figures.last_greatest = std::max(figures.last_greatest, rss);
        }
    }
}

int64_t Profile::first_third() const {
    return (span_.first_ns + (span_.newest_ns - span_.first_ns) / 3) / kWindowNs;
}

int64_t Profile::last_third() const {
    return (span_.newest_ns - (span_.newest_ns - span_.first_ns) / 3 - 1) / kWindowNs + 1;
}

double Profile::minutes_of_growth() const {
    return trace::to_seconds((last_third() - first_third() + 1) * kWindowNs) / 60;
}

/* ------------------------------ The comparison ------------------------------ */

std::vector<Difference> compare(const Compared &a, const Compared &b, double tolerance) {
    return Comparing(a, b, tolerance).all();
}

ordered_json to_json(const Compared &a, const Compared &b, double tolerance,
                     const std::vector<Difference> &differences) {
    ordered_json json = {{"a", dump_json(a)},
                         {"b", dump_json(b)},
                         {"tolerance_percent", tolerance},
                         {"alike", differences.empty()},
                         {"differences", ordered_json::array()},
                         {"vitals", ordered_json::object()},
                         {"processes", ordered_json::object()}};
    for (const Difference &difference : differences) {
        json["differences"].push_back({{"kind", describe(difference.kind)},
                                       {"name", difference.name},
                                       {"figure", difference.figure},
                                       {"a", number(difference.a)},
                                       {"b", number(difference.b)},
                                       {"change_percent", number(change_percent(difference))}});
    }
    for (size_t type = 0; type < kVitalCount; ++type) {
        json["vitals"][kVitalNames[type].column] = {{"a", levels_json(a.profile.vitals[type])},
                                                    {"b", levels_json(b.profile.vitals[type])}};
    }
    for (const auto *profile : {&a.profile, &b.profile}) {
        for (const auto &[name, figures] : profile->names) {
            json["processes"][printable(name)] = {{"a", name_json(a, name)}, {"b", name_json(b, name)}};
        }
    }
    return json;
}

void print(const Compared &a, const Compared &b, double tolerance, const std::vector<Difference> &differences,
           std::ostream &out) {
    for (const auto &[letter, dump] : {std::pair{'A', &a}, std::pair{'B', &b}}) {
        const Summary &summary = dump->overview.summary;
        out << letter << ": " << printable(dump->overview.path) << ", " << fixed(summary.seconds(), 1) << " s";
        if (summary.totals.trailer) out << ", build " << printable(summary.totals.trailer->build);
        out << '\n';
    }
    if (differences.empty()) {
        out << "alike: nothing differs by more than " << fixed(tolerance, 1) << " %\n";
        return;
    }
    constexpr size_t kTitle = 44;
    const auto padded = [](std::string text, size_t width) {
        return text.size() < width ? text.append(width - text.size(), ' ') : text;
    };
    out << '\n'
        << padded("", kTitle) << std::setw(13) << 'A' << std::setw(13) << 'B' << "  " << padded("unit", 12)
        << "change\n";
    for (const Difference &difference : differences) {
        const std::string_view unit = difference.unit;
        const size_t degree = unit == "°C" ? 1 : 0;  // has one byte more than characters
        out << padded(difference.label + (difference.kind == Difference::kVital ? ", " : ": ") + difference.title,
                      kTitle)
            << std::setw(13) << value_text(difference.a, unit) << std::setw(13) << value_text(difference.b, unit)
            << "  " << padded(std::string(unit), 12 + degree) << change_text(difference) << '\n';
    }
}

}  // namespace vestra_dump
