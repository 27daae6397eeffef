// What the dump tool makes for people to look at: traces for a viewer, and reports.

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
    // What a command says of the dump, which is damaged.
    std::string say(const std::string &command) const {
        const vestra_test::Ran ran = vestra_test::run(VESTRA_DUMP_PROGRAM " " + command + " " + dump);
        EXPECT_EQ(ran.code, 1) << command;
        return ran.out;
    }

    // Rows of a table, as the json command tells them.
    std::vector<json> rows(const std::string &table) const {
        std::vector<json> found;
        std::istringstream lines(say("json --vitals --processes"));
        for (std::string line; std::getline(lines, line);) {
            found.push_back(json::parse(line));
            if (found.back()["table"] != table) found.pop_back();
        }
        return found;
    }

    const std::string dump = put("/tmp/0000000000_7_hostile_1795560058", hostile_dump());
};

TEST_F(DumpReport, TraceHoldsEveryFigureOnItsTrack) {
    const json trace = json::parse(say("perfetto"));           // throws for what is not UTF-8
    std::map<int64_t, std::string> processes;                  // by track
    std::map<std::string, std::map<double, double>> counters;  // "track name", by time
    size_t damage = 0;
    for (const json &event : trace["traceEvents"]) {
        ASSERT_TRUE(event["pid"].is_number_unsigned() && event["tid"].is_number_unsigned()) << event;
        ASSERT_TRUE(event["ts"].is_number() && event["name"].is_string() && event["args"].is_object()) << event;
        const auto track = event["pid"].get<int64_t>();
        const std::string phase = event["ph"], name = event["name"];
        if (phase == "C") {
            ASSERT_EQ(event["args"].size(), 1U);
            ASSERT_TRUE(processes.count(track) > 0) << "a figure of a track without a name";
            counters[std::to_string(track) + " " + name][event["ts"]] = event["args"].front();
        } else if (phase == "i") {
            ++damage;
            EXPECT_DOUBLE_EQ(event["ts"], 639e6 + 0.009);
            EXPECT_EQ(event["args"]["bytes"], 99);
        } else {
            ASSERT_EQ(phase, "M");
            const bool first = name != "process_name" || processes.emplace(track, event["args"]["name"]).second;
            EXPECT_TRUE(first) << "a track is named twice: " << event;
        }
    }
    EXPECT_EQ(damage, trace["otherData"]["damaged_spans"]);
    std::string vitals;
    std::set<std::string> names, wanted;
    for (const auto &[track, name] : processes) {
        if (name == "Vitals of the set") vitals = std::to_string(track) + " ";
        names.insert(name);
    }
    for (const std::string &name : kHostileNames) wanted.insert(printable(name));
    wanted.erase(printable(kHostileNames.back()));
    wanted.insert(printable(kHostileNames.back()) + " (process 100)");
    wanted.insert("Vitals of the set");
    EXPECT_EQ(names, wanted);
    size_t figures = 0;
    for (const json &row : rows("vitals")) {
        for (size_t type = 0; type < kVitalCount; ++type) {
            if (!row.contains(kVitalNames[type].column)) continue;
            ++figures;
            const auto &counter = counters[vitals + kVitalNames[type].label];
            const auto found = counter.find(row["time_ns"].get<double>() / 1000);
            ASSERT_TRUE(found != counter.end()) << row << kVitalNames[type].column;
            EXPECT_EQ(found->second, row[kVitalNames[type].column]);
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

TEST_F(DumpReport, PageHoldsNamesAsTextAndTheVitalsAsTheyAre) {
    const std::string page = say("report");
    for (const std::string &name : kHostileNames) {
        const std::string text = printable(name);
        EXPECT_TRUE(html(text) == text || page.find(text) == std::string::npos) << name;
        EXPECT_NE(page.find("<bdi>" + html(text) + "</bdi>"), std::string::npos) << name;
    }
    EXPECT_NE(page.find("&lt;i&gt;model"), std::string::npos);
    EXPECT_EQ(page.find("<i>"), std::string::npos);
    EXPECT_EQ(script_json("</script><!--\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaa&"),
              "\\u003c/script\\u003e\\u003c!--\\u2028\\u2029\xe2\x80\xaa\\u0026");
    const std::string begin = "id=\"data\">";
    const size_t at = page.find(begin) + begin.size();
    const json data = json::parse(page.substr(at, page.find("</script>", at) - at));
    EXPECT_EQ(data["damage"], json::parse("[[639.000000009, 640.0]]"));
    std::map<int64_t, json> drawn;
    for (const json &row : data["rows"]) drawn[row[0].get<int64_t>()] = row;
    EXPECT_EQ(drawn.size(), 51U) << "50 seconds, and one for the gap";
    EXPECT_TRUE(drawn[620][1].is_null()) << "a gap stays one";
    for (const json &row : rows("vitals")) {
        for (size_t type = 0; type < kVitalCount; ++type) {
            const json figure = drawn[row["second"]].at(type + 1);
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
        EXPECT_TRUE(row[3].is_null()) << "never known";
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
