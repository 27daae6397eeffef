// Traces for a viewer, and reports.

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "dump_support.h"
#include "gmock/gmock.h"
#include "hostile_dump.h"
#include "tools/dump/report_html.h"
#include "tools/dump/report_series.h"
#include "tools/dump/text.h"
#include "tools/dump/vitals.h"

using namespace dump_test;
using namespace vestra_dump;
using nlohmann::json;

namespace {

struct DumpReport : testing::Test {
    // Runs a command on the dump, which is damaged.
    std::string output(const std::string &command) const {
        const vestra_test::Ran ran = vestra_test::run(VESTRA_DUMP_PROGRAM " " + command + " " + dump);
        EXPECT_EQ(ran.code, 1) << command;
        return ran.out;
    }

    // The rows of a table.
    std::vector<json> rows(const std::string &table) const {
        std::vector<json> found;
        std::istringstream lines(output("json --vitals --processes"));
        for (std::string line; std::getline(lines, line);) {
            found.push_back(json::parse(line));
            if (found.back()["table"] != table) found.pop_back();
        }
        return found;
    }

    const std::string dump = put("/tmp/0000000000_7_hostile_1795560058", hostile_dump());
};

struct DumpTrace : DumpReport {
    DumpTrace() {
        const json trace = json::parse(output("perfetto"));  // throws unless it is UTF-8
        for (const json &event : trace["traceEvents"]) {
            const auto track = event["pid"].get<int64_t>();
            const std::string name = event["name"];
            if (event["ph"] == "C") {
                EXPECT_EQ(event["args"].size(), 1U);
                counters[std::to_string(track) + " " + name][event["ts"]] = event["args"].front();
                EXPECT_EQ(tracks.count(track), 1U) << "a figure on a track without a name";
            } else if (event["ph"] == "i") {
                damage.push_back(event);
            } else if (name == "process_name") {
                EXPECT_TRUE(tracks.emplace(track, event["args"]["name"]).second) << "a track is named twice: " << event;
            }
        }
    }

    std::map<int64_t, std::string> tracks;                     // names
    std::map<std::string, std::map<double, double>> counters;  // "track name", by time
    std::vector<json> damage;
};

TEST_F(DumpTrace, EachProcessHasATrackAndDamageIsMarked) {
    std::set<std::string> expected = {"Vitals of the set"}, names;
    for (const std::string &name : kHostileNames) {
        expected.insert(printable(name) + (name == kHostileNames.back() ? " (process 100)" : ""));
    }
    for (const auto &[track, name] : tracks) names.insert(name);
    EXPECT_EQ(names, expected);
    ASSERT_EQ(damage.size(), 1U);
    EXPECT_DOUBLE_EQ(damage[0]["ts"], 639e6 + 0.009);
    EXPECT_EQ(damage[0]["args"]["bytes"], 99);
}

TEST_F(DumpTrace, FiguresAreThoseOfTheTables) {
    const auto vitals = std::find_if(tracks.begin(), tracks.end(),
                                     [](const auto &track) { return track.second == "Vitals of the set"; });
    ASSERT_NE(vitals, tracks.end());
    size_t figures = 0;
    for (const json &row : rows("vitals")) {
        for (const VitalName &name : kVitalNames) {
            if (!row.contains(name.column)) continue;
            ++figures;
            const auto &counter = counters[std::to_string(vitals->first) + " " + name.label];
            const auto found = counter.find(row["time_ns"].get<double>() / 1000);
            ASSERT_TRUE(found != counter.end()) << row << name.column;
            EXPECT_EQ(found->second, row[name.column]);
        }
    }
    EXPECT_GT(figures, 50U * 12);
    std::map<int, json> last;
    for (const json &row : rows("processes")) last[row["pid"]] = row;
    for (int pid = 101; pid <= 104; ++pid) {
        EXPECT_EQ(counters[std::to_string(pid) + " Resident memory"].rbegin()->second, last[pid]["rss_kib"]);
        EXPECT_EQ(counters[std::to_string(pid) + " CPU"].rbegin()->second, last[pid]["cpu_total"]);
    }
}

// report_browser_test.sh checks the names and the tables of a page.
TEST_F(DumpReport, PageHasTextsEscapedAndThePointsOfTheVitals) {
    const std::string page = output("report");
    EXPECT_NE(page.find("&lt;i&gt;model"), std::string::npos);
    EXPECT_EQ(page.find("<i>"), std::string::npos);
    EXPECT_EQ(script_json("</script><!--\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaa&"),
              "\\u003c/script\\u003e\\u003c!--\\u2028\\u2029\xe2\x80\xaa\\u0026");
    const std::string begin = "id=\"data\">";
    const size_t at = page.find(begin) + begin.size();
    const json data = json::parse(page.substr(at, page.find("</script>", at) - at));
    EXPECT_EQ(data["damage"], json::parse("[[639.000000009, 640.0]]"));
    std::map<int64_t, json> points;
    for (const json &row : data["rows"]) points[row[0].get<int64_t>()] = row;
    EXPECT_EQ(points.size(), 51U) << "50 seconds, and one for the gap";
    EXPECT_TRUE(points[620][1].is_null()) << "the gap";
    for (const json &row : rows("vitals")) {
        for (size_t type = 0; type < kVitalCount; ++type) {
            const json figure = points[row["second"]].at(type + 1);
            ASSERT_EQ(figure.is_null(), !row.contains(kVitalNames[type].column)) << row;
            if (figure.is_null()) continue;
            EXPECT_NEAR(figure, row[kVitalNames[type].column], 1e-5 * (1 + figure.get<double>()));
        }
    }
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
