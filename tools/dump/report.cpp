#include "tools/dump/report.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "tools/dump/report_html.h"
#include "tools/dump/report_page.h"
#include "tools/dump/text.h"
#include "trace/percentages.h"

namespace vestra_dump {
namespace {

using nlohmann::json;

enum : size_t { kCpuTotal = 2, kAverageTemperature = 9, kIowait = 10, kMemoryUsed = 11 };  // vitals

constexpr size_t kUnknownShown = 8;  // of gaps, and of damaged spans

std::string file_name(const std::string &path) {
    return printable(path == "-" ? "standard input" : path.substr(path.rfind('/') + 1));
}

std::string sentence(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text + ".";
}

std::string verdict(const Summary &summary) {
    if (summary.totals.is_clean()) return "Clean: every byte was read.";
    std::string text;
    for (const std::string &each : verdicts(summary)) text.append(text.empty() ? "" : " ").append(sentence(each));
    return text;
}

std::string summary_list(const Overview &overview) {
    const Summary &summary = overview.summary;
    const DumpTotals &totals = summary.totals;
    std::string list = "<dl id=\"facts\">\n";
    const auto add = [&list](const char *term, const std::string &text) {
        list.append("<div><dt>").append(term).append("</dt><dd><bdi>").append(html(text)).append("</bdi></dd></div>\n");
    };
    if (totals.trailer) {
        const Trailer &trailer = *totals.trailer;
        add("Build", printable(trailer.build) + (trailer.build_cut ? " (its last character is lost)" : ""));
        add("Model", printable(trailer.model) + (trailer.model_cut ? " (cut at 32 bytes)" : ""));
        if (trailer.lite_mode) add("Lite mode", std::to_string(*trailer.lite_mode));
    }
    if (summary.first_ns) {
        add("Time of the stream", fixed(trace::to_seconds(*summary.first_ns), 3) + " to " +
                                      fixed(trace::to_seconds(*summary.last_ns), 3) + " s");
        add("Length", fixed(summary.seconds(), 1) + " s");
    }
    const uint64_t all = totals.all_frames();
    const uint64_t switches = totals.frames_of(trace::kSwitchFrame), memory = totals.frames_of(trace::kMeminfoFrame);
    add("Bytes", std::to_string(totals.bytes));
    add("Payload bytes", std::to_string(totals.payload_bytes));
    add("Switch frames", std::to_string(switches));
    add("CPU and memory frames", std::to_string(memory));
    if (all > switches + memory) add("Frames of other types", std::to_string(all - switches - memory));
    add("Messages", std::to_string(totals.messages));
    add("Ends of blocks", std::to_string(totals.empty_records));
    if (summary.samples_astray > 0) add("Samples with wrong time stamps", std::to_string(summary.samples_astray));
    if (summary.counters_wrong > 0) add("Counters not believed", std::to_string(summary.counters_wrong));
    add("Damaged spans", std::to_string(totals.damaged_spans));
    add("Damaged bytes", std::to_string(totals.damaged_bytes));
    add("Processes", std::to_string(summary.processes));
    return list + "</dl>\n";
}

// Wall-clock time, or seconds of the stream.
std::string moment(const Overview &overview, int64_t time_ns) {
    const std::string wall = overview.time.wall_time(time_ns);
    return wall.empty() ? fixed(trace::to_seconds(time_ns), 3) + " s" : wall;
}

std::string finding_list(const ReportParts &parts) {
    std::string list;
    for (const Finding &finding : parts.findings) {
        list.append("<li data-from=\"").append(fixed(trace::to_seconds(finding.from_ns), 3));
        list.append("\" data-to=\"").append(fixed(trace::to_seconds(finding.to_ns), 3)).append("\"><p><bdi>");
        list.append(html(finding.text)).append(".</bdi></p><p class=\"note\">");
        list.append(html(moment(parts.overview, finding.from_ns))).append(" to ");
        list.append(html(moment(parts.overview, finding.to_ns)));
        if (!finding.command.empty()) list.append(": <code>").append(html(finding.command)).append("</code>");
        list.append("</p></li>\n");
    }
    return list.empty() ? "<p>Nothing stands out.</p>\n" : "<ol id=\"finding-list\">\n" + list + "</ol>\n";
}

// What the recording does not say.
std::vector<std::string> unknowns(const ReportParts &parts) {
    const Overview &overview = parts.overview;
    const Summary &summary = overview.summary;
    std::vector<std::string> texts;
    const auto at = [&overview](const std::optional<int64_t> &time_ns, const char *otherwise) {
        return time_ns ? moment(overview, *time_ns) : otherwise;
    };
    const auto &gaps = parts.vitals.gaps();
    for (size_t i = 0; i < gaps.size() && i < kUnknownShown; ++i) {
        const int64_t from = gaps[i].from, to = gaps[i].to + 1;
        texts.push_back("From " + at(from * trace::kNsPerSecond, "") + " to " + at(to * trace::kNsPerSecond, "") +
                        " there are no samples: " + std::to_string(to - from) + " seconds are missing.");
    }
    if (gaps.size() > kUnknownShown) texts.emplace_back("There are more gaps: see the plots.");
    std::vector<DamagedSpan> spans = summary.spans;
    std::stable_sort(spans.begin(), spans.end(),
                     [](const DamagedSpan &a, const DamagedSpan &b) { return a.bytes > b.bytes; });
    for (size_t i = 0; i < spans.size() && spans[i].bytes > 0 && i < kUnknownShown; ++i) {
        texts.push_back("Between " + at(spans[i].from_ns, "the beginning") + " and " + at(spans[i].to_ns, "the end") +
                        " " + std::to_string(spans[i].bytes) + " bytes are damaged: " + describe(spans[i].reason) +
                        ".");
    }
    if (spans.size() > kUnknownShown) texts.emplace_back("More is damaged: see the table of damage.");
    if (!summary.totals.trailer) {
        texts.push_back("The end is missing. Nothing is known about the time after the last sample: " +
                        at(summary.last_ns, "there is none") + ".");
    }
    if (overview.time.end_is_missing) texts.push_back(sentence(kEndIsMissing));
    return texts;
}

std::string unknown_list(const ReportParts &parts) {
    std::string list;
    for (const std::string &text : unknowns(parts)) list.append("<li>").append(html(text)).append("</li>\n");
    if (list.empty()) return "<p>Every byte was read, and every second has samples.</p>\n";
    return "<ul id=\"unknown-list\">\n" + list + "</ul>\n";
}

// The same columns as in info, with the same decimals.
void append_processes(const char *id, const char *caption, const Summary &summary,
                      const std::vector<Process> &processes, size_t top, std::string *out) {
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < processes.size() && i < top; ++i) {
        const Process &process = processes[i];
        rows.push_back({std::to_string(process.pid), fixed(process.cpu_seconds(), 2),
                        fixed(summary.average_percent(process), 2),
                        process.peak_percent ? fixed(*process.peak_percent, 2) : "-", std::to_string(process.peak_rss),
                        std::to_string(process.peak_swap), printable(process.name)});
    }
    append_table(id, caption,
                 {{"Process", true},
                  {"CPU seconds", true},
                  {"CPU %", true},
                  {"Peak %", true},
                  {"Peak KiB", true},
                  {"Swap KiB", true},
                  {"Name", false}},
                 rows, out);
}

void append_vitals(const VitalSeries &series, std::string *out) {
    std::vector<std::vector<std::string>> rows;
    for (size_t type = 0; type < kVitalCount; ++type) {
        const VitalSeries::Figures &all = series.figures()[type];
        const auto figure = [&all](double value) { return all.seconds > 0 ? fixed(value, 1) : std::string("-"); };
        rows.push_back({figure(all.least), figure(all.sum / static_cast<double>(all.seconds)), figure(all.greatest),
                        std::to_string(all.seconds),
                        std::string(kVitalNames[type].label) + ", " + kVitalNames[type].unit});
    }
    append_table("vitals", "Each vital over all seconds in which it is known",
                 {{"Minimum", true}, {"Average", true}, {"Maximum", true}, {"Seconds known", true}, {"Vital", false}},
                 rows, out);
}

std::string plot_data(const ReportParts &parts) {
    const Summary &summary = parts.overview.summary;
    const VitalSeries &series = parts.vitals;
    json data = {{"name", file_name(parts.overview.path)},
                 {"width", series.width()},
                 {"rows", series.rows()},
                 {"processes", parts.processes.to_json()},
                 {"epoch_ms", nullptr}};
    const bool wall_clock = summary.first_ns && !parts.overview.time.wall_time(*summary.first_ns).empty();
    if (wall_clock) data["epoch_ms"] = static_cast<double>(*parts.overview.time.epoch_ns) / 1e6;
    for (const VitalName &name : kVitalNames) {
        data["names"].push_back(name.label);
        data["columns"].push_back(name.column);
    }
    data["damage"] = json::array();
    const auto second = [](const std::optional<int64_t> &time_ns) {
        return time_ns ? json(trace::to_seconds(*time_ns)) : json(nullptr);
    };
    for (const DamagedSpan &span : summary.spans) {
        data["damage"].push_back(
            {second(span.from_ns), second(span.to_ns), span.offset, span.bytes, span.messages, describe(span.reason)});
    }
    return script_json(data.dump());
}

// Build, model and time, in one line.
std::string whereabouts(const Overview &overview) {
    const Summary &summary = overview.summary;
    std::string text;
    if (const auto &trailer = summary.totals.trailer) {
        text = "Build " + printable(trailer->build) + ", model " + printable(trailer->model) + ". ";
    }
    if (!summary.first_ns) return text + "No samples.";
    return text + moment(overview, *summary.first_ns) + " to " + moment(overview, *summary.last_ns) + ", " +
           fixed(summary.seconds(), 1) + " seconds.";
}

using Parts = std::vector<std::pair<std::string_view, std::string>>;

// @{NAME}@ in the page is replaced by a part. Names in the parts themselves are not replaced.
void fill(std::string_view page, const Parts &parts, Output &out) {
    for (;;) {
        const size_t begin = page.find("@{"), end = page.find("}@", begin);
        out.write(page.substr(0, begin));
        if (end == std::string_view::npos) return;
        const std::string_view name = page.substr(begin + 2, end - begin - 2);
        for (const auto &[part, text] : parts) {
            if (part == name) out.write(text);
        }
        page.remove_prefix(end + 2);
    }
}

}  // namespace

void write_report(const ReportParts &parts, Output &out) {
    const Summary &summary = parts.overview.summary;
    std::string processes, vitals;
    append_processes("top-cpu", "Processes with most CPU time", summary, summary.by_cpu, parts.top, &processes);
    append_processes("top-memory", "Processes with most memory", summary, summary.by_memory, parts.top, &processes);
    append_vitals(parts.vitals, &vitals);
    fill(kReportPage,
         {{"title", html(file_name(parts.overview.path))},
          {"state", summary.totals.is_clean() ? "clean" : "damaged"},
          {"verdict", html(verdict(summary))},
          {"whereabouts", html(whereabouts(parts.overview))},
          {"findings", finding_list(parts)},
          {"unknown", unknown_list(parts)},
          {"summary", summary_list(parts.overview)},
          {"processes", processes},
          {"vitals", vitals},
          {"damage", std::to_string(summary.totals.damaged_spans)},
          {"data", plot_data(parts)}},
         out);
}

// The cells of index_row.
static const std::vector<HtmlColumn> kIndexColumns = {
    {"Dump", false},   {"Model", false},        {"Build", false},        {"Last sample", false},
    {"Seconds", true}, {"Peak CPU %", true},    {"Peak memory %", true}, {"Peak I/O wait %", true},
    {"Peak °C", true}, {"Damaged bytes", true}, {"Score", true},         {"Worst", false}};

IndexRow index_row(const std::string &page, const std::string &name, const ReportParts *parts) {
    IndexRow row = {page, name, std::vector<std::string>(kIndexColumns.size(), "-")};
    row.cells[0] = printable(name);
    row.cells.back() = "Not a dump, or it cannot be read.";
    if (parts == nullptr) return row;
    const Summary &summary = parts->overview.summary;
    if (const auto &trailer = summary.totals.trailer) {
        row.cells[1] = printable(trailer->model);
        row.cells[2] = printable(trailer->build);
    }
    if (summary.last_ns) row.cells[3] = moment(parts->overview, *summary.last_ns);
    row.cells[4] = fixed(summary.seconds(), 1);
    size_t column = 5;
    for (const size_t type : {kCpuTotal, kMemoryUsed, kIowait, kAverageTemperature}) {
        const VitalSeries::Figures &figures = parts->vitals.figures()[type];
        if (figures.seconds > 0) row.cells[column] = fixed(figures.greatest, 1);
        ++column;
    }
    row.cells[column] = std::to_string(summary.totals.damaged_bytes);
    row.cells.back() = verdict(summary);
    if (!parts->findings.empty()) {
        row.cells[column + 1] = fixed(parts->findings.front().score, 2);
        row.cells.back() = parts->findings.front().text + ".";
    }
    return row;
}

void write_index(const std::string &directory, const std::vector<IndexRow> &rows, Output &out) {
    std::vector<std::vector<std::string>> texts;
    std::vector<std::string> pages;
    for (const IndexRow &row : rows) {
        texts.push_back(row.cells);
        pages.push_back(row.page);
    }
    std::string table;
    append_table("dumps", std::to_string(rows.size()) + " files", kIndexColumns, texts, &table, pages);
    fill(kIndexPage, {{"title", html(printable(directory))}, {"table", table}}, out);
}

}  // namespace vestra_dump
