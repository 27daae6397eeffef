// info: a dump at a glance.

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/summary.h"

namespace vestra_dump {
namespace {

struct Options {
    std::vector<std::string> paths;
    TimeOptions time;
    unsigned top = 10;
    bool json = false;
};

int info(const Options &options) {
    int code = kExitClean;
    bool first = true;
    for (const std::string &path : options.paths) {
        DumpTime time;
        int unopened = 0;
        const auto file = open_dump(path, options.time, &time, &unopened);
        if (file == nullptr) {
            code = std::max(code, unopened);
            continue;
        }
        Summariser summariser(path, time, options.top);
        const DumpTotals totals = read_dump(*file, summariser);
        if (options.json) {
            std::cout << to_json(summariser.summary()).dump() << '\n';
        } else {
            if (!first) std::cout << '\n';
            print(summariser.summary(), std::cout);
        }
        first = false;
        std::cout.flush();
        code = std::max(code, report_result(path, totals, false));
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
    app.add("file", options->paths, "The dumps; - is standard input").required().type("FILE");
    add_time_options(app, options->time);
    add_top_option(app, options->top, 0, 10000);
    app.add_flag("--json", options->json, "One JSON object for each dump");
    return [options] { return info(*options); };
}

}  // namespace vestra_dump
