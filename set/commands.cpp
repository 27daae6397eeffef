#include "set/commands.h"

#include "set/layout.h"
#include "set/set_directory.h"

namespace vestra_set {

Command g_command;
std::string g_name = "default";
std::vector<std::string> g_program;

cli::Command add_command(cli::Command parent, Where where, const std::string &name, const std::string &summary,
                         int (*run)(), const std::string &footer) {
    cli::Command command = parent.add_command(name, summary);
    command.footer(footer);
    if (run == nullptr) {
        command.require_command();
    } else {
        command.on_chosen([=] { g_command = {where, run}; });
    }
    if (where == Where::kInside && parent.is_program()) add_name_option(command);
    return command;
}

void add_name_option(cli::Command app, std::string &name, const std::string &text) {
    const auto check = [](const std::string &value) {
        return valid_name(value) ? std::string() : "expected up to 32 letters, digits, '-', '_' and '.'";
    };
    app.add("--name", name, text).check(check).type("NAME").show_default().suggest([] {
        std::vector<std::string> names;
        for (const RunningSet &set : running_sets()) names.push_back(set.name);
        return names;
    });
}

void add_seconds_option(cli::Command app, const std::string &option, double &seconds, const std::string &text) {
    app.add(option, seconds, text).range(0.0, 1e6).show_default();
}

}  // namespace vestra_set
