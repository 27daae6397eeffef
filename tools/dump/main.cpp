// vestra-dump: reads the dumps of the flight recorder.

#include <iostream>
#include <optional>

#include "tools/dump/commands.h"

namespace vestra_dump {
namespace {

constexpr const char *kOverview =
    "exit codes:\n"
    "  0   read, and clean\n"
    "  1   read, but parts are damaged or the trailer is missing\n"
    "  2   cannot be read or is not a dump, or the output cannot be written\n"
    "  64  invalid options or arguments\n"
    "  diff: 0 alike, 1 different\n\n"
    "examples:\n"
    "  vestra-dump info DUMP\n"
    "  vestra-dump csv DUMP > vitals.csv\n"
    "  vestra-dump sqlite week.db /media/STICK/0000000000_*\n"
    "  vestra-dump COMMAND --help";

int run(int argc, char **argv) {
    cli::Program program("Reads the dumps of the flight recorder, including damaged ones.", "vestra-dump",
                         VESTRA_VERSION);
    program.require_command();
    program.footer(kOverview);
    Action chosen;
    for (const Command &command : commands()) {
        cli::Command sub = program.add_command(command.name, command.summary);
        sub.footer(command.footer);
        sub.on_chosen([&chosen, action = command.setup(sub)] { chosen = action; });
    }
    if (const std::optional<int> code = program.parse(argc, argv)) return *code == 0 ? kExitClean : kExitUsage;
    return chosen();
}

}  // namespace
}  // namespace vestra_dump

int main(int argc, char **argv) {
    try {
        return vestra_dump::run(argc, argv);
    } catch (const std::exception &problem) {
        vestra_dump::complain(problem.what());
        return vestra_dump::kExitUnreadable;
    }
}
