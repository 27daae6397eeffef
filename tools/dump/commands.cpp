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
    };
    return kCommands;
}

void add_time_options(CLI::App &app, TimeOptions &options) {
    app.add_option("--from", options.from,
                   "Begin here: seconds of the stream (601.5), +SECONDS behind the oldest sample, -SECONDS before the "
                   "newest, or a date and time in UTC (2026-11-24T22:40:58)")
        ->type_name("TIME");
    app.add_option("--to", options.to, "End here, the moment itself included")->type_name("TIME");
    app.add_option("--epoch", options.epoch,
                   "When the newest sample was taken, as seconds since 1970 or a date and time; 'name': as the dump's "
                   "name tells (the default); 'none'")
        ->type_name("TIME");
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

}  // namespace vestra_dump
