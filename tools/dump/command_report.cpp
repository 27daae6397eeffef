// report: a dump as an HTML page.

#include "tools/dump/commands.h"
#include "tools/dump/report.h"

namespace vestra_dump {
namespace {

struct Options : FileOptions {
    unsigned top = 10;
};

int report(const Options &options) {
    return with_files(options, [&options](Dump *dump, Output &out) {
        Report report;
        const Overview overview = read(dump, options.top, report);
        write_report(report, overview, out);
        return report_result(overview, true);
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
