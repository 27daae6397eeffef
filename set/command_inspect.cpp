// inspect: what a recorded dump holds, by a walk that shares nothing with the daemon.

#include <iostream>
#include <memory>

#include "set/commands.h"
#include "set/launcher.h"
#include "set/trace/stream_stats.h"

namespace vestra_set {
namespace {

int inspect(const std::string &path) {
    DumpReport report;
    std::string error;
    if (!inspect_dump(path, &report, &error)) {
        std::cerr << "vestra-set: " << path << ": " << error << std::endl;
        return kExitFailed;
    }
    std::cout << describe(report);
    return kExitOk;
}

}  // namespace

Action setup_inspect(CLI::App &app) {
    auto path = std::make_shared<std::string>();
    app.add_option("file", *path, "The dump")->required();
    return [path](const Rest &) { return inspect(*path); };
}

}  // namespace vestra_set
