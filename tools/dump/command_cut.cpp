// cut: a smaller dump.

#include "tools/dump/commands.h"
#include "tools/dump/cutter.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

int cut(const FileOptions &options) {
    return with_files(options, [&options](Dump *dump, Output &out) {
        Cutter cutter(out);
        const Overview overview = read(dump, 0, cutter);
        cutter.end(overview.summary.totals);
        if (cutter.frames() == 0) complain(printable(options.path) + ": no frame is in that time range");
        return report_result(overview, true);
    });
}

}  // namespace

Action setup_cut(cli::Command app) {
    auto options = std::make_shared<FileOptions>();
    app.add("file", options->path, "The dump; - is standard input").required().type("FILE");
    app.add("output", options->output, "The smaller dump; - is standard output").required().type("OUT");
    add_time_options(app, options->time);
    return [options] { return cut(*options); };
}

}  // namespace vestra_dump
