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

double cpu_seconds(const ProcessTotal &process) {
    return process.cpu_ticks / trace::kTicksPerSecond;
}

// "1 span", "2 spans".
std::string counted(uint64_t count, const char *what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

ordered_json process_json(const Summary &summary, const ProcessTotal &process) {
    return {{"pid", process.pid},
            {"parent", process.parent},
            {"name", printable(process.name)},
            {"cpu_seconds", cpu_seconds(process)},
            {"average_percent", summary.average_percent(process)},
            {"peak_percent", process.peak_percent},
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

void print_time(const Summary &summary, std::ostream &out) {
    if (!summary.first_ns) {
        out << "time:       no samples\n";
        return;
    }
    out << "time:       " << fixed(trace::to_seconds(*summary.first_ns), 3) << " to "
        << fixed(trace::to_seconds(*summary.last_ns), 3) << " s of the stream, " << fixed(summary.seconds(), 1)
        << " s\n";
    const std::string from = summary.time.wall_time(*summary.first_ns), to = summary.time.wall_time(*summary.last_ns);
    if (!from.empty() && !to.empty()) out << "            " << from << " to " << to << '\n';
}

void print_processes(const char *title, const Summary &summary, const std::vector<ProcessTotal> &processes,
                     std::ostream &out) {
    if (processes.empty()) return;
    out << '\n' << title << "\n     pid      CPU s   CPU %  peak %     peak KiB     swap KiB  name\n";
    for (const ProcessTotal &process : processes) {
        out << std::setw(8) << process.pid << ' ' << std::setw(10) << fixed(cpu_seconds(process), 2) << ' '
            << std::setw(7) << fixed(summary.average_percent(process), 2) << ' ' << std::setw(7)
            << fixed(process.peak_percent, 2) << ' ' << std::setw(12) << process.peak_rss << ' ' << std::setw(12)
            << process.peak_swap << "  " << printable(process.name) << '\n';
    }
}

}  // namespace

std::vector<std::string> findings(const DumpTotals &totals) {
    std::vector<std::string> texts;
    if (totals.damaged_spans > 0) {
        texts.push_back(std::to_string(totals.damaged_bytes) + " bytes are damaged, in " +
                        counted(totals.damaged_spans, "place"));
    }
    if (!totals.trailer) texts.emplace_back("no trailer: the dump is truncated or was never completed");
    return texts;
}

double Summary::seconds() const {
    return first_ns ? trace::to_seconds(static_cast<int64_t>(trace::distance(*last_ns, *first_ns))) : 0;
}

double Summary::average_percent(const ProcessTotal &process) const {
    const double ticks = trace::ticks_in(seconds());
    return ticks > 0 ? process.cpu_ticks * 100 / ticks : 0;
}

Summariser::Summariser(std::string path, const DumpTime &time, size_t top) : Analysis(time.range), top_(top) {
    summary_.path = std::move(path);
    summary_.time = time;
}

void Summariser::on_process(const SwitchSample &sample, const Usage &usage) {
    if (top_ > 0) processes_.take(sample, usage);
}

void Summariser::on_time(int64_t time_ns) {
    if (!summary_.time.range.holds(time_ns)) return;
    summary_.first_ns = std::min(summary_.first_ns.value_or(time_ns), time_ns);
    summary_.last_ns = std::max(summary_.last_ns.value_or(time_ns), time_ns);
}

void Summariser::on_damage(const DamagedSpan &span) {
    if (summary_.spans.size() < Summary::kSpansKept) summary_.spans.push_back(span);
}

void Summariser::on_end(const DumpTotals &totals) {
    Analysis::on_end(totals);
    summary_.totals = totals;
    summary_.time.set_newest(newest_ns());
    summary_.by_cpu = processes_.top_by_cpu(top_);
    summary_.by_memory = processes_.top_by_memory(top_);
    summary_.processes = processes_.seen();
    summary_.strays = strays();
}

ordered_json to_json(const Summary &summary) {
    const DumpTotals &totals = summary.totals;
    ordered_json json = {{"file", printable(summary.path)},
                         {"bytes", totals.bytes},
                         {"payload_bytes", totals.payload_bytes},
                         {"trailer", totals.trailer ? trailer_json(*totals.trailer) : ordered_json()}};
    if (summary.first_ns) {
        json["first_ns"] = *summary.first_ns;
        json["last_ns"] = *summary.last_ns;
    }
    if (summary.time.epoch_ns) json["epoch_ns"] = *summary.time.epoch_ns;
    ordered_json frames = ordered_json::object();
    for (const auto &[type, count] : totals.frames) frames[std::to_string(type)] = count;
    json["frames"] = frames;
    json["frame_bytes"] = totals.frame_bytes;
    json["messages"] = totals.messages;
    json["empty_records"] = totals.empty_records;
    json["samples_astray"] = summary.strays;
    json["damaged_spans"] = totals.damaged_spans;
    json["damaged_bytes"] = totals.damaged_bytes;
    ordered_json spans = ordered_json::array();
    for (const DamagedSpan &span : summary.spans) {
        spans.push_back({{"offset", span.offset},
                         {"bytes", span.bytes},
                         {"reason", describe(span.reason)},
                         {"messages", span.messages}});
    }
    json["first_damaged_spans"] = spans;
    json["processes"] = summary.processes;
    for (const auto &[key, processes] :
         {std::pair{"top_cpu", &summary.by_cpu}, std::pair{"top_memory", &summary.by_memory}}) {
        ordered_json list = ordered_json::array();
        for (const ProcessTotal &process : *processes) list.push_back(process_json(summary, process));
        json[key] = list;
    }
    return json;
}

void print(const Summary &summary, std::ostream &out) {
    const DumpTotals &totals = summary.totals;
    out << "file:       " << printable(summary.path) << "\nbytes:      " << totals.bytes << ", " << totals.payload_bytes
        << " of them payload\n";
    print_trailer(totals, out);
    print_time(summary, out);
    const uint64_t known = totals.frames_of(trace::kSwitchFrame) + totals.frames_of(trace::kMeminfoFrame);
    out << "frames:     " << totals.frames_of(trace::kSwitchFrame) << " switch, "
        << totals.frames_of(trace::kMeminfoFrame) << " CPU and memory, " << totals.all_frames() - known
        << " of other types; " << counted(totals.messages, "message")
        << "\nblocks:     " << counted(totals.empty_records, "end") << " marked\n";
    if (summary.strays > 0) {
        out << "stray:      " << counted(summary.strays, "sample") << " ignored because of impossible time stamps\n";
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
