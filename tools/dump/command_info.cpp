// info: a dump at a glance.

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Options {
    std::vector<std::string> paths;
    TimeOptions time;
    unsigned top = 10;
    bool json = false;
};

// One pass is enough for most dumps. Nothing, with a complaint and the exit code in *code, if the dump cannot be opened.
std::optional<Overview> glance(const std::string &path, const Options &options, int *code) {
    Dump dump;
    DumpSink nothing;
    if (options.time.has_range()) {
        if (!open_dump(path, options.time, &dump, code)) return std::nullopt;
        return read(&dump, options.top, nothing);
    }
    std::string error;
    *code = kExitUnreadable;
    dump.path = path;
    dump.file = FileSource::open(path, &error);
    if (dump.file == nullptr) {
        complain(printable(path) + ": " + error);
        return std::nullopt;
    }
    dump.file->show_progress(true);
    auto summary = analyse_at_once(*dump.file, options.top, nothing, &dump.survey);
    if (!resolve(options.time, path, dump.survey, &dump.time, &error)) {
        complain(error);
        *code = kExitUsage;
        return std::nullopt;
    }
    if (summary) return Overview{path, dump.time, std::move(*summary)};
    return read(&dump, options.top, nothing);
}

int info(const Options &options) {
    int code = kExitClean;
    bool first = true;
    for (const std::string &path : options.paths) {
        int unopened = 0;
        const auto overview = glance(path, options, &unopened);
        if (!overview) {
            code = std::max(code, unopened);
            continue;
        }
        if (options.json) {
            std::cout << to_json(*overview).dump() << '\n';
        } else {
            if (!first) std::cout << '\n';
            print(*overview, std::cout);
        }
        first = false;
        std::cout.flush();
        code = std::max(code, report_result(*overview, false));
    }
    if (!std::cout) {
        complain("standard output cannot be written");
        code = std::max<int>(code, kExitUnreadable);
    }
    return code;
}

}  // namespace

Action setup_info(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->paths, "The dumps; - is standard input").required().type("FILE").suggest_files();
    add_time_options(app, options->time);
    add_top_option(app, options->top, 0, 10000);
    app.add_flag("--json", options->json, "One JSON object for each dump");
    return [options] { return info(*options); };
}

}  // namespace vestra_dump
