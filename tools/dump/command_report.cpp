// report: a dump as a page for people.

#include "tools/dump/commands.h"
#include "tools/dump/report.h"

namespace vestra_dump {
namespace {

struct Typed : FileToFile {
    unsigned top = 10;
};

int report(const Typed &typed) {
    return with_files(typed, [&typed](FileSource &file, const DumpTime &time, Output &out) {
        Report report(typed.path, time, typed.top);
        const int code = judge(typed.path, read_dump(file, report), true);
        if (code != kExitUnreadable) write_report(report, out);
        return code;
    });
}

}  // namespace

Action setup_report(cli::Command app) {
    auto typed = std::make_shared<Typed>();
    add_file_options(app, typed.get());
    app.add("--top", typed->top, "So many processes in each list").show_default().range(1, 1000);
    return [typed] { return report(*typed); };
}

}  // namespace vestra_dump
