#include "set/commands.h"

#include "set/layout.h"

namespace vestra_set {

Command g_command;
std::string g_name = "default";
std::vector<std::string> g_program;

CLI::App *add_command(CLI::App &parent, Where where, const std::string &name, const std::string &summary, int (*run)(),
                      const std::string &footer) {
    CLI::App *command = parent.add_subcommand(name, summary);
    command->footer(footer);
    if (run == nullptr) {
        command->require_subcommand(1);
    } else {
        command->callback([=] { g_command = {where, run}; });
    }
    if (where == Where::kInside && parent.get_parent() == nullptr) add_name_option(*command);
    return command;
}

void add_name_option(CLI::App &app, std::string &name, const std::string &text) {
    const auto check = [](const std::string &value) {
        return valid_name(value) ? std::string() : "expected up to 32 letters, digits, '-', '_' and '.'";
    };
    app.add_option("--name", name, text)->check(CLI::Validator(check, "NAME"))->capture_default_str();
}

CLI::Validator between(double low, double high) {
    return CLI::Validator(
        [=](std::string &text) {
            double value = 0;
            const bool good = CLI::detail::lexical_cast(text, value) && value >= low && value <= high;  // not a NaN
            return good ? std::string()
                        : "expected " + CLI::detail::to_string(low) + " to " + CLI::detail::to_string(high);
        },
        "NUMBER");
}

void add_seconds_option(CLI::App &app, const std::string &option, double &seconds, const std::string &text) {
    app.add_option(option, seconds, text)->check(between(0, 1e6))->capture_default_str();
}

}  // namespace vestra_set
