// The subcommands of vestra-set: one function each, and the table of them.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace vestra_set {

// What stands behind "--" on the command line.
struct Rest {
    bool present = false;
    std::vector<std::string> words;
};

// Carries the command out, once the options have been parsed; returns an exit code.
using Action = std::function<int(const Rest &)>;

struct Command {
    const char *name;
    const char *summary;
    const char *footer;  // of its help: examples, exit codes
    // Carried out by this program inside the set, where the platform's files and mounts are; outside it is passed on to
    // the set that --name names. Takes nothing behind "--".
    bool inside;
    // Adds the options; --name for an `inside` command is there already.
    Action (*setup)(CLI::App &app);
};

// In the order in which help shows them.
const std::vector<Command> &commands();

// Adds --name. `name` holds the default, and must live as long as `app`.
void add_name_option(CLI::App &app, std::string &name);

// One setup function for each command; see the table.
Action setup_run(CLI::App &app);
Action setup_sandbox(CLI::App &app);
Action setup_exec(CLI::App &app);
Action setup_stop(CLI::App &app);
Action setup_list(CLI::App &app);
Action setup_wait(CLI::App &app);
Action setup_key(CLI::App &app);
Action setup_vconf(CLI::App &app);
Action setup_usb(CLI::App &app);
Action setup_temperature(CLI::App &app);
Action setup_module(CLI::App &app);
Action setup_robust(CLI::App &app);
Action setup_dod(CLI::App &app);
Action setup_history(CLI::App &app);
Action setup_filter(CLI::App &app);
Action setup_notices(CLI::App &app);
Action setup_log(CLI::App &app);
Action setup_inspect(CLI::App &app);

}  // namespace vestra_set
