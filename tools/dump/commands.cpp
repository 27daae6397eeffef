#include "tools/dump/commands.h"

#include <algorithm>
#include <iostream>

#include "tools/dump/text.h"

namespace vestra_dump {

const std::vector<Command> &commands() {
    static const std::vector<Command> kCommands = {
        {"info", "What a dump holds: version, time, frames, damage, the processes that stand out",
         "examples:\n"
         "  vestra-dump info /media/STICK/0000000000_3_vestrad_1795560058\n"
         "  vestra-dump info --from -30 --top 5 DUMP     the last half minute\n"
         "  zcat DUMP.gz | vestra-dump info --json - | jq .top_cpu[0]",
         setup_info},
        {"csv", "One table as CSV: vitals by second, samples of processes, frames, or damaged spans",
         "examples:\n"
         "  vestra-dump csv DUMP > vitals.csv\n"
         "  vestra-dump csv --processes --from +60 --to +120 DUMP | grep tuner\n"
         "  vestra-dump csv --damage DUMP",
         setup_csv},
        {"json", "The same tables as lines of JSON, and a last line about the dump",
         "examples:\n"
         "  vestra-dump json DUMP | jq 'select(.table == \"vitals\" and .cpu_total > 90)'\n"
         "  vestra-dump json --processes DUMP > processes.ndjson",
         setup_json},
        {"sqlite", "All tables into a SQLite file, which may hold many dumps",
         "A dump of a name that is there already is replaced. The views top_cpu, top_memory and seconds are there to\n"
         "begin with.\n\n"
         "examples:\n"
         "  vestra-dump sqlite week.db /media/STICK/0000000000_*\n"
         "  sqlite3 -box week.db 'SELECT * FROM top_cpu LIMIT 10'",
         setup_sqlite},
        {"perfetto", "A trace for ui.perfetto.dev: counters for the vitals and for every process",
         "Times are the stream's. A counter holds its figure until the next one: gaps do not show.\n\n"
         "examples:\n"
         "  vestra-dump perfetto DUMP -o dump.json     then open it in ui.perfetto.dev or chrome://tracing\n"
         "  vestra-dump perfetto --from -60 DUMP | gzip > last-minute.json.gz",
         setup_perfetto},
        {"report", "A page for the browser: plots of all vitals, the processes that stand out, damage",
         "One HTML file that needs nothing beside it, and no network.\n\n"
         "examples:\n"
         "  vestra-dump report DUMP -o report.html\n"
         "  vestra-dump report --from -60 --top 20 DUMP > last-minute.html",
         setup_report},
        {"cut", "A smaller dump of the frames in a stretch of time",
         "Frames are kept whole when any of their messages lies in the stretch. What is damaged is left out, so that\n"
         "without --from and --to the dump is mended. The trailer is kept.\n\n"
         "examples:\n"
         "  vestra-dump cut --from -60 DUMP last-minute\n"
         "  vestra-dump cut --from 2026-11-24T22:40:00 --to 2026-11-24T22:41:00 DUMP -",
         setup_cut},
    };
    return kCommands;
}

void add_time_options(cli::Command app, TimeOptions &options) {
    app.add("--from", options.from,
            "Begin here: seconds of the stream (601.5), +SECONDS behind the oldest sample, -SECONDS before the "
            "newest, or a date and time in UTC (2026-11-24T22:40:58)")
        .type("TIME");
    app.add("--to", options.to, "End here, the moment itself included").type("TIME");
    app.add("--epoch", options.epoch,
            "When the newest sample was taken, as seconds since 1970 or a date and time; 'name': as the dump's "
            "name tells (the default); 'none'")
        .type("TIME");
}

void add_file_options(cli::Command app, FileToFile *typed) {
    app.add("file", typed->path, "The dump; - is standard input").required().type("FILE");
    add_time_options(app, typed->time);
    app.add("-o,--output", typed->output, "Write there instead of to standard output").type("FILE");
}

void complain(const std::string &text) {
    std::cerr << "vestra-dump: " << text << std::endl;
}

std::unique_ptr<FileSource> open_dump(const std::string &path, const TimeOptions &options, DumpTime *time, int *code) {
    std::string error;
    auto file = FileSource::open(path, &error);
    if (file == nullptr) {
        complain(printable(path) + ": " + error);
        *code = kExitUnreadable;
        return nullptr;
    }
    if (!resolve(options, path, time, &error)) {
        complain(error);
        *code = kExitUsage;
        return nullptr;
    }
    file->show_progress(true);
    return file;
}

int with_files(const FileToFile &typed, const std::function<int(FileSource &, const DumpTime &, Output &)> &work) {
    DumpTime time;
    int code = kExitClean;
    const auto file = open_dump(typed.path, typed.time, &time, &code);
    if (file == nullptr) return code;
    if (typed.output != "-" && file->is_same_file(typed.output)) {
        complain("the output is the dump itself");
        return kExitUsage;
    }
    std::string error;
    const auto out = Output::open(typed.output, &error);
    if (out == nullptr) {
        complain(printable(typed.output) + ": " + error);
        return kExitUnreadable;
    }
    return close_output(out.get(), typed.output, work(*file, time, *out));
}

int judge(const std::string &path, const DumpTotals &totals, bool notes) {
    const std::string prefix = printable(path) + ": ";
    if (!totals.error.empty()) {
        complain(prefix + totals.error);
        return kExitUnreadable;
    }
    if (!totals.is_dump()) {
        complain(prefix + (totals.bytes == 0 ? "empty" : "nothing of a dump in it"));
        return kExitUnreadable;
    }
    if (totals.is_clean()) return kExitClean;
    if (notes && totals.damaged_spans > 0) {
        complain(prefix + std::to_string(totals.damaged_bytes) + " bytes are damaged, in " +
                 std::to_string(totals.damaged_spans) + (totals.damaged_spans == 1 ? " place" : " places"));
    }
    if (notes && !totals.trailer) complain(prefix + "no trailer: the dump was cut short, or never written to its end");
    return kExitDamaged;
}

int close_output(Output *out, const std::string &path, int code) {
    std::string error;
    if (out->close(&error)) return code;
    complain((path == "-" ? "standard output" : printable(path)) + ": " + error);
    return std::max<int>(code, kExitUnreadable);
}

}  // namespace vestra_dump
