// csv and json: a dump's tables as text.

#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/row_text.h"

namespace vestra_dump {
namespace {

struct Options : FileOptions {
    TableSelection tables;
};

// Rows are written before the newest sample of a pipe is known.
void warn_of_unknown_epoch(const Options &options, const DumpTime &time) {
    if (time.written && !time.epoch_ns && !options.time.epoch.empty()) {
        complain("--epoch has no effect on a pipe: rows are written without wall_time");
    }
}

const Table &selected_table(const TableSelection &tables) {
    if (tables.processes) return kProcessesTable;
    if (tables.frames) return kFramesTable;
    return tables.damage ? kDamageTable : kVitalsTable;
}

int csv(Options options) {
    if (!options.tables.any()) options.tables.vitals = true;
    return with_files(options, [&](FileSource &file, const DumpTime &time, Output &out) {
        warn_of_unknown_epoch(options, time);
        CsvWriter writer(selected_table(options.tables), time, out);
        RowMaker maker(options.path, time, 0, options.tables, writer);
        return report_result(options.path, read_dump(file, maker), true);
    });
}

int json(Options options) {
    if (!options.tables.any()) options.tables.vitals = options.tables.damage = true;
    return with_files(options, [&](FileSource &file, const DumpTime &time, Output &out) {
        warn_of_unknown_epoch(options, time);
        JsonWriter writer(time, out);
        RowMaker maker(options.path, time, 10, options.tables, writer);
        const DumpTotals totals = read_dump(file, maker);
        nlohmann::ordered_json last = {{"table", "dump"}};
        last.update(to_json(maker.summary()));
        out.write(last.dump() + "\n");
        return report_result(options.path, totals, true);
    });
}

void add_tables(cli::Command app, TableSelection *selection, bool one) {
    cli::Command tables = app.add_group("tables", one ? 1 : 0);
    tables.add_flag("--vitals", selection->vitals, "The seventeen vitals of each second");
    tables.add_flag("--processes", selection->processes, "Every sample of a process, with its CPU percentages");
    tables.add_flag("--frames", selection->frames, "Every frame");
    tables.add_flag("--damage", selection->damage, "Every damaged span");
}

}  // namespace

Action setup_csv(cli::Command app) {
    auto options = std::make_shared<Options>();
    add_file_options(app, options.get());
    add_tables(app, &options->tables, true);
    return [options] { return csv(*options); };
}

Action setup_json(cli::Command app) {
    auto options = std::make_shared<Options>();
    add_file_options(app, options.get());
    add_tables(app, &options->tables, false);
    return [options] { return json(*options); };
}

}  // namespace vestra_dump
