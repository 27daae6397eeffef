// csv and json: a dump's tables as text.

#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/row_text.h"

namespace vestra_dump {
namespace {

struct Typed {
    std::string path, output = "-";
    TimeOptions time;
    Wanted wanted;
};

// Opens what is read and what is written, lets `work` do it, and closes.
template <class Work>
int with_files(const Typed &typed, Work work) {
    DumpTime time;
    int code = kExitClean;
    const auto file = open_dump(typed.path, typed.time, &time, &code);
    if (file == nullptr) return code;
    if (time.written && !time.epoch_ns && !typed.time.epoch.empty()) {
        complain("--epoch is of no use here: the newest sample is not known in advance, so rows are without wall_time");
    }
    if (typed.output != "-" && file->is_same_file(typed.output)) {
        complain("the output is the dump itself");
        return kExitUsage;
    }
    std::string error;
    const auto out = Output::open(typed.output, &error);
    if (out == nullptr) {
        complain(typed.output + ": " + error);
        return kExitUnreadable;
    }
    return close_output(out.get(), typed.output, work(*file, time, *out));
}

const Table &wanted_table(const Wanted &wanted) {
    if (wanted.processes) return kProcessesTable;
    if (wanted.frames) return kFramesTable;
    return wanted.damage ? kDamageTable : kVitalsTable;
}

int csv(Typed typed) {
    if (!typed.wanted.any()) typed.wanted.vitals = true;
    return with_files(typed, [&](FileSource &file, const DumpTime &time, Output &out) {
        CsvWriter writer(wanted_table(typed.wanted), time, out);
        RowMaker maker(typed.path, time, 0, typed.wanted, writer);
        return judge(typed.path, read_dump(file, maker), true);
    });
}

int json(Typed typed) {
    if (!typed.wanted.any()) typed.wanted.vitals = typed.wanted.damage = true;
    return with_files(typed, [&](FileSource &file, const DumpTime &time, Output &out) {
        JsonWriter writer(time, out);
        RowMaker maker(typed.path, time, 10, typed.wanted, writer);
        const DumpTotals totals = read_dump(file, maker);
        nlohmann::ordered_json last = {{"table", "dump"}};
        last.update(to_json(maker.summary()));
        out.write(last.dump() + "\n");
        return judge(typed.path, totals, true);
    });
}

std::shared_ptr<Typed> add_options(CLI::App &app) {
    auto typed = std::make_shared<Typed>();
    app.add_option("file", typed->path, "The dump; - is standard input")->required()->type_name("FILE");
    add_time_options(app, typed->time);
    app.add_option("-o,--output", typed->output, "Write there instead of to standard output")->type_name("FILE");
    return typed;
}

void add_tables(CLI::App &app, Wanted *wanted, bool one) {
    CLI::Option_group *tables = app.add_option_group("tables");
    tables->add_flag("--vitals", wanted->vitals, "The seventeen vitals of each second");
    tables->add_flag("--processes", wanted->processes, "Every sample of a process, with its CPU percentages");
    tables->add_flag("--frames", wanted->frames, "Every frame");
    tables->add_flag("--damage", wanted->damage, "Every damaged span");
    tables->require_option(0, one ? 1 : 0);
}

}  // namespace

Action setup_csv(CLI::App &app) {
    auto typed = add_options(app);
    add_tables(app, &typed->wanted, true);
    return [typed] { return csv(*typed); };
}

Action setup_json(CLI::App &app) {
    auto typed = add_options(app);
    add_tables(app, &typed->wanted, false);
    return [typed] { return json(*typed); };
}

}  // namespace vestra_dump
