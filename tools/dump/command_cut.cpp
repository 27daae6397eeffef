// cut: a smaller dump.

#include "tools/dump/commands.h"
#include "tools/dump/cutter.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Typed {
    std::string path, output;
    TimeOptions time;
};

int cut(const Typed &typed) {
    DumpTime time;
    int code = kExitClean;
    const auto file = open_dump(typed.path, typed.time, &time, &code);
    if (file == nullptr) return code;
    if (typed.output != "-" && file->is_same_file(typed.output)) {
        complain("the output is the dump itself");
        return kExitUsage;
    }
    std::string error;
    const auto out = Output::open(typed.output, &error);
    if (out == nullptr) {
        complain(printable(typed.output) + ": " + error);
        return kExitUnreadable;
    }
    Cutter cutter(time.range, *out);
    const DumpTotals totals = read_dump(*file, cutter);
    if (cutter.frames() == 0) complain(printable(typed.path) + ": no frame lies in that stretch of time");
    return close_output(out.get(), typed.output, judge(typed.path, totals, true));
}

}  // namespace

Action setup_cut(CLI::App &app) {
    auto typed = std::make_shared<Typed>();
    app.add_option("file", typed->path, "The dump; - is standard input")->required()->type_name("FILE");
    app.add_option("output", typed->output, "The smaller one; - is standard output")->required()->type_name("OUT");
    add_time_options(app, typed->time);
    return [typed] { return cut(*typed); };
}

}  // namespace vestra_dump
