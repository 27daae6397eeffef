// Parts of reports and wall-clock times that need no whole dump. The rest of them is in dump_output_test.py.

#include <algorithm>
#include <nlohmann/json.hpp>

#include "gtest/gtest.h"
#include "tools/dump/report_html.h"
#include "tools/dump/report_series.h"
#include "tools/dump/vitals.h"
#include "tools/dump/wall_clock.h"

using namespace vestra_dump;
using nlohmann::json;

namespace {

TEST(WallClock, TimeInADumpsNameIsTheLastNumberIfItIsOne) {
    const std::pair<const char *, int64_t> kNames[] = {
        {"/media/STICK/0000000000_312_a_b_1795560058-tl", 1795560058},
        {"/tmp/temp-vestra-user_1795560058_123456", 1795560058},
        {"0000000000_312_vestrad_3_l", 0},
        {"0000000000_312_vestrad_12", 0},
        {"0000000000_312_vestrad_2026-11-24 22.40.58", 0},
        {"0000000000_312_vestrad_99999999999999999999", 0},
        {"", 0},
    };
    for (const auto &[name, time] : kNames) EXPECT_EQ(seconds_in_name(name).value_or(0), time);
}

TEST(ReportHtml, NoTextEndsTheScript) {
    EXPECT_EQ(script_json("</script><!--\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaa&"),
              "\\u003c/script\\u003e\\u003c!--\\u2028\\u2029\xe2\x80\xaa\\u0026");
}

TEST(VitalSeries, KeepsExtremesAndGapsOfAnyLength) {
    VitalSeries series;
    const int64_t seconds = 100'000;
    for (int64_t at = 0; at < seconds; ++at) {
        if (at >= 40'000 && at < 50'000) continue;
        SecondVitals second = {at, at, true, false, false, {}};
        second.vital[0] = at == 77'777 ? 9000 : at == 12'345 ? -5 : static_cast<double>(at % 100);
        series.add(second);
    }
    SecondVitals leap = {INT64_MAX / 2'000'000'000, 0, true, false, false, {}};
    series.add(leap);
    const json rows = series.rows();
    EXPECT_LE(rows.size(), 2 * VitalSeries::kBucketsMax + 2);
    EXPECT_GE(rows.size(), VitalSeries::kBucketsMax);
    double least = 0, greatest = 0, before = -1;
    size_t empty = 0;
    for (const json &row : rows) {
        EXPECT_GT(row[0], before);
        before = row[0];
        EXPECT_TRUE(row[3].is_null()) << "not known in any second";
        if (row[1].is_null()) {
            ++empty;
            continue;
        }
        least = std::min(least, row[1].get<double>());
        greatest = std::max(greatest, row[1].get<double>());
    }
    EXPECT_EQ(least, -5);
    EXPECT_EQ(greatest, 9000);
    EXPECT_EQ(empty, 2U);
    EXPECT_EQ(series.figures()[0].seconds, 90'001U);
}

}  // namespace
