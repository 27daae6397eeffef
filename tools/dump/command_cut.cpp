// cut: a smaller dump.

#include "tools/dump/commands.h"
#include "tools/dump/cutter.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

int cut(const FileToFile &typed) {
    return with_files(typed, [&typed](FileSource &file, const DumpTime &time, Output &out) {
        Cutter cutter(time.range, out);
        const DumpTotals totals = read_dump(file, cutter);
        if (cutter.frames() == 0) complain(printable(typed.path) + ": no frame lies in that stretch of time");
        return judge(typed.path, totals, true);
    });
}

}  // namespace

Action setup_cut(cli::Command app) {
    auto typed = std::make_shared<FileToFile>();
    app.add("file", typed->path, "The dump; - is standard input").required().type("FILE");
    app.add("output", typed->output, "The smaller one; - is standard output").required().type("OUT");
    add_time_options(app, typed->time);
    return [typed] { return cut(*typed); };
}

}  // namespace vestra_dump
