// csv and json: a dump's tables as text.

#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/row_text.h"

namespace vestra_dump {
namespace {

struct Typed : FileToFile {
    Wanted wanted;
};

// Rows are written while the dump is read.
void warn_of_unknown_epoch(const Typed &typed, const DumpTime &time) {
    if (time.written && !time.epoch_ns && !typed.time.epoch.empty()) {
        complain("--epoch is of no use here: the newest sample is not known in advance, so rows are without wall_time");
    }
}

const Table &wanted_table(const Wanted &wanted) {
    if (wanted.processes) return kProcessesTable;
    if (wanted.frames) return kFramesTable;
    return wanted.damage ? kDamageTable : kVitalsTable;
}

int csv(Typed typed) {
    if (!typed.wanted.any()) typed.wanted.vitals = true;
    return with_files(typed, [&](FileSource &file, const DumpTime &time, Output &out) {
        warn_of_unknown_epoch(typed, time);
        CsvWriter writer(wanted_table(typed.wanted), time, out);
        RowMaker maker(typed.path, time, 0, typed.wanted, writer);
        return judge(typed.path, read_dump(file, maker), true);
    });
}

int json(Typed typed) {
    if (!typed.wanted.any()) typed.wanted.vitals = typed.wanted.damage = true;
    return with_files(typed, [&](FileSource &file, const DumpTime &time, Output &out) {
        warn_of_unknown_epoch(typed, time);
        JsonWriter writer(time, out);
        RowMaker maker(typed.path, time, 10, typed.wanted, writer);
        const DumpTotals totals = read_dump(file, maker);
        nlohmann::ordered_json last = {{"table", "dump"}};
        last.update(to_json(maker.summary()));
        out.write(last.dump() + "\n");
        return judge(typed.path, totals, true);
    });
}

void add_tables(cli::Command app, Wanted *wanted, bool one) {
    cli::Command tables = app.add_group("tables", one ? 1 : 0);
    tables.add_flag("--vitals", wanted->vitals, "The seventeen vitals of each second");
    tables.add_flag("--processes", wanted->processes, "Every sample of a process, with its CPU percentages");
    tables.add_flag("--frames", wanted->frames, "Every frame");
    tables.add_flag("--damage", wanted->damage, "Every damaged span");
}

}  // namespace

Action setup_csv(cli::Command app) {
    auto typed = std::make_shared<Typed>();
    add_file_options(app, typed.get());
    add_tables(app, &typed->wanted, true);
    return [typed] { return csv(*typed); };
}

Action setup_json(cli::Command app) {
    auto typed = std::make_shared<Typed>();
    add_file_options(app, typed.get());
    add_tables(app, &typed->wanted, false);
    return [typed] { return json(*typed); };
}

}  // namespace vestra_dump
