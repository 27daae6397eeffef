// comparison.h -- two dumps compared: the levels of their vitals, and the rates and levels of their processes by name.
//
// Dumps differ in length, so sums say nothing. A figure differs if it changes by more than the tolerance, in percent of
// the greater of its two values, and by more than its floor, an absolute value: so 0.01 % of CPU against 0.02 % is no difference, and
// exchanging the dumps changes no verdict. Peaks have twice the tolerance, because each is a single second.
#pragma once

#include <array>
#include <iosfwd>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dump/summary.h"

namespace vestra_dump {

// Mean, peak and 95th percentile of a series, in bounded memory: values are counted in buckets less than 1 % wide. The
// percentile is the greatest value of its bucket, so it is less than 1 % above the exact one; integers up to 128 are exact.
class Levels {
  public:
    void add(double value);

    uint64_t count() const { return count_; }
    double mean() const { return sum_ / static_cast<double>(count_); }
    double peak() const { return peak_; }
    double percentile(double percent) const;

  private:
    struct Bucket {
        uint64_t count;
        double greatest;
    };
    std::map<int, Bucket> buckets_;  // in the order of their values
    uint64_t count_ = 0;
    double sum_ = 0, peak_ = 0;
};

// All processes with one name.
struct NameFigures {
    double cpu_ticks = 0;
    uint64_t peak_rss = 0;  // KiB, of its processes together
    uint64_t windows = 0;   // in which it has a sample

    // Its memory in the first and the last third of the recording; least above greatest: none.
    uint64_t first_least = UINT64_MAX, first_greatest = 0, last_least = UINT64_MAX, last_greatest = 0;

    // KiB. 0 unless all of the last third is above or below all of the first: so a level that swings does not grow.
    double growth() const;
};

// What a comparison needs of a dump.
//
// The memory of a name's processes is summed up over windows of ten seconds, each with its last sample in it, because a
// process is sampled only when it runs, and nothing says when it ends.
class Profile : public DumpSink {
  public:
    explicit Profile(const std::optional<TimeSpan> &span);

    void on_second(const SecondVitals &second) override;
    void on_process(const SwitchSample &sample, const Process &process) override;
    void end();  // after the last sample

    std::array<Levels, kVitalCount> vitals;
    std::map<std::string, NameFigures> names;
    bool full = false;  // there were more names

    uint64_t windows() const { return windows_; }  // with a sample

    // From the last window in the first third of the recording to the first one in the last third.
    double minutes_of_growth() const;

    static constexpr size_t kNamesMax = 10000;
    static constexpr int64_t kWindowNs = 10 * trace::kNsPerSecond;

  private:
    struct InWindow {
        NameFigures *name;
        uint64_t rss;
    };
    void end_window();
    int64_t first_third() const;  // the window after the last one in it
    int64_t last_third() const;   // its first window

    TimeSpan span_;
    std::optional<int64_t> window_;
    uint64_t windows_ = 0;
    std::unordered_map<uint64_t, InWindow> in_window_;  // by the process's number
};

struct Difference {
    enum Kind : uint8_t { kVital, kProcess, kAppeared, kVanished } kind;
    std::string name;    // of the vital, its column; of the processes
    std::string label;   // for people
    const char *figure;  // key in JSON, such as "p95"
    const char *title;   // for people
    const char *unit;
    std::optional<double> a, b;  // nothing: not known there
    double weight;               // the change in units of the floor
};

struct Compared {
    const Overview &overview;
    const Profile &profile;
};

// The greatest first. `tolerance`: percent.
std::vector<Difference> compare(const Compared &a, const Compared &b, double tolerance);

nlohmann::ordered_json to_json(const Compared &a, const Compared &b, double tolerance,
                               const std::vector<Difference> &differences);
void print(const Compared &a, const Compared &b, double tolerance, const std::vector<Difference> &differences,
           std::ostream &out);

}  // namespace vestra_dump
