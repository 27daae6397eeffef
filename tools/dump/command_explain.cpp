// explain: what went wrong before a moment.

#include <algorithm>
#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/dump/commands.h"
#include "tools/dump/explain.h"

namespace vestra_dump {
namespace {

struct Options {
    std::string path;
    TimeOptions time;  // the moment is the end of its range
    bool json = false;
};

void print(const std::vector<Finding> &findings) {
    if (findings.empty()) std::cout << "Nothing stands out.\n";
    for (const Finding &finding : findings) {
        std::cout << finding.text << ".\n    " << finding.kind << ", score " << std::round(finding.score * 100) / 100
                  << "; " << finding.command << '\n';
    }
}

int explain_dump(const Options &options) {
    Dump dump;
    int code = kExitClean;
    if (!open_dump(options.path, options.time, &dump, &code)) return code;
    const auto span = dump.survey.timeline.span().value_or(TimeSpan{});
    History history(std::min(dump.time.range.to, span.newest_ns));
    code = report_result(read(&dump, 0, history), true);
    const auto findings = explain(history, options.path, span.first_ns);
    if (options.json) {
        std::cout << to_json(findings).dump() << '\n';
    } else {
        print(findings);
    }
    if (std::cout.flush()) return code;
    complain("standard output cannot be written");
    return kExitUnreadable;
}

}  // namespace

Action setup_explain(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->path, "The dump").required().type("FILE").suggest_files();
    app.add("--at", options->time.to, "Explain this moment instead of the dump's end; times as in other commands")
        .type("TIME");
    app.add("--epoch", options->time.epoch, "Time of the newest sample, as in other commands").type("TIME").suggest([] {
        return std::vector<std::string>{"name", "none"};
    });
    app.add_flag("--json", options->json, "One JSON object");
    return [options] { return explain_dump(*options); };
}

}  // namespace vestra_dump
