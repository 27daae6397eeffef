// The commands of vestra-set. Each has a struct of options, which the command line fills, and a function that carries
// it out; a source file's add_..._commands connects them.
#pragma once

#include <string>
#include <vector>

#include "cli/command_line.h"

namespace vestra_set {

enum class Where {
    kOutside,
    kInside,   // this program runs the command again inside the set that --name names, where the set's files are
    kProgram,  // outside, with a program, or arguments for one, after "--"
};

// The command that is to be carried out.
struct Command {
    Where where;
    int (*run)();  // returns the exit code; throws Failure
};
extern Command g_command;
extern std::string g_name;                  // --name
extern std::vector<std::string> g_program;  // the words after "--"

// Adds a command to `parent`, the program or another command, and returns it for its options. One that only holds
// others has no `run`. Commands that are carried out inside get --name.
cli::Command add_command(cli::Command parent, Where where, const std::string &name, const std::string &summary,
                         int (*run)() = nullptr, const std::string &footer = "");

// Adds --name; `name` holds the default.
void add_name_option(cli::Command app, std::string &name = g_name, const std::string &text = "The set's name");

// Adds an option for a number of seconds, from 0 to a million.
void add_seconds_option(cli::Command app, const std::string &option, double &seconds, const std::string &text);

void add_run_commands(cli::Command app);      // run, sandbox
void add_remote_commands(cli::Command app);   // key, temperature, vconf, module, notices, log
void add_usb_commands(cli::Command app);      // usb
void add_trigger_commands(cli::Command app);  // robust, dod, history, filter
void add_set_commands(cli::Command app);      // exec, wait, stop, list

}  // namespace vestra_set
