// perfetto: a dump as a trace for a trace viewer.

#include "tools/dump/commands.h"
#include "tools/dump/trace_events.h"

namespace vestra_dump {
namespace {

constexpr size_t kTop = 10;  // processes in each list of the summary

int perfetto(const FileOptions &options) {
    return with_files(options, [](Dump *dump, Output &out) {
        TraceEvents events(dump->time.range, out);
        const Overview overview = read(dump, kTop, events);
        events.end(overview);
        return report_result(overview, true);
    });
}

}  // namespace

Action setup_perfetto(cli::Command app) {
    auto options = std::make_shared<FileOptions>();
    add_file_options(app, options.get());
    return [options] { return perfetto(*options); };
}

}  // namespace vestra_dump
