// inspect: what a recorded dump holds, by a walk that shares nothing with the daemon.

#include <iostream>

#include "set/commands.h"
#include "set/complain.h"
#include "set/trace/stream_stats.h"

namespace vestra_set {
namespace {

std::string g_path;

int inspect() {
    DumpReport report;
    std::string error;
    if (!inspect_dump(g_path, &report, &error)) fail(g_path + ": " + error);
    std::cout << describe(report);
    return kExitOk;
}

}  // namespace

const Command kInspect = {"inspect",
                          "Count what a recorded dump holds, and show its trailer",
                          "example:\n  vestra-set inspect ./stick/0000000000_5_vestrad_1764020000",
                          Command::kOutside,
                          [](CLI::App &app) { app.add_option("file", g_path, "The dump")->required(); },
                          inspect};

}  // namespace vestra_set
