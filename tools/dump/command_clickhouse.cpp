// clickhouse: a table of many dumps as a stream for clickhouse-client, and the statements that create the tables.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>

#include "tools/dump/commands.h"
#include "tools/dump/tables.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Options {
    std::vector<std::string> paths;
    std::string prefix, cluster, database = "vestra";
    bool schema = false, vitals = false, processes = false, damage = false, dumps = false;
    TimeOptions time;
};

constexpr const Table *kTables[] = {&kVitalsTable, &kProcessesTable, &kDamageTable, &kDumpsTable};

// Only names that need no quotes in a statement.
std::string fault_of_name(const std::string &name) {
    const bool plain =
        !name.empty() && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
        std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
    return plain ? "" : "a name has letters, digits and '_'";
}

std::string type_of(const Column &column) {
    const std::string_view type = column.type;
    const std::string name = type == "TEXT" ? "String" : type == "REAL" ? "Float64" : "Int64";
    return column.nullable ? "Nullable(" + name + ')' : name;
}

// Rows have a number within their dump, so that two equal samples stay two, but a dump that is loaded again adds nothing.
void print_table(const Options &options, const Table &table, std::ostream &out) {
    const std::string name = options.database + '.' + table.name;
    const std::string stored = options.cluster.empty() ? name : name + "_local";
    out << "CREATE TABLE IF NOT EXISTS " << stored << "\n(\n    dump String,\n    row UInt64";
    for (const Column &column : table.columns) out << ",\n    " << column.name << ' ' << type_of(column);
    const bool timed = table.time_column() < table.columns.size();
    if (timed) out << ",\n    wall_time Nullable(DateTime('UTC'))";
    const bool by_time = timed && !table.columns[table.time_column()].nullable;  // a key has no unknown values
    out << "\n)\nENGINE = ReplacingMergeTree\nORDER BY (dump, "
        << (by_time ? table.columns[table.time_column()].name + std::string(", ") : "") << "row);\n\n";
    if (options.cluster.empty()) return;
    out << "CREATE TABLE IF NOT EXISTS " << name << " AS " << stored << "\nENGINE = Distributed(" << options.cluster
        << ", " << options.database << ", " << table.name << "_local, cityHash64(dump));\n\n";
}

void print_schema(const Options &options, std::ostream &out) {
    out << "-- The tables of vestra-dump clickhouse"
        << (options.cluster.empty() ? "" : ", for every server of the cluster") << ".\nCREATE DATABASE IF NOT EXISTS "
        << options.database << ";\n\n";
    for (const Table *table : kTables) print_table(options, *table, out);
}

// Values end with a tab or a line end. Texts have no other control characters; see Value.
void append_cell(const Value &value, std::string *out) {
    switch (value.kind) {
        case Value::kInteger:
            return append_number(value.integer, out);
        case Value::kReal:
            return append_number(value.real, out);
        case Value::kText:
            for (const char c : value.text) out->append(c == '\\' ? 2 : 1, c);
            return;
        default:
            out->append("\\N");
    }
}

// The rows of one dump.
class StreamWriter : public RowSink {
  public:
    StreamWriter(const std::string &dump, const DumpTime &time, Output &out) : time_(time), out_(out) {
        append_cell(Value::of(std::string_view(dump)), &dump_);
    }

    void add(const Table &table, const Row &row) override {
        std::string &text = out_.buffer();
        text.append(dump_).append(1, '\t');
        append_number(row_++, &text);
        for (const Value &value : row) {
            text.append(1, '\t');
            append_cell(value, &text);
        }
        if (const size_t column = table.time_column(); column < row.size()) {
            text.append(1, '\t');
            append_wall_time(row[column], &text);
        }
        text.append(1, '\n');
        out_.done();
    }

  private:
    // Seconds since 1970. A number of fewer digits would be read as a date, one of more does not fit.
    void append_wall_time(const Value &time, std::string *out) const {
        constexpr int64_t kLeast = 1'000'000'000, kMost = UINT32_MAX, kNsPerSecond = 1'000'000'000;
        const auto unix_ns = time.kind == Value::kInteger ? time_.unix_ns(time.integer) : std::nullopt;
        const bool fits = unix_ns && *unix_ns / kNsPerSecond >= kLeast && *unix_ns / kNsPerSecond <= kMost;
        append_cell(fits ? Value::of(*unix_ns / kNsPerSecond) : Value{}, out);
    }

    std::string dump_;
    const DumpTime &time_;
    Output &out_;
    uint64_t row_ = 0;
};

// Returns an exit code.
int write_dump(const Options &options, const std::string &path, Output &out) {
    Dump dump;
    int code = kExitClean;
    if (!open_dump(path, options.time, &dump, &code)) return code;
    const std::string name = printable(options.prefix + std::filesystem::path(path).filename().string());
    StreamWriter writer(name, dump.time, out);
    RowMaker maker({options.vitals, options.processes, false, options.damage}, writer);
    const Overview overview = read(&dump, 0, maker);
    code = report_result(overview, true);
    if (code == kExitUnreadable || !options.dumps) return code;
    VersionTexts texts;
    Row row;
    fill_row(overview, &texts, &row);
    writer.add(kDumpsTable, row);
    return code;
}

int clickhouse(Options options) {
    const bool tables = options.vitals || options.processes || options.damage || options.dumps;
    if (options.schema != options.paths.empty() || (options.schema && tables)) {
        complain(options.schema ? "--schema needs no dumps and no table" : "no dumps; --schema prints the tables");
        return kExitUsage;
    }
    if (std::find(options.paths.begin(), options.paths.end(), "-") != options.paths.end()) {
        complain("standard input has no name, which a row needs");
        return kExitUsage;
    }
    if (!tables) options.vitals = true;
    std::string error;
    const auto out = Output::open("-", &error);
    if (out == nullptr) {
        complain("standard output: " + error);
        return kExitUnreadable;
    }
    size_t bad = 0;
    int worst = kExitClean;
    if (options.schema) {
        std::ostringstream schema;
        print_schema(options, schema);
        out->write(schema.str());
    }
    for (const std::string &path : options.paths) {
        if (out->has_failed()) break;
        const int code = write_dump(options, path, *out);
        if (code == kExitUsage) return code;
        if (code == kExitUnreadable) ++bad;
        if (code != kExitClean) worst = kExitDamaged;
    }
    if (!out->close(&error)) {
        complain("standard output: " + error);
        return kExitUnreadable;
    }
    return bad > 0 && bad == options.paths.size() ? kExitUnreadable : worst;
}

}  // namespace

Action setup_clickhouse(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->paths, "The dumps").type("FILE").suggest_files();
    cli::Command tables = app.add_group("tables", 1);
    tables.add_flag("--vitals", options->vitals, "The seventeen vitals of each second (the default)");
    tables.add_flag("--processes", options->processes, "Every sample of a process");
    tables.add_flag("--damage", options->damage, "Every damaged span");
    tables.add_flag("--dumps", options->dumps, "One row for each dump");
    app.add_flag("--schema", options->schema, "Print the statements that create the tables instead");
    app.add("--database", options->database, "Where --schema creates them")
        .type("NAME")
        .show_default()
        .check(fault_of_name);
    app.add("--cluster", options->cluster, "--schema: spread them over the servers of this cluster, by dump")
        .type("NAME")
        .check(fault_of_name);
    app.add("--prefix", options->prefix, "Put this before the dumps' names, such as the name of the set").type("TEXT");
    add_epoch_option(app, options->time);
    return [options] { return clickhouse(*options); };
}

}  // namespace vestra_dump
