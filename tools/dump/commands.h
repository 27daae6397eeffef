// commands.h -- the subcommands of vestra-dump: one function each, and a table of them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "tools/dump/output.h"
#include "tools/dump/source.h"
#include "tools/dump/summary.h"

namespace vestra_dump {

enum ExitCode : int {
    kExitClean = 0,
    kExitDamaged = 1,     // read, but with damaged spans or without a trailer
    kExitUnreadable = 2,  // the file cannot be read or is not a dump, or the output cannot be written
    kExitUsage = 64,
    kExitAlike = 0,  // of diff, whose dumps may be damaged
    kExitDifferent = 1
};

// Runs the command after the options were parsed. Returns an exit code.
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
Action setup_parquet(cli::Command app);
Action setup_clickhouse(cli::Command app);
Action setup_perfetto(cli::Command app);
Action setup_report(cli::Command app);
Action setup_cut(cli::Command app);
Action setup_explain(cli::Command app);
Action setup_diff(cli::Command app);
Action setup_view(cli::Command app);

// Adds --from, --to and --epoch; only --epoch.
void add_time_options(cli::Command app, TimeOptions &options);
void add_epoch_option(cli::Command app, TimeOptions &options);

// Adds --top.
void add_top_option(cli::Command app, unsigned &top, int least, int greatest);

// Options of a command that makes one file from one dump.
struct FileOptions {
    std::string path, output = "-";
    TimeOptions time;
};

// Adds the dump, the time options, and --output.
void add_file_options(cli::Command app, FileOptions *options);

// Prints "vestra-dump: TEXT" on standard error.
void complain(const std::string &text);

// A dump after the first pass.
struct Dump {
    std::string path;
    std::unique_ptr<FileSource> file;
    Survey survey;
    DumpTime time;
};

// Opens a dump, surveys it and resolves its times. False, with a complaint and the exit code in *code, if that fails or
// it is no dump.
bool open_dump(const std::string &path, const TimeOptions &options, Dump *dump, int *code);

// The second pass. `top`: number of processes in each list.
Overview read(Dump *dump, size_t top, DumpSink &sink);

// Opens input and output, calls `work`, which returns an exit code, and closes them. Returns the exit code.
int with_files(const FileOptions &options, const std::function<int(Dump *, Output &)> &work);

// The exit code for a dump that was read. With `notes`, complains about damage, a missing trailer and missing times.
int report_result(const Overview &overview, bool notes);

}  // namespace vestra_dump
