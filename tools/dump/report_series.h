// report_series.h -- the vitals of a dump of any length as a bounded number of points.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json_fwd.hpp>

#include "tools/dump/vitals.h"

namespace vestra_dump {

// Seconds side by side are kept as one bucket with the least and the greatest figure of every vital, so that no peak is
// lost. Buckets begin with one second and become twice as long whenever there are too many.
class VitalSeries {
  public:
    void add(const Second &second);

    // Seconds in one bucket.
    int64_t width() const { return int64_t{1} << shift_; }

    // Rows [second, vital 0, ... vital 16], null where not known. Buckets of more than a second are two rows, the least
    // and the greatest figure in the order in which they came. A row without figures stands where seconds are missing.
    nlohmann::json rows() const;

    // Over all seconds in which a vital is known.
    struct Figures {
        uint64_t seconds = 0;
        double least = std::numeric_limits<double>::infinity();
        double greatest = -std::numeric_limits<double>::infinity();
        double sum = 0;
    };
    const std::array<Figures, kVitalCount> &figures() const { return figures_; }

    static constexpr size_t kBucketsMost = 1200;

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
};

}  // namespace vestra_dump
