// Output of the dump tool: tables in CSV, JSON and SQLite, smaller dumps, wall-clock times, exit codes.

#include <sqlite3.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "dump_support.h"
#include "gmock/gmock.h"
#include "tools/dump/wall_clock.h"

using namespace dump_test;
using nlohmann::json;
using testing::ElementsAre;

namespace {

vestra_test::Ran run_dump(const std::string &arguments) {
    return vestra_test::run(VESTRA_DUMP_PROGRAM " " + arguments);
}

// Rows of RFC 4180; no name here contains a line end.
using Rows = std::vector<std::vector<std::string>>;
Rows csv(const std::string &arguments) {
    std::istringstream lines(run_dump("csv " + arguments).out);
    Rows rows;
    for (std::string line; std::getline(lines, line);) {
        rows.push_back({""});
        bool quoted = false;
        for (size_t i = 0; i < line.size(); ++i) {
            if (line[i] == '"' && !(quoted && line[i + 1] == '"')) {
                quoted = !quoted;
            } else if (line[i] == ',' && !quoted) {
                rows.back().emplace_back();
            } else {
                rows.back().back() += line[i] == '"' ? line[++i] : line[i];
            }
        }
        EXPECT_EQ(rows.back().size(), rows[0].size());
    }
    return rows;
}

// The rows of a query, each as a text.
std::vector<std::string> query(const std::string &database, const std::string &sql) {
    std::vector<std::string> rows;
    sqlite3 *db = nullptr;
    EXPECT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
    const auto add = [](void *to, int count, char **values, char **) {
        std::string row;
        for (int i = 0; i < count; ++i) row.append(i > 0 ? "|" : "").append(values[i] != nullptr ? values[i] : "-");
        static_cast<std::vector<std::string> *>(to)->push_back(row);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), add, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return rows;
}

TEST(DumpOutput, EveryTableHasHostileNamesInAHarmlessForm) {
    const std::pair<std::string, std::string> kNames[] = {
        {"a,b", "a,b"},
        {"say \"hi\"", "say \"hi\""},
        {" blank ", " blank "},
        {"back\\slash", "back\\\\slash"},
        {"line\nfeed\r", "line\\x0afeed\\x0d"},
        {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
        {"\xc3\xbc\xff\xfe", "\xc3\xbc\\xff\\xfe"},
        {"\xed\xa0\x80\xc0\xaf", "\\xed\\xa0\\x80\\xc0\\xaf"},
        {"\xf4\x90\x80\x80\xc2\x85\xe2\x82", "\\xf4\\x90\\x80\\x80\\xc2\\x85\\xe2\\x82"},
        {"';DROP TABLE dumps;--", "';DROP TABLE dumps;--"},
    };
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    std::vector<std::string> expected, from_csv, from_json;
    for (const auto &[name, text] : kNames) {
        trace::SwitchMessage message;
        message.time_ns = 600'000'000'000 + expected.size();
        message.pid = 7;
        message.name = name;
        writer.begin_frame(trace::kSwitchFrame, 2);
        writer.add(message);
        expected.push_back(text);
    }
    const std::string dump = put("/tmp/names", std::string(bytes.begin(), bytes.end()) + kTrailer);
    for (const auto &row : csv("--processes " + dump)) from_csv.push_back(row.at(3));
    from_csv.erase(from_csv.begin());
    EXPECT_EQ(from_csv, expected);
    std::istringstream lines(run_dump("json --processes " + dump).out);
    for (std::string line; std::getline(lines, line);) {
        const json object = json::parse(line);  // throws unless it is UTF-8
        if (object["table"] == "processes") from_json.push_back(object["name"]);
    }
    EXPECT_EQ(from_json, expected);
    EXPECT_EQ(run_dump("sqlite /tmp/names.db " + dump).code, 0);
    EXPECT_EQ(query("/tmp/names.db", "SELECT name FROM processes ORDER BY time_ns"), expected);
    EXPECT_EQ(query("/tmp/names.db", "SELECT * FROM processes LIMIT 1")[0],
              "1|600000000000|7|0|a,b|2|-|-|-|0|0|0|0|0|0|0");
    for (const char c : run_dump("info " + dump).out) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= ' ');
}

TEST(DumpOutput, DatabaseHoldsTheSameRowsOfManyDumps) {
    const std::string one = put("/tmp/0000000000_7_one_1795560058", synthetic("hostile", 30, 9000, 40, 1) + kTrailer);
    const std::string two = put("/tmp/two", synthetic("steady", 30, 9000, 40, 2));
    EXPECT_EQ(run_dump("sqlite /tmp/db " + two + " " + one).code, 1);
    EXPECT_EQ(run_dump("sqlite /tmp/db " + one).code, 1);  // again: replaces the first
    EXPECT_THAT(query("/tmp/db", "SELECT file, build, trailer FROM dumps ORDER BY dump_id"),
                ElementsAre("/tmp/two|-|0", one + "|T-RX-1107.2/eu|1"));
    for (const std::string table : {"vitals", "processes", "frames", "damage"}) {
        EXPECT_EQ(query("/tmp/db", "SELECT count(*) FROM " + table + " WHERE dump_id = 2")[0],
                  std::to_string(csv("--" + table + " " + one).size() - 1));
    }
    const json info = json::parse(run_dump("info --json " + one).out);
    EXPECT_EQ(query("/tmp/db", "SELECT damaged_spans, damaged_bytes, messages FROM dumps WHERE dump_id = 2")[0],
              info["damaged_spans"].dump() + "|" + info["damaged_bytes"].dump() + "|" + info["messages"].dump());
    for (const char *list : {"top_cpu", "top_memory"}) {
        EXPECT_EQ(query("/tmp/db", std::string("SELECT pid FROM ") + list + " WHERE dump_id = 2 LIMIT 1")[0],
                  info[list][0]["pid"].dump());
    }
    EXPECT_EQ(query("/tmp/db", "SELECT max(wall_time) FROM seconds WHERE dump_id = 2")[0], "2026-11-24T22:40:57Z");
    query("/tmp/other", "CREATE TABLE dumps(x)");
    EXPECT_EQ(run_dump("sqlite /tmp/other " + one).code, 2) << "another program's database";
}

TEST(DumpOutput, CutIsAWholeDumpOfItsRange) {
    std::string whole = synthetic("hostile", 40, 30000, 60, 4), unmarked;
    const std::string dump = put("/tmp/whole", whole + kLiteTrailer);
    const auto rows = [](const std::string &file) {
        Rows all = csv("--processes --from 610.5 --to 640 " + file);
        for (auto &row : all) row[5] = row[6] = row[7] = "";  // percentages start again
        return all;
    };
    EXPECT_EQ(run_dump("cut --from 610.5 --to 640 " + dump + " /tmp/cut").code, 1);
    EXPECT_EQ(rows("/tmp/cut"), rows(dump));
    const std::string cut = run_dump("cut /tmp/cut -").out;
    const Recorder seen = record(cut);
    EXPECT_EQ(seen.totals.trailer->bytes, kLiteTrailer);
    EXPECT_TRUE(seen.totals.is_clean());
    EXPECT_EQ(std::ifstream("/tmp/cut").seekg(0, std::ios::end).tellg(), static_cast<std::streamoff>(cut.size()));
    EXPECT_LT(cut.size(), whole.size() * 6 / 10);
    // Without marks, blocks end before they are longer than one read of the node.
    for (const Place &frame : record(whole).frames) unmarked += whole.substr(size_t(frame.first), size_t(frame.second));
    put("/tmp/unmarked", unmarked + kTrailer);
    uint64_t block = 0, longest = 0;
    for (const Place &stretch : record(run_dump("cut /tmp/unmarked -").out).stretches) {
        block += stretch.second;
        longest = std::max(longest, block);
        if (stretch.second == 4) block = 0;
    }
    EXPECT_LE(longest, 131072U);
    EXPECT_GT(longest, 120000U);
    EXPECT_EQ(run_dump("cut " + dump + " " + dump).code, 64);
}

TEST(DumpOutput, WallClockTimesComeFromTheNewestSample) {
    const std::pair<const char *, int64_t> kNamesOfDumps[] = {
        {"/media/STICK/0000000000_312_a_b_1795560058-tl", 1795560058},
        {"/tmp/temp-vestra-user_1795560058_123456", 1795560058},
        {"0000000000_312_vestrad_3_l", 0},
        {"0000000000_312_vestrad_12", 0},
        {"0000000000_312_vestrad_2026-11-24 22.40.58", 0},
        {"0000000000_312_vestrad_99999999999999999999", 0},
        {"", 0},
    };
    for (const auto &[name, time] : kNamesOfDumps) EXPECT_EQ(vestra_dump::seconds_in_name(name).value_or(0), time);
    // More than is read for the newest sample.
    const std::string path = put("/tmp/0000000000_1_x_1795560058", synthetic("steady", 20, 0, 2000) + kTrailer);
    const std::pair<const char *, const char *> kRanges[] = {
        {"", "600 to 2599, 2026-11-24T22:40:58.000Z"},
        {"--from 700 --to 702.5", "700 to 702, 2026-11-24T22:09:21.000Z"},
        {"--from +10 --to +12 --epoch 2000-01-01", "610 to 612, 1999-12-31T23:26:53.000Z"},
        {"--from -3 --epoch 946684800", "2596 to 2599, 2000-01-01T00:00:00.000Z"},
        {"--from 2026-11-24T22:40:00Z --to '2026-11-24 22:40:30.5'", "2541 to 2572, 2026-11-24T22:40:31.000Z"},
        {"--epoch none", "600 to 2599, "},
    };
    for (const auto &[options, range] : kRanges) {
        const Rows rows = csv(std::string(options) + " " + path);
        EXPECT_EQ(rows[1][0] + " to " + rows.back()[0] + ", " + rows.back().back(), range);
    }
}

TEST(DumpOutput, ExitCodesTellWhatWasRead) {
    const std::string payload = synthetic("steady", 9, 2000, 3);
    put("/tmp/clean", payload + kTrailer);
    put("/tmp/cut", payload);
    put("/tmp/damaged", payload + std::string(77, '\xff') + kTrailer);
    put("/tmp/trailer", kTrailer);
    put("/tmp/empty", "");
    put("/tmp/text", "no dump, but a text about dumps\n");
    const std::pair<const char *, int> kRuns[] = {
        {"info /tmp/clean", 0},
        {"info - < /tmp/clean", 0},
        {"info /tmp/trailer", 0},
        {"info /tmp/cut", 1},
        {"csv /tmp/damaged", 1},
        {"info /tmp/empty", 2},
        {"csv /tmp/text", 2},
        {"info /tmp/missing /tmp/clean", 2},
        {"json /tmp", 2},
        {"sqlite /nowhere/x.db /tmp/clean", 2},
        {"csv --frames -o /dev/full /tmp/clean", 2},
        {"csv --vitals --frames /tmp/clean", 64},
        {"csv --from yesterday /tmp/clean", 64},
        {"csv --from -5 - < /tmp/clean", 64},
    };
    for (const auto &[arguments, code] : kRuns) {
        EXPECT_EQ(run_dump(arguments).code, code) << arguments;
    }
    EXPECT_EQ(run_dump("csv /tmp/damaged").err, "vestra-dump: /tmp/damaged: 77 bytes are damaged, in 1 place\n");
}

}  // namespace
