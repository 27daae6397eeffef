#include "tools/dump/report_series.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace vestra_dump {
namespace {

using nlohmann::json;

// Rounds to six digits: more than a plot shows, and a third of a double's text.
double short_figure(double value) {
    if (value == 0) return value;
    const double scale = std::pow(10, 5 - std::floor(std::log10(std::fabs(value))));
    const double rounded = std::round(value * scale) / scale;
    return std::isfinite(rounded) ? rounded : value;
}

}  // namespace

void VitalSeries::merge(Extremes *into, const Extremes &from) {
    if (from.least_second < 0) return;
    if (into->least_second < 0) {
        *into = from;
        return;
    }
    if (from.least < into->least) {
        into->least = from.least;
        into->least_second = from.least_second;
    }
    if (from.greatest > into->greatest) {
        into->greatest = from.greatest;
        into->greatest_second = from.greatest_second;
    }
}

void VitalSeries::on_second(const SecondVitals &second) {
    const int64_t expected = last_second_.value_or(second.second - 1) + 1;
    if (second.second > expected && gaps_.size() < kGapsKept) gaps_.push_back({expected, second.second - 1});
    last_second_ = second.second;
    constexpr Extremes kUnknown = {0, 0, -1, -1};
    const auto place = buckets_.try_emplace(second.second >> shift_);
    Bucket &bucket = place.first->second;
    if (place.second) bucket.fill(kUnknown);
    for (size_t type = 0; type < kVitalCount; ++type) {
        const double figure = second.vital[type];
        if (!second.knows(type) || !std::isfinite(figure)) continue;
        merge(&bucket[type], {figure, figure, second.second, second.second});
        Figures &all = figures_[type];
        ++all.seconds;
        all.least = std::min(all.least, figure);
        all.greatest = std::max(all.greatest, figure);
        all.sum += figure;
    }
    while (buckets_.size() > kBucketsMax) widen();
}

void VitalSeries::widen() {
    std::map<int64_t, Bucket> wider;
    for (const auto &[number, bucket] : buckets_) {
        const auto place = wider.try_emplace(number >> 1, bucket);
        if (place.second) continue;
        for (size_t type = 0; type < kVitalCount; ++type) merge(&place.first->second[type], bucket[type]);
    }
    buckets_ = std::move(wider);
    ++shift_;
}

json VitalSeries::rows() const {
    json rows = json::array();
    const auto add_row = [this, &rows](double second, const Bucket *bucket, bool later) {
        json row = {second};
        for (size_t type = 0; type < kVitalCount; ++type) {
            if (bucket == nullptr || (*bucket)[type].least_second < 0) {
                row.push_back(nullptr);
                continue;
            }
            const Extremes &extremes = (*bucket)[type];
            const bool greatest_later = extremes.greatest_second > extremes.least_second;
            const double figure = later == greatest_later ? extremes.greatest : extremes.least;
            row.push_back(shift_ > 0 ? short_figure(figure) : figure);
        }
        rows.push_back(std::move(row));
    };
    int64_t expected = buckets_.empty() ? 0 : buckets_.begin()->first;
    for (const auto &[number, bucket] : buckets_) {
        const auto begin = static_cast<double>(number << shift_);
        if (number != expected) add_row(static_cast<double>(expected << shift_), nullptr, false);
        add_row(begin, &bucket, false);
        if (shift_ > 0) add_row(begin + static_cast<double>(width()) / 2, &bucket, true);
        expected = number + 1;
    }
    return rows;
}

}  // namespace vestra_dump
