// info: a dump at a glance.

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/summary.h"

namespace vestra_dump {
namespace {

struct Typed {
    std::vector<std::string> paths;
    TimeOptions time;
    unsigned top = 10;
    bool json = false;
};

int info(const Typed &typed) {
    int code = kExitClean;
    bool first = true;
    for (const std::string &path : typed.paths) {
        DumpTime time;
        int unopened = 0;
        const auto file = open_dump(path, typed.time, &time, &unopened);
        if (file == nullptr) {
            code = std::max(code, unopened);
            continue;
        }
        Summariser summariser(path, time, typed.top);
        const DumpTotals totals = read_dump(*file, summariser);
        if (typed.json) {
            std::cout << to_json(summariser.summary()).dump() << '\n';
        } else {
            if (!first) std::cout << '\n';
            print(summariser.summary(), std::cout);
        }
        first = false;
        std::cout.flush();
        code = std::max(code, judge(path, totals, false));
    }
    if (!std::cout) {
        complain("standard output cannot be written");
        code = std::max<int>(code, kExitUnreadable);
    }
    return code;
}

}  // namespace

Action setup_info(cli::Command app) {
    auto typed = std::make_shared<Typed>();
    app.add("file", typed->paths, "The dumps; - is standard input").required().type("FILE");
    add_time_options(app, typed->time);
    app.add("--top", typed->top, "So many processes in each list").show_default().range(0, 10000);
    app.add_flag("--json", typed->json, "One JSON object a dump");
    return [typed] { return info(*typed); };
}

}  // namespace vestra_dump
