// perfetto: a dump as a trace for a trace viewer.

#include "tools/dump/commands.h"
#include "tools/dump/trace_events.h"

namespace vestra_dump {
namespace {

constexpr size_t kTop = 10;  // processes in each list of the summary

int perfetto(const FileToFile &typed) {
    return with_files(typed, [&typed](FileSource &file, const DumpTime &time, Output &out) {
        TraceEvents events(typed.path, time, kTop, out);
        return judge(typed.path, read_dump(file, events), true);
    });
}

}  // namespace

Action setup_perfetto(cli::Command app) {
    auto typed = std::make_shared<FileToFile>();
    add_file_options(app, typed.get());
    return [typed] { return perfetto(*typed); };
}

}  // namespace vestra_dump
