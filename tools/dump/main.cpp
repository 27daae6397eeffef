// vestra-dump: reads what the flight recorder wrote.

#include <iostream>
#include <map>

#include "tools/dump/commands.h"

namespace vestra_dump {
namespace {

constexpr const char *kOverview =
    "exit codes:\n"
    "  0   read, and clean\n"
    "  1   read, but parts are damaged or the trailer is missing\n"
    "  2   cannot be read, or nothing of a dump is in it; or the output cannot be written\n"
    "  64  wrong options or arguments\n\n"
    "examples:\n"
    "  vestra-dump info DUMP\n"
    "  vestra-dump csv DUMP > vitals.csv\n"
    "  vestra-dump sqlite week.db /media/STICK/0000000000_*\n"
    "  vestra-dump COMMAND --help";

int run(int argc, char **argv) {
    CLI::App app("Reads the dumps of the flight recorder: any size, damaged ones too.", "vestra-dump");
    app.set_version_flag("--version", "vestra-dump " VESTRA_VERSION);
    app.require_subcommand(1);
    app.footer(kOverview);
    std::map<const CLI::App *, Action> actions;
    for (const Command &command : commands()) {
        CLI::App *sub = app.add_subcommand(command.name, command.summary);
        sub->footer(command.footer);
        actions[sub] = command.setup(*sub);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitClean : kExitUsage;
    }
    return actions.at(app.get_subcommands().front())();
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
