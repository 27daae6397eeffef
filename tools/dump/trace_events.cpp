#include "tools/dump/trace_events.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/dump/tables.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

constexpr int64_t kBeyondIds = 1 << 22;  // greater than any process id

}  // namespace

TraceEvents::TraceEvents(const TimeRange &range, Output &out)
    : range_(range), out_(out), vitals_(kBeyondIds), next_number_(kBeyondIds + 1) {
    out_.buffer() += "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
    out_.buffer() += R"({"ph":"M","name":"process_sort_index","pid":)";
    append_number(vitals_, &out_.buffer());
    out_.buffer() += R"(,"tid":0,"ts":0,"args":{"sort_index":-1}})";
    name_track(vitals_, "process_name", "Vitals of the set");
    name_track(vitals_, "thread_name", "Damaged spans");
}

void TraceEvents::begin_event(const char *phase, std::string_view name, int64_t track) {
    std::string &text = out_.buffer();
    text.append(",\n{\"ph\":\"").append(phase).append("\",\"name\":\"").append(name).append("\",\"pid\":");
    append_number(track, &text);
    text.append(",\"tid\":");
    append_number(track, &text);
}

// Microseconds with three decimals.
void TraceEvents::add_time(int64_t time_ns) {
    std::array<char, 40> text;
    const int size = std::snprintf(text.data(), text.size(), ",\"ts\":%lld.%03d",
                                   static_cast<long long>(time_ns / 1000), static_cast<int>(time_ns % 1000));
    out_.buffer().append(text.data(), static_cast<size_t>(size));
}

std::string &TraceEvents::end_event() {
    out_.buffer().append("}}");
    out_.done();
    return out_.buffer();
}

void TraceEvents::name_track(int64_t track, const char *what, const std::string &name) {
    begin_event("M", what, track);
    out_.buffer().append(",\"ts\":0,\"args\":{\"name\":").append(nlohmann::json(name).dump());
    end_event();
}

template <class Number>
void TraceEvents::count(int64_t track, int64_t time_ns, std::string_view name, std::string_view unit, Number figure) {
    begin_event("C", name, track);
    add_time(time_ns);
    std::string &text = out_.buffer();
    text.append(",\"args\":{\"").append(unit).append("\":");
    append_number(figure, &text);
    end_event();
}

void TraceEvents::on_second(const SecondVitals &second) {
    for (size_t type = 0; type < kVitalCount; ++type) {
        const double figure = second.vital[type];
        if (!second.knows(type) || !std::isfinite(figure)) continue;
        count(vitals_, second.time_ns, kVitalNames[type].label, kVitalNames[type].unit, figure);
    }
}

// A process id with another name is another process, and must not rename the track of the earlier one.
TraceEvents::Track &TraceEvents::track_of(const SwitchSample &sample) {
    const auto found = tracks_.find(sample.pid);
    const bool known = found != tracks_.end();
    if (known && found->second.name == sample.name) return found->second;
    if (!known && tracks_.size() >= Processes::kMax) {
        tracks_.clear();
        numbers_only_ = true;
    }
    const bool own_id = !known && !numbers_only_ && sample.pid > 0 && sample.pid < kBeyondIds;
    Track &track = tracks_[sample.pid];
    track = {own_id ? sample.pid : next_number_++, std::string(sample.name), -1, 0, 0};
    std::string name = printable(sample.name);
    if (!own_id) name.append(" (process ").append(std::to_string(sample.pid)).append(")");
    name_track(track.number, "process_name", name);
    return track;
}

// Only changes are written: most samples of a long dump repeat the figures before.
void TraceEvents::on_process(const SwitchSample &sample, const Process &process) {
    const Usage &usage = process.usage;
    Track &track = track_of(sample);
    const auto write = [&](auto *last, auto figure, const char *name, const char *unit) {
        if (*last == figure) return;
        *last = figure;
        count(track.number, sample.time_ns, name, unit, figure);
    };
    if (usage.known && std::isfinite(usage.total)) write(&track.percent, usage.total, "CPU", "%");
    write(&track.rss, Value::of_unsigned(sample.rss).integer, "Resident memory", "KiB");
    write(&track.swap, Value::of_unsigned(sample.swap).integer, "Swapped out", "KiB");
}

// Damage is marked at the last sample before it, or at the first sample of the dump.
void TraceEvents::on_damage(const DamagedSpan &span) {
    const auto time_ns = span.from_ns ? span.from_ns : span.to_ns;
    if (!time_ns || !range_.holds(*time_ns)) return;
    begin_event("i", "Damage", vitals_);
    add_time(*time_ns);
    std::string &text = out_.buffer();
    text.append(",\"s\":\"t\",\"args\":{\"reason\":\"").append(describe(span.reason)).append("\",\"offset\":");
    append_number(span.offset, &text);
    text.append(",\"bytes\":");
    append_number(span.bytes, &text);
    text.append(",\"messages\":");
    append_number(span.messages, &text);
    end_event();
}

void TraceEvents::end(const Overview &overview) {
    out_.write("\n],\"otherData\":" + to_json(overview).dump() + "}\n");
}

}  // namespace vestra_dump
