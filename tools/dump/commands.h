// commands.h -- the subcommands of vestra-dump: one function each, and the table of them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "tools/dump/dump_reader.h"
#include "tools/dump/output.h"
#include "tools/dump/wall_clock.h"

namespace vestra_dump {

enum ExitCode : int {
    kExitClean = 0,
    kExitDamaged = 1,     // read, but with damaged spans or without a trailer
    kExitUnreadable = 2,  // not to be opened or read, or nothing of a dump in it; or the output cannot be written
    kExitUsage = 64
};

// Carries the command out, once the options have been parsed; returns an exit code.
using Action = std::function<int()>;

struct Command {
    const char *name;
    const char *summary;
    const char *footer;  // of its help: examples
    Action (*setup)(cli::Command app);
};

// In the order in which help shows them.
const std::vector<Command> &commands();

Action setup_info(cli::Command app);
Action setup_csv(cli::Command app);
Action setup_json(cli::Command app);
Action setup_sqlite(cli::Command app);
Action setup_perfetto(cli::Command app);
Action setup_report(cli::Command app);
Action setup_cut(cli::Command app);

// Adds --from, --to and --epoch.
void add_time_options(cli::Command app, TimeOptions &options);

// What was typed for a command that makes one file of one dump.
struct FileToFile {
    std::string path, output = "-";
    TimeOptions time;
};

// Adds the dump, the options of time, and --output.
void add_file_options(cli::Command app, FileToFile *typed);

// "vestra-dump: TEXT" on standard error.
void complain(const std::string &text);

// A dump to be read, with its times resolved. Null with a complaint and the exit code in *code.
std::unique_ptr<FileSource> open_dump(const std::string &path, const TimeOptions &options, DumpTime *time, int *code);

// Opens what is read and what is written, lets `work` do it, and closes. The exit code; `work` returns its own.
int with_files(const FileToFile &typed, const std::function<int(FileSource &, const DumpTime &, Output &)> &work);

// The exit code of what was read; with `notes`, a line on standard error for all that is not clean.
int judge(const std::string &path, const DumpTotals &totals, bool notes);

// Closes the output. The greater of the code and what came of it, with a complaint.
int close_output(Output *out, const std::string &path, int code);

}  // namespace vestra_dump
