#include "tools/dump/tables.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/dump/text.h"

namespace vestra_dump {

const Table kVitalsTable = [] {
    Table table{"vitals", {{"second", "INTEGER"}, {"time_ns", "INTEGER"}}};
    for (const VitalName &name : kVitalNames) table.columns.push_back({name.column, "REAL", true});
    return table;
}();

const Table kProcessesTable = {"processes",
                               {{"time_ns", "INTEGER"},
                                {"pid", "INTEGER"},
                                {"parent", "INTEGER"},
                                {"name", "TEXT"},
                                {"core", "INTEGER"},
                                {"cpu_total", "REAL", true},
                                {"cpu_user", "REAL", true},
                                {"cpu_system", "REAL", true},
                                {"user_ticks", "INTEGER"},
                                {"system_ticks", "INTEGER"},
                                {"rss_kib", "INTEGER"},
                                {"swap_kib", "INTEGER"},
                                {"read_kib", "INTEGER"},
                                {"written_kib", "INTEGER"},
                                {"listed", "INTEGER"},
                                {"used_ticks", "INTEGER"}}};

const Table kFramesTable = {"frames",
                            {{"offset", "INTEGER"},
                             {"bytes", "INTEGER"},
                             {"type", "INTEGER"},
                             {"core", "INTEGER"},
                             {"messages", "INTEGER"},
                             {"first_ns", "INTEGER", true},
                             {"last_ns", "INTEGER", true},
                             {"whole", "INTEGER"}}};

const Table kDamageTable = {"damage",
                            {{"offset", "INTEGER"},
                             {"bytes", "INTEGER"},
                             {"reason", "TEXT"},
                             {"messages", "INTEGER"},
                             {"from_ns", "INTEGER", true},
                             {"to_ns", "INTEGER", true}}};

// trailer: 1: there is one, which has build and model. epoch_ns: Unix time of stream time 0, ns.
const Table kDumpsTable = {"dumps",
                           {{"bytes", "INTEGER"},
                            {"payload_bytes", "INTEGER"},
                            {"trailer", "INTEGER"},
                            {"build", "TEXT", true},
                            {"model", "TEXT", true},
                            {"lite_mode", "INTEGER", true},
                            {"first_ns", "INTEGER", true},
                            {"last_ns", "INTEGER", true},
                            {"epoch_ns", "INTEGER", true},
                            {"frames", "INTEGER"},
                            {"messages", "INTEGER"},
                            {"empty_records", "INTEGER"},
                            {"damaged_spans", "INTEGER"},
                            {"damaged_bytes", "INTEGER"},
                            {"samples_astray", "INTEGER"},
                            {"counters_wrong", "INTEGER"}}};

size_t Table::time_column() const {
    static constexpr std::string_view kTimes[] = {"time_ns", "first_ns", "from_ns"};
    if (this == &kDumpsTable) return columns.size();
    const auto is_time = [](const Column &column) {
        return std::find(std::begin(kTimes), std::end(kTimes), column.name) != std::end(kTimes);
    };
    return static_cast<size_t>(std::find_if(columns.begin(), columns.end(), is_time) - columns.begin());
}

Value Value::of_unsigned(uint64_t value) {
    constexpr auto kGreatest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return of(static_cast<int64_t>(value < kGreatest ? value : kGreatest));
}

Value Value::of(double value) {
    if (!std::isfinite(value)) return {};
    return {kReal, 0, value, {}};
}

void fill_row(const SecondVitals &second, Row *row) {
    *row = {Value::of(second.second), Value::of(second.time_ns)};
    for (size_t type = 0; type < second.vital.size(); ++type) {
        row->push_back(second.knows(type) ? Value::of(second.vital[type]) : Value{});
    }
}

void fill_row(const SwitchSample &sample, const Process &process, std::string *name, Row *row) {
    const Usage &usage = process.usage;
    name->clear();
    append_printable(sample.name, name);
    const auto percent = [&usage](double value) { return usage.known ? Value::of(value) : Value{}; };
    *row = {Value::of(sample.time_ns),
            Value::of(int64_t{sample.pid}),
            Value::of(int64_t{sample.parent}),
            Value::of(std::string_view(*name)),
            Value::of(int64_t{sample.core}),
            percent(usage.total),
            percent(usage.user),
            percent(usage.system),
            Value::of(sample.cpu_user),
            Value::of(sample.cpu_system),
            Value::of_unsigned(sample.rss),
            Value::of_unsigned(sample.swap),
            Value::of_unsigned(sample.read_kib),
            Value::of_unsigned(sample.written_kib),
            Value::of(int64_t{sample.accounted ? 1 : 0}),
            Value::of(process.used_ticks)};
}

void fill_row(const Frame &frame, size_t messages, Row *row) {
    const bool timed = messages > 0;
    *row = {Value::of_unsigned(frame.offset),
            Value::of_unsigned(frame.bytes),
            Value::of(int64_t{frame.type}),
            Value::of(int64_t{frame.core}),
            Value::of_unsigned(messages),
            timed ? Value::of(frame.first_ns) : Value{},
            timed ? Value::of(frame.last_ns) : Value{},
            Value::of(int64_t{frame.whole ? 1 : 0})};
}

static Value optional_time(const std::optional<int64_t> &ns) {
    return ns ? Value::of(*ns) : Value{};
}

void fill_row(const DamagedSpan &span, Row *row) {
    *row = {Value::of_unsigned(span.offset),
            Value::of_unsigned(span.bytes),
            Value::of(std::string_view(describe(span.reason))),
            Value::of_unsigned(span.messages),
            optional_time(span.from_ns),
            optional_time(span.to_ns)};
}

void fill_row(const Overview &overview, VersionTexts *texts, Row *row) {
    const Summary &summary = overview.summary;
    const DumpTotals &totals = summary.totals;
    const Trailer trailer = totals.trailer.value_or(Trailer{});
    *texts = {printable(trailer.build), printable(trailer.model)};
    const auto text = [&totals](const std::string &value) {
        return totals.trailer ? Value::of(std::string_view(value)) : Value{};
    };
    *row = {Value::of_unsigned(totals.bytes),
            Value::of_unsigned(totals.payload_bytes),
            Value::of(int64_t{totals.trailer ? 1 : 0}),
            text(texts->build),
            text(texts->model),
            trailer.lite_mode ? Value::of(int64_t{*trailer.lite_mode}) : Value{},
            optional_time(summary.first_ns),
            optional_time(summary.last_ns),
            optional_time(overview.time.epoch_ns),
            Value::of_unsigned(totals.all_frames()),
            Value::of_unsigned(totals.messages),
            Value::of_unsigned(totals.empty_records),
            Value::of_unsigned(totals.damaged_spans),
            Value::of_unsigned(totals.damaged_bytes),
            Value::of_unsigned(summary.samples_astray),
            Value::of_unsigned(summary.counters_wrong)};
}

void RowMaker::on_second(const SecondVitals &second) {
    if (!tables_.vitals) return;
    fill_row(second, &row_);
    sink_.add(kVitalsTable, row_);
}

void RowMaker::on_process(const SwitchSample &sample, const Process &process) {
    if (!tables_.processes) return;
    fill_row(sample, process, &name_, &row_);
    sink_.add(kProcessesTable, row_);
}

void RowMaker::on_frame(const Frame &frame, const FrameMessages &messages) {
    if (!tables_.frames) return;
    fill_row(frame, messages.count(), &row_);
    sink_.add(kFramesTable, row_);
}

void RowMaker::on_damage(const DamagedSpan &span) {
    if (!tables_.damage) return;
    fill_row(span, &row_);
    sink_.add(kDamageTable, row_);
}

}  // namespace vestra_dump
