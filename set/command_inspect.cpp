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

void add_inspect_command(CLI::App &app) {
    add_command(app, Where::kOutside, "inspect", "Count what a recorded dump holds, and show its trailer", inspect)
        ->add_option("file", g_path, "The dump")
        ->required();
}

}  // namespace vestra_set
