// The commands of vestra-set. Each is a table row beside its options, a struct that is filled by the command line, and
// its function.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace vestra_set {

struct Command {
    const char *name;
    const char *summary;
    const char *footer;  // of its help: examples, exit codes
    // kInside: this program runs it again inside the set that --name names, where the platform's files and mounts are.
    // kProgram: the command line continues with "--" and a program, or arguments for one; see g_program.
    enum Kind { kOutside, kInside, kProgram } kind;
    void (*add_options)(CLI::App &app);  // null: it has none; a kInside command gets --name in any case
    int (*run)();                        // returns the exit code; throws Failure
};

extern const Command kRun, kSandbox, kExec, kWait, kStop, kList;                 // sets as a whole
extern const Command kKey, kVconf, kUsb, kTemperature, kModule, kNotices, kLog;  // what a set has
extern const Command kRobust, kDod, kHistory, kFilter;                           // requests to the daemon
extern const Command kInspect;

extern std::string g_name;                  // --name
extern std::vector<std::string> g_program;  // the words after "--"

// Adds --name; `name` holds the default.
void add_name_option(CLI::App &app, std::string &name = g_name, const std::string &text = "The set's name");

// Adds an option for a number of seconds, from 0 to a million.
void add_seconds_option(CLI::App &app, const std::string &option, double &seconds, const std::string &text);

// A validator for numbers: `low` to `high`.
CLI::Validator between(double low, double high);

// Adds a subcommand that sets `*action` to `function`. Returns it for its own options.
CLI::App *add_action(CLI::App &app, const std::string &name, const std::string &text, int (**action)(),
                     int (*function)());

}  // namespace vestra_set
