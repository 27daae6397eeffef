// Parts of reports and wall-clock times. The rest is in report_browser_test.py and dump_output_test.py.

#include <algorithm>
#include <nlohmann/json.hpp>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/files.h"
#include "tools/dump/report.h"
#include "tools/dump/report_html.h"
#include "tools/dump/source.h"
#include "tools/dump/wall_clock.h"
#include "trace/frame_writer.h"

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
        series.on_second(second);
    }
    SecondVitals leap = {INT64_MAX / 2'000'000'000, 0, true, false, false, {}};
    series.on_second(leap);
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

TEST(ProcessSeries, TicksThatWereUsedDuringAGapAreInNoSecond) {
    Process process = {};
    process.number = 1;
    Summary summary;
    summary.by_cpu = {process};
    ProcessSeries series(summary, {}, 1);
    for (const auto &[second, since, ticks] : {std::array{1, 0, 0}, {2, 1, 10}, {8, 2, 600}, {8, 8, 5}, {9, 8, 20}}) {
        SwitchSample sample = {};
        sample.time_ns = second * trace::kNsPerSecond;
        process.used_since_ns = since * trace::kNsPerSecond;
        process.used_ticks = ticks;
        series.on_process(sample, process);
    }
    std::vector<std::pair<int64_t, uint64_t>> all;
    const json data = series.to_json();
    for (const json &bucket : data["buckets"]) all.emplace_back(bucket[0], bucket[1]);
    EXPECT_EQ(all, (std::vector<std::pair<int64_t, uint64_t>>{{1, 0}, {2, 10}, {8, 5}, {9, 20}}));
}

// The longest names, figures of many digits, more processes and damage than a page shows.
TEST(Report, PageHasLessThanOneMebibyteWhateverIsInTheDump) {
    for (const uint64_t seconds : {VitalSeries::kBucketsMax, 2 * VitalSeries::kBucketsMax}) {
        std::vector<uint8_t> bytes;
        trace::FrameWriter writer(&bytes);
        const std::string name(kNameShown, '\xff');
        for (uint64_t second = 1; second <= seconds; ++second) {
            writer.begin_frame(trace::kSwitchFrame, 0);
            for (uint64_t i = 0; i < 12; ++i) {
                trace::SwitchMessage message;
                message.time_ns = second * 1'000'000'000 + i * 1'234'567 + second * 12'345;
                message.pid = 1'000'000'000 + (second * 12 + i) % 600;
                message.name = name;
                message.cpu_a = second * 10 + i;
                message.rss = message.swap = 1'000'000'000 + second;
                message.element10 = second;
                for (auto &core : message.cores) core = {second * 77, second * 33, second * 90, 40, second};
                writer.add(message);
            }
            writer.end_block();
            writer.put_bytes("\xff\xff\xff\xff\xff", 5);
        }
        MemorySource source({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
        Survey found = survey(source);
        VitalSeries vitals;
        const Overview overview = {"dump", {}, analyse(source, &found.timeline, {}, ProcessSeries::kKnown, vitals)};
        const std::vector<Finding> findings = {{"cpu-hog", 1'000'000'000, "", 0, 0, 1, "<i> takes a core", "<b>", {}}};
        ProcessSeries processes(overview.summary, findings, vitals.width());
        analyse(source, &found.timeline, {}, 0, processes);
        EXPECT_GT(overview.summary.totals.damaged_spans, seconds / 2);
        EXPECT_EQ(overview.summary.processes, 600U);

        std::string error;
        const std::string path = ::testing::TempDir() + "/page.html";
        const auto out = Output::open(path, &error);
        ASSERT_NE(out, nullptr) << error;
        write_report({vitals, processes, overview, findings, 10}, *out);
        ASSERT_TRUE(out->close(&error)) << error;
        const std::string page = vestra_test::read_file(path);
        EXPECT_LT(page.size(), 1U << 20);
        EXPECT_GT(page.size(), 1U << 19) << "not the worst";
        EXPECT_THAT(page, ::testing::HasSubstr("&lt;i&gt; takes a core.</bdi>"));
        EXPECT_THAT(page, ::testing::HasSubstr("<code>&lt;b&gt;</code>"));
    }
}

}  // namespace
