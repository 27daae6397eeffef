// report_series.h -- the vitals of a dump of any length as a bounded number of points.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

#include "tools/dump/analysis.h"

namespace vestra_dump {

// Neighbouring seconds share a bucket, which keeps the minimum and maximum of every vital, so that no peak is lost.
// Buckets begin with one second and double in length whenever there are too many.
class VitalSeries : public DumpSink {
  public:
    void on_second(const SecondVitals &second) override;

    // Seconds in one bucket.
    int64_t width() const { return int64_t{1} << shift_; }

    // Rows [second, vital 0, ... vital 16], with null for unknown figures. A bucket of more than a second gives two
    // rows: minimum and maximum, in the order in which they occurred, rounded to six digits. A row without figures marks
    // missing seconds.
    nlohmann::json rows() const;

    // Over all seconds in which a vital is known.
    struct Figures {
        uint64_t seconds = 0;
        double least = std::numeric_limits<double>::infinity();
        double greatest = -std::numeric_limits<double>::infinity();
        double sum = 0;
    };
    const std::array<Figures, kVitalCount> &figures() const { return figures_; }

    struct Gap {
        int64_t from, to;  // the first and the last second without samples
    };
    const std::vector<Gap> &gaps() const { return gaps_; }  // the first kGapsKept

    static constexpr size_t kBucketsMax = 600, kGapsKept = 100;

  private:
    struct Extremes {
        double least, greatest;
        int64_t least_second, greatest_second;  // below 0: not known
    };
    using Bucket = std::array<Extremes, kVitalCount>;

    static void merge(Extremes *into, const Extremes &from);
    void widen();

    std::map<int64_t, Bucket> buckets_;  // by second / width
    int shift_ = 0;
    std::array<Figures, kVitalCount> figures_;
    std::vector<Gap> gaps_;
    std::optional<int64_t> last_second_;
};

}  // namespace vestra_dump
