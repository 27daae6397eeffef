// csv and json: a dump's tables as text.

#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/row_text.h"

namespace vestra_dump {
namespace {

struct Options : FileOptions {
    TableSelection tables;
};

const Table &selected_table(const TableSelection &tables) {
    if (tables.processes) return kProcessesTable;
    if (tables.frames) return kFramesTable;
    return tables.damage ? kDamageTable : kVitalsTable;
}

int csv(Options options) {
    if (!options.tables.any()) options.tables.vitals = true;
    return with_files(options, [&](Dump *dump, Output &out) {
        CsvWriter writer(selected_table(options.tables), dump->time, out);
        RowMaker maker(options.tables, writer);
        return report_result(read(dump, 0, maker), true);
    });
}

int json(Options options) {
    if (!options.tables.any()) options.tables.vitals = options.tables.damage = true;
    return with_files(options, [&](Dump *dump, Output &out) {
        JsonWriter writer(dump->time, out);
        RowMaker maker(options.tables, writer);
        const Overview overview = read(dump, 10, maker);
        nlohmann::ordered_json last = {{"table", "dump"}};
        last.update(to_json(overview));
        out.write(last.dump() + "\n");
        return report_result(overview, true);
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
