#include "tools/dump/summary.h"

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "tools/dump/text.h"
#include "trace/percentages.h"

namespace vestra_dump {
namespace {

using nlohmann::ordered_json;

constexpr size_t kSpansPrinted = 16;

// "1 span", "2 spans".
std::string counted(uint64_t count, const char *what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

ordered_json process_json(const Summary &summary, const Process &process) {
    return {{"pid", process.pid},
            {"parent", process.parent},
            {"name", printable(process.name)},
            {"cpu_seconds", process.cpu_seconds()},
            {"average_percent", summary.average_percent(process)},
            {"peak_percent", process.peak_percent ? ordered_json(*process.peak_percent) : ordered_json()},
            {"peak_rss_kib", process.peak_rss},
            {"peak_swap_kib", process.peak_swap},
            {"samples", process.samples},
            {"first_ns", process.first_ns},
            {"last_ns", process.last_ns}};
}

ordered_json trailer_json(const Trailer &trailer) {
    ordered_json json = {{"build", printable(trailer.build)}, {"model", printable(trailer.model)}};
    if (trailer.lite_mode) json["lite_mode"] = *trailer.lite_mode;
    if (trailer.build_cut) json["build_cut"] = true;
    if (trailer.model_cut) json["model_cut"] = true;
    return json;
}

void print_trailer(const DumpTotals &totals, std::ostream &out) {
    if (!totals.trailer) {
        out << "trailer:    none: the dump is truncated or was never completed\n";
        return;
    }
    const Trailer &trailer = *totals.trailer;
    out << "build:      " << printable(trailer.build)
        << (trailer.build_cut ? "   (its last character is lost, because lines of the version file end in LF alone)"
                              : "")
        << "\nmodel:      " << printable(trailer.model) << (trailer.model_cut ? "   (cut at 32 bytes)" : "") << '\n';
    if (trailer.lite_mode) out << "lite mode:  " << *trailer.lite_mode << '\n';
}

void print_time(const Overview &overview, std::ostream &out) {
    const Summary &summary = overview.summary;
    if (!summary.first_ns) {
        out << "time:       no samples\n";
        return;
    }
    out << "time:       " << fixed(trace::to_seconds(*summary.first_ns), 3) << " to "
        << fixed(trace::to_seconds(*summary.last_ns), 3) << " s of the stream, " << fixed(summary.seconds(), 1)
        << " s\n";
    const std::string from = overview.time.wall_time(*summary.first_ns);
    const std::string to = overview.time.wall_time(*summary.last_ns);
    if (!from.empty() && !to.empty()) out << "            " << from << " to " << to << '\n';
    if (overview.time.end_is_missing) out << "            " << kEndIsMissing << '\n';
}

void print_processes(const char *title, const Summary &summary, const std::vector<Process> &processes,
                     std::ostream &out) {
    if (processes.empty()) return;
    out << '\n' << title << "\n     pid      CPU s   CPU %  peak %     peak KiB     swap KiB  name\n";
    for (const Process &process : processes) {
        out << std::setw(8) << process.pid << ' ' << std::setw(10) << fixed(process.cpu_seconds(), 2) << ' '
            << std::setw(7) << fixed(summary.average_percent(process), 2) << ' ' << std::setw(7)
            << (process.peak_percent ? fixed(*process.peak_percent, 2) : "-") << ' ' << std::setw(12)
            << process.peak_rss << ' ' << std::setw(12) << process.peak_swap << "  " << printable(process.name) << '\n';
    }
}

}  // namespace

std::vector<std::string> verdicts(const Summary &summary) {
    const DumpTotals &totals = summary.totals;
    std::vector<std::string> texts;
    if (totals.damaged_bytes > 0) {
        texts.push_back(counted(totals.damaged_bytes, "byte") + (totals.damaged_bytes == 1 ? " is" : " are") +
                        " damaged, in " + counted(totals.damaged_spans, "place"));
    }
    if (summary.samples_astray > 0) {
        texts.push_back(counted(summary.samples_astray, "sample") + " of them left out because of wrong time stamps");
    }
    if (summary.counters_wrong > 0) {
        texts.push_back(counted(summary.counters_wrong, "counter") + " of clock ticks not believed");
    }
    if (!totals.trailer) texts.emplace_back("no trailer: the dump is truncated or was never completed");
    return texts;
}

ordered_json to_json(const Overview &overview) {
    const Summary &summary = overview.summary;
    const DumpTotals &totals = summary.totals;
    ordered_json json = {{"file", printable(overview.path)},
                         {"bytes", totals.bytes},
                         {"payload_bytes", totals.payload_bytes},
                         {"trailer", totals.trailer ? trailer_json(*totals.trailer) : ordered_json()}};
    if (summary.first_ns) {
        json["first_ns"] = *summary.first_ns;
        json["last_ns"] = *summary.last_ns;
    }
    if (overview.time.epoch_ns) json["epoch_ns"] = *overview.time.epoch_ns;
    ordered_json frames = ordered_json::object();
    for (const auto &[type, count] : totals.frames) frames[std::to_string(type)] = count;
    json["frames"] = frames;
    json["frame_bytes"] = totals.frame_bytes;
    json["messages"] = totals.messages;
    json["empty_records"] = totals.empty_records;
    json["samples_astray"] = summary.samples_astray;
    json["counters_wrong"] = summary.counters_wrong;
    json["damaged_spans"] = totals.damaged_spans;
    json["damaged_bytes"] = totals.damaged_bytes;
    ordered_json spans = ordered_json::array();
    for (const DamagedSpan &span : summary.spans) {
        ordered_json json_span = {{"offset", span.offset},
                                  {"bytes", span.bytes},
                                  {"reason", describe(span.reason)},
                                  {"messages", span.messages}};
        if (span.from_ns) json_span["from_ns"] = *span.from_ns;
        if (span.to_ns) json_span["to_ns"] = *span.to_ns;
        spans.push_back(json_span);
    }
    json["first_damaged_spans"] = spans;
    json["processes"] = summary.processes;
    for (const auto &[key, processes] :
         {std::pair{"top_cpu", &summary.by_cpu}, std::pair{"top_memory", &summary.by_memory}}) {
        ordered_json list = ordered_json::array();
        for (const Process &process : *processes) list.push_back(process_json(summary, process));
        json[key] = list;
    }
    return json;
}

void print(const Overview &overview, std::ostream &out) {
    const Summary &summary = overview.summary;
    const DumpTotals &totals = summary.totals;
    out << "file:       " << printable(overview.path) << "\nbytes:      " << totals.bytes << ", "
        << totals.payload_bytes << " of them payload\n";
    print_trailer(totals, out);
    print_time(overview, out);
    const uint64_t known = totals.frames_of(trace::kSwitchFrame) + totals.frames_of(trace::kMeminfoFrame);
    out << "frames:     " << totals.frames_of(trace::kSwitchFrame) << " switch, "
        << totals.frames_of(trace::kMeminfoFrame) << " CPU and memory, " << totals.all_frames() - known
        << " of other types; " << counted(totals.messages, "message")
        << "\nblocks:     " << counted(totals.empty_records, "end") << " marked\n";
    if (summary.samples_astray > 0) {
        out << "astray:     " << counted(summary.samples_astray, "sample")
            << " left out because of wrong time stamps\n";
    }
    if (summary.counters_wrong > 0) {
        out << "counters:   " << counted(summary.counters_wrong, "reading") << " of clock ticks not believed\n";
    }
    out << "damaged:    " << counted(totals.damaged_spans, "span") << ", " << counted(totals.damaged_bytes, "byte")
        << '\n';
    for (size_t i = 0; i < summary.spans.size() && i < kSpansPrinted; ++i) {
        const DamagedSpan &span = summary.spans[i];
        out << "            at " << span.offset << ": " << counted(span.bytes, "byte") << ", " << describe(span.reason);
        if (span.messages > 0) out << "; " << counted(span.messages, "message") << " read";
        out << '\n';
    }
    if (totals.damaged_spans > kSpansPrinted) out << "            and more: vestra-dump csv --damage lists them all\n";
    out << "processes:  " << summary.processes << '\n';
    print_processes("most CPU time", summary, summary.by_cpu, out);
    print_processes("most memory", summary, summary.by_memory, out);
}

}  // namespace vestra_dump
