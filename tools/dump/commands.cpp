#include "tools/dump/commands.h"

#include <algorithm>
#include <iostream>

#include "tools/dump/text.h"

namespace vestra_dump {

const std::vector<Command> &commands() {
    static const std::vector<Command> kCommands = {
        {"info", "Print a summary: version, time, frames, damage, the processes that use most",
         "examples:\n"
         "  vestra-dump info /media/STICK/0000000000_3_vestrad_1795560058\n"
         "  vestra-dump info --from -30 --top 5 DUMP     the last half minute\n"
         "  zcat DUMP.gz | vestra-dump info --json - | jq .top_cpu[0]",
         setup_info},
        {"explain", "Say what went wrong before the dump was written: ranked findings, each with its numbers",
         "Looks at the last ten minutes. A finding is a change: what has always been so is not one.\n\n"
         "examples:\n"
         "  vestra-dump explain DUMP\n"
         "  vestra-dump explain --at -60 DUMP     as of a minute before the end\n"
         "  vestra-dump explain --json DUMP | jq -r '.findings[0].evidence.command' | sh",
         setup_explain},
        {"view", "Look at a dump in the terminal, second by second: vitals, processes, findings; ? shows the keys",
         "The processes of a second are those with a sample in it, with the figures of their last one.\n\n"
         "examples:\n"
         "  vestra-dump view DUMP\n"
         "  vestra-dump view --at +60 DUMP               begin a minute after the oldest sample\n"
         "  ssh set cat DUMP | vestra-dump view -",
         setup_view},
        {"csv", "Write one table as CSV: vitals by second, samples of processes, frames, or damaged spans",
         "examples:\n"
         "  vestra-dump csv DUMP > vitals.csv\n"
         "  vestra-dump csv --processes --from +60 --to +120 DUMP | grep tuner\n"
         "  vestra-dump csv --damage DUMP",
         setup_csv},
        {"json", "Write the same tables as lines of JSON, and a last line with the summary",
         "examples:\n"
         "  vestra-dump json DUMP | jq 'select(.table == \"vitals\" and .cpu_total > 90)'\n"
         "  vestra-dump json --processes DUMP > processes.ndjson",
         setup_json},
        {"sqlite", "Load all tables into a SQLite file, which can hold many dumps",
         "A dump replaces an earlier one with the same name. There are the views top_cpu, top_memory and seconds.\n\n"
         "examples:\n"
         "  vestra-dump sqlite week.db /media/STICK/0000000000_*\n"
         "  sqlite3 -box week.db 'SELECT * FROM top_cpu LIMIT 10'",
         setup_sqlite},
        {"parquet", "Convert dumps to Parquet files, in a directory tree that engines read as tables",
         "The tree is LAKE/TABLE/model=MODEL/day=DAY/DUMP.parquet, with the tables dumps, vitals, processes and\n"
         "damage. A dump that the lake has already is skipped. Any number of these commands may fill a lake at "
         "once.\n\n"
         "exit codes: 0 all read and clean, 1 damage, or some could not be read, 2 none could, 64 invalid arguments\n\n"
         "examples:\n"
         "  vestra-dump parquet /media/STICK/0000000000_* -o lake\n"
         "  find incoming -type f -print0 | xargs -0 -n 20 -P 8 vestra-dump parquet -o lake --\n"
         "  vestra-dump parquet --prefix set4711- DUMP -o lake",
         setup_parquet},
        {"clickhouse", "Write one table of many dumps for clickhouse-client, or the statements that create the tables",
         "Rows are TabSeparated; an unknown figure is \\N. A dump that is loaded again changes nothing: ask the\n"
         "tables with FINAL, which leaves out what was loaded twice.\n\n"
         "examples:\n"
         "  vestra-dump clickhouse --schema | clickhouse-client --multiquery\n"
         "  vestra-dump clickhouse --schema --cluster sets > schema.sql     for every server\n"
         "  vestra-dump clickhouse --processes DUMP DUMP |\n"
         "    clickhouse-client --query 'INSERT INTO vestra.processes FORMAT TabSeparated'",
         setup_clickhouse},
        {"perfetto", "Make a trace for ui.perfetto.dev: vitals, processes, damage and findings",
         "A native trace of Perfetto. A counter keeps its figure until the next one; seconds without samples have\n"
         "a track of their own. Traces of several sets can be merged on one timeline: each has a machine's id.\n\n"
         "examples:\n"
         "  vestra-dump perfetto DUMP -o dump.pftrace     then open it in ui.perfetto.dev\n"
         "  vestra-dump perfetto --machine lab-7 --from -60 DUMP | gzip > last-minute.pftrace.gz\n"
         "  vestra-dump perfetto --json DUMP -o dump.json     for chrome://tracing",
         setup_perfetto},
        {"report", "Make a page for the browser: findings, plots of all vitals and of the processes, damage",
         "One self-contained HTML file that needs no network. It has less than 1 MiB, however long the dump is,\n"
         "with the default --top. Of a directory: a page for each dump in it and below, and an index.html that\n"
         "sorts them.\n\n"
         "examples:\n"
         "  vestra-dump report DUMP -o report.html\n"
         "  vestra-dump report --from -60 --top 20 DUMP > last-minute.html\n"
         "  vestra-dump report /media/STICK -o reports/",
         setup_report},
        {"cut", "Write a smaller dump: a time range, or without the names of most processes",
         "A frame is kept whole if any of its messages is in the range. Damaged data is left out, so\n"
         "without options the dump is repaired. The trailer is kept.\n\n"
         "With --only or --hide, all other processes become one, 'other', with their memory and CPU time\n"
         "together. All vitals stay as they are. Names are compared exactly, up to 15 bytes.\n\n"
         "examples:\n"
         "  vestra-dump cut --from -60 DUMP last-minute\n"
         "  vestra-dump cut --from 2026-11-24T22:40:00 --to 2026-11-24T22:41:00 DUMP -\n"
         "  vestra-dump cut --only tuner epg -- DUMP for-the-vendor\n"
         "  vestra-dump cut --hide secret-app -- DUMP harmless",
         setup_cut},
        {"diff", "Compare two dumps: vitals, and processes by name",
         "Rates and levels are compared, not sums, so the dumps may differ in length. A figure differs if it\n"
         "changes by more than the tolerance, in percent of the greater value, and by more than a floor for\n"
         "its unit. Damaged data is left out, with a note.\n\n"
         "exit codes: 0 alike, 1 different, 2 one cannot be read or has no samples, 64 invalid arguments\n\n"
         "examples:\n"
         "  vestra-dump diff build-1.dump build-2.dump\n"
         "  vestra-dump diff --tolerance 10% --json build-1.dump build-2.dump | jq '.differences[0]'",
         setup_diff},
    };
    return kCommands;
}

void add_time_options(cli::Command app, TimeOptions &options) {
    app.add("--from", options.from,
            "Begin here: seconds of the stream (601.5), +SECONDS after the oldest sample, -SECONDS before the "
            "newest, or a date and time in UTC (2026-11-24T22:40:58)")
        .type("TIME");
    app.add("--to", options.to, "End here, this time included").type("TIME");
    add_epoch_option(app, options);
}

void add_epoch_option(cli::Command app, TimeOptions &options) {
    app.add("--epoch", options.epoch,
            "Time of the newest sample: seconds since 1970, a date and time, 'name' (the default: from the "
            "dump's name), or 'none'")
        .type("TIME")
        .suggest([] {
            return std::vector<std::string>{"name", "none"};
        });
}

void add_top_option(cli::Command app, unsigned &top, int least, int greatest) {
    app.add("--top", top, "Number of processes in each list").show_default().range(least, greatest);
}

void add_file_options(cli::Command app, FileOptions *options) {
    app.add("file", options->path, "The dump; - is standard input").required().type("FILE").suggest_files();
    add_time_options(app, options->time);
    app.add("-o,--output", options->output, "Write to this file instead of standard output")
        .type("FILE")
        .suggest_files();
}

void complain(const std::string &text) {
    std::cerr << "vestra-dump: " << text << std::endl;
}

// False, with a complaint, if the dump could not be read or is none.
static bool is_readable(const std::string &path, const DumpTotals &totals) {
    const std::string problem = !totals.error.empty() ? totals.error
                                : totals.is_dump()    ? ""
                                : totals.bytes == 0   ? "empty"
                                                      : "not a dump";
    if (!problem.empty()) complain(printable(path) + ": " + problem);
    return problem.empty();
}

bool open_dump(const std::string &path, const TimeOptions &options, Dump *dump, int *code) {
    std::string error;
    dump->path = path;
    dump->file = FileSource::open(path, &error);
    *code = kExitUnreadable;
    if (dump->file == nullptr) {
        complain(printable(path) + ": " + error);
        return false;
    }
    dump->file->show_progress(true);
    dump->survey = survey(*dump->file);
    if (!is_readable(path, dump->survey.totals)) return false;
    if (resolve(options, path, dump->survey, &dump->time, &error)) return true;
    complain(error);
    *code = kExitUsage;
    return false;
}

Overview read(Dump *dump, size_t top, DumpSink &sink) {
    return {dump->path, dump->time, analyse(*dump->file, &dump->survey.timeline, dump->time.range, top, sink)};
}

int with_files(const FileOptions &options, const std::function<int(Dump *, Output &)> &work) {
    Dump dump;
    int code = kExitClean;
    if (!open_dump(options.path, options.time, &dump, &code)) return code;
    if (options.output != "-" && dump.file->is_same_file(options.output)) {
        complain("the output is the dump itself");
        return kExitUsage;
    }
    const std::string name = options.output == "-" ? "standard output" : printable(options.output);
    std::string error;
    const auto out = Output::open(options.output, &error);
    if (out == nullptr) {
        complain(name + ": " + error);
        return kExitUnreadable;
    }
    code = work(&dump, *out);
    if (code == kExitUnreadable || out->close(&error)) return code;
    complain(name + ": " + error);
    return kExitUnreadable;
}

int report_result(const Overview &overview, bool notes) {
    const DumpTotals &totals = overview.summary.totals;
    if (!is_readable(overview.path, totals)) return kExitUnreadable;
    if (notes) {
        for (const std::string &verdict : verdicts(overview.summary))
            complain(printable(overview.path) + ": " + verdict);
        if (overview.time.end_is_missing) complain(printable(overview.path) + ": " + kEndIsMissing);
    }
    return totals.is_clean() ? kExitClean : kExitDamaged;
}

}  // namespace vestra_dump
