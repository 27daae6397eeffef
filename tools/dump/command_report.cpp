// report: a dump as an HTML page.

#include "tools/dump/commands.h"
#include "tools/dump/report.h"

namespace vestra_dump {
namespace {

struct Options : FileOptions {
    unsigned top = 10;
};

int report(const Options &options) {
    return with_files(options, [&options](FileSource &file, const DumpTime &time, Output &out) {
        Report report(options.path, time, options.top);
        const int code = report_result(options.path, read_dump(file, report), true);
        if (code != kExitUnreadable) write_report(report, out);
        return code;
    });
}

}  // namespace

Action setup_report(cli::Command app) {
    auto options = std::make_shared<Options>();
    add_file_options(app, options.get());
    add_top_option(app, options->top, 1, 1000);
    return [options] { return report(*options); };
}

}  // namespace vestra_dump
