// cut: a smaller dump.

#include "tools/dump/commands.h"
#include "tools/dump/cutter.h"
#include "tools/dump/folder.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Options : FileOptions {
    std::vector<std::string> only, hidden;  // names of processes; one of these two is empty
};

int cut(const Options &options) {
    return with_files(options, [&options](Dump *dump, Output &out) {
        const auto finish = [dump](const Overview &overview, bool empty) {
            if (empty) complain(printable(dump->path) + ": nothing is in that time range");
            return report_result(overview, true);
        };
        NameFilter filter(!options.only.empty(), options.only.empty() ? options.hidden : options.only);
        if (filter.folds()) {
            Folder folder(filter, dump->time.range, out);
            const Overview overview = read(dump, 0, folder);
            folder.end(overview.summary.totals);
            for (const std::string &doubt : filter.doubts()) complain(printable(options.path) + ": " + doubt);
            return finish(overview, folder.messages() == 0);
        }
        Cutter cutter(out);
        const Overview overview = read(dump, 0, cutter);
        cutter.end(overview.summary.totals);
        return finish(overview, cutter.frames() == 0);
    });
}

std::string fault_of_name(const std::string &name) {
    if (name.empty()) return "a name must not be empty";
    return name == Folder::kName ? "all hidden processes together get the name '" + name + "'" : "";
}

}  // namespace

Action setup_cut(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->path, "The dump; - is standard input").required().type("FILE").suggest_files();
    app.add("output", options->output, "The smaller dump; - is standard output").required().type("OUT").suggest_files();
    add_time_options(app, options->time);
    const cli::Option only = app.add("--only", options->only, "Hide all processes that have none of these names")
                                 .type("NAME")
                                 .check(fault_of_name);
    app.add("--hide", options->hidden, "Hide the processes with these names")
        .type("NAME")
        .check(fault_of_name)
        .excludes(only);
    return [options] { return cut(*options); };
}

}  // namespace vestra_dump
