#include "tools/dump/report.h"

#include <cctype>
#include <nlohmann/json.hpp>

#include "tools/dump/report_html.h"
#include "tools/dump/report_page.h"
#include "tools/dump/text.h"
#include "trace/percentages.h"

namespace vestra_dump {
namespace {

using nlohmann::json;

constexpr size_t kSpansShown = 100;

std::string file_name(const std::string &path) {
    return printable(path == "-" ? "standard input" : path.substr(path.rfind('/') + 1));
}

std::string verdict(const Summary &summary) {
    if (summary.totals.is_clean()) return "Clean: every byte was read.";
    std::string text;
    for (std::string sentence : verdicts(summary)) {
        sentence[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(sentence[0])));
        text.append(text.empty() ? "" : " ").append(sentence).append(".");
    }
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
        const std::string from = overview.time.wall_time(*summary.first_ns);
        const std::string to = overview.time.wall_time(*summary.last_ns);
        if (!from.empty() && !to.empty()) {
            add("From", from);
            add("To", to);
        }
        if (overview.time.end_is_missing) add("Wall clock", kEndIsMissing);
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

// The same columns as in info, with the same decimals.
void append_processes(const char *id, const char *caption, const Summary &summary,
                      const std::vector<Process> &processes, std::string *out) {
    std::vector<std::vector<std::string>> rows;
    for (const Process &process : processes) {
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

std::string moment(const std::optional<int64_t> &time_ns, const char *otherwise) {
    return time_ns ? fixed(trace::to_seconds(*time_ns), 3) : otherwise;
}

void append_damage(const Summary &summary, std::string *out) {
    if (summary.spans.empty()) {
        out->append("<p>None.</p>\n");
        return;
    }
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < summary.spans.size() && i < kSpansShown; ++i) {
        const DamagedSpan &span = summary.spans[i];
        rows.push_back({std::to_string(span.offset), std::to_string(span.bytes), std::to_string(span.messages),
                        moment(span.from_ns, "begin"), moment(span.to_ns, "end"), describe(span.reason)});
    }
    append_table("damage", "Damaged spans: the place in the file, and the times of the samples around it",
                 {{"Offset", true},
                  {"Bytes", true},
                  {"Messages read", true},
                  {"After second", true},
                  {"Before second", true},
                  {"Reason", false}},
                 rows, out);
    if (summary.totals.damaged_spans > rows.size()) {
        out->append("<p>").append(std::to_string(summary.totals.damaged_spans - rows.size()));
        out->append(" more: <code>vestra-dump csv --damage</code> lists them all.</p>\n");
    }
}

std::string plot_data(const Report &report, const Overview &overview) {
    const Summary &summary = overview.summary;
    json data = {{"width", report.series().width()}, {"rows", report.series().rows()}, {"epoch_ms", nullptr}};
    const bool wall_clock = summary.first_ns && !overview.time.wall_time(*summary.first_ns).empty();
    if (wall_clock) data["epoch_ms"] = static_cast<double>(*overview.time.epoch_ns) / 1e6;
    for (const VitalName &name : kVitalNames) data["names"].push_back(name.label);
    data["damage"] = json::array();
    const auto second = [](const std::optional<int64_t> &time_ns) {
        return time_ns ? json(trace::to_seconds(*time_ns)) : json(nullptr);
    };
    for (const DamagedSpan &span : summary.spans) {
        data["damage"].push_back({second(span.from_ns), second(span.to_ns)});
    }
    return script_json(data.dump());
}

}  // namespace

void write_report(const Report &report, const Overview &overview, Output &out) {
    const Summary &summary = overview.summary;
    const DumpTotals &totals = summary.totals;
    std::string processes, vitals, damage;
    append_processes("top-cpu", "Processes with most CPU time", summary, summary.by_cpu, &processes);
    append_processes("top-memory", "Processes with most memory", summary, summary.by_memory, &processes);
    append_vitals(report.series(), &vitals);
    append_damage(summary, &damage);
    const std::pair<std::string_view, std::string> kParts[] = {
        {"title", html(file_name(overview.path))},
        {"state", totals.is_clean() ? "clean" : "damaged"},
        {"verdict", html(verdict(summary))},
        {"summary", summary_list(overview)},
        {"processes", processes},
        {"vitals", vitals},
        {"damage", damage},
        {"data", plot_data(report, overview)},
    };
    // @{NAME}@ in the page is replaced by a part. Names in the parts themselves are not replaced.
    std::string_view page(reinterpret_cast<const char *>(kReportPage), kReportPageSize);
    for (;;) {
        const size_t begin = page.find("@{"), end = page.find("}@", begin);
        out.write(page.substr(0, begin));
        if (end == std::string_view::npos) return;
        const std::string_view name = page.substr(begin + 2, end - begin - 2);
        for (const auto &[part, text] : kParts) {
            if (part == name) out.write(text);
        }
        page.remove_prefix(end + 2);
    }
}

}  // namespace vestra_dump
