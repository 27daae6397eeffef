// run and sandbox: the commands that make a set.

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "set/bubblewrap.h"
#include "set/commands.h"
#include "set/complain.h"
#include "set/config_file.h"
#include "set/files.h"
#include "set/launcher.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

constexpr const char *kDefaultStickSize = "64M";
constexpr const char *kNoName = "auto";
constexpr double kDaemonReads = 2;  // a second

// Options of both commands.
struct {
    LaunchPlan plan;
    std::optional<double> rate;
    std::optional<double> step;  // s
    std::string daemon;          // path of vestrad
    std::vector<std::string> config;
    std::string config_file;
    std::string module;
    std::string log;
    std::string run_name = "default";
    std::string sandbox_name = kNoName;
} g_given;

void take_source(const std::vector<std::string> &words) {
    SourceOptions &source = g_given.plan.options.source;
    source.kind = words[0];
    if ((source.kind == "replay") != (words.size() == 2)) {
        fail("--source " + source.kind +
                 (words.size() == 2 ? ": only replay takes a file" : ": expected a FILE after it"),
             kExitUsage);
    }
    if (words.size() == 1) return;
    std::error_code error;
    source.file = fs::canonical(words[1], error);
    if (error) fail(words[1] + ": " + error.message(), kExitUsage);
}

void add_stick(const std::string &label, const std::string &size) {
    std::vector<Stick> &sticks = g_given.plan.options.sticks;
    for (const Stick &stick : sticks) {
        if (stick.label == label) fail("USB stick " + label + ": there are two with that label", kExitUsage);
    }
    if (!valid_name(label)) fail("\"" + label + "\" cannot be a USB stick's label", kExitUsage);
    sticks.push_back({label, size});
}

void take_stick_directories(const std::vector<std::string> &texts) {
    for (const std::string &text : texts) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos) fail("--usb-dir " + text + ": expected LABEL=DIR", kExitUsage);
        std::error_code error;
        const fs::path directory = fs::canonical(text.substr(equals + 1), error);
        if (error || !fs::is_directory(directory, error)) fail(text + ": there is no such directory", kExitUsage);
        add_stick(text.substr(0, equals), "");
        g_given.plan.stick_dirs.emplace_back(text.substr(0, equals), directory);
    }
}

void take_sticks(const std::vector<std::string> &texts) {
    for (const std::string &text : texts) {
        const size_t colon = text.find(':');
        add_stick(text.substr(0, colon), colon == std::string::npos ? kDefaultStickSize : text.substr(colon + 1));
    }
}

void take_binds(const std::vector<std::string> &paths) {
    for (const std::string &path : paths) {
        std::error_code error;
        g_given.plan.binds.push_back(fs::canonical(path, error));
        if (error) fail("--bind " + path + ": " + error.message(), kExitUsage);
        if (!may_be_bound(g_given.plan.binds.back())) {
            fail("--bind " + path + ": a set has its own, or sees this machine's anyway", kExitUsage);
        }
    }
}

void add_set_options(cli::Command app, const std::string &rate_note) {
    SetOptions &options = g_given.plan.options;
    SourceOptions &source = options.source;
    app.section("Trace source");
    app.add("--source", take_source, "host (this machine's processes), synthetic, or replay FILE (a dump)")
        .values(1, 2)
        .type("KIND [FILE]")
        .suggest([] {
            return std::vector<std::string>{"host", "synthetic", "replay"};
        })
        .suggest_files();
    app.add("--rate", g_given.rate,
            "Blocks a second (host: samples a second); 0: a block with every read (host: 2). " + rate_note);
    app.add_flag("--every-process", source.every_process,
                 "host: each process in each sample, not only those that ran since the last");
    app.add("--block-size", source.block_size, "Bytes of a block, 64 to 131072; 0: as it comes");
    app.add("--profile", source.profile, "synthetic: steady, everyday, burst, stall or hostile (damaged frames)")
        .show_default()
        .suggest([] {
            return std::vector<std::string>{"steady", "everyday", "burst", "stall", "hostile"};
        });
    app.add("--fault", source.faults,
            "synthetic: something goes wrong at that second of the stream: memory-growth, cpu-hog, process-storm, "
            "memory-pressure, io-wait, overheating, vanished or gap; may be repeated")
        .type("KIND[:PARAM]@SECOND")
        .suggest([] {
            return std::vector<std::string>{"memory-growth", "cpu-hog",     "process-storm", "memory-pressure",
                                            "io-wait",       "overheating", "vanished",      "gap"};
        });
    app.add("--processes", source.processes, "synthetic: number of processes, up to 32000; 0: 24");
    app.add("--step", g_given.step,
            "synthetic, with a rate of 0: seconds of the stream in a block, 0.0001 to 3600 (default 1)")
        .range(0.0001, 3600.0);
    app.add("--seed", source.seed, "synthetic: equal seeds give equal blocks");
    app.add_flag("--loop", source.loop, "replay: begin again at the end");

    app.section("What the set has");
    app.add("--image", options.image, "Kind of system image")
        .one_of({"debug", "release", "perf", "none"})
        .show_default();
    const cli::Option element =
        app.add("--config", g_given.config, "Override an element of the daemon's configuration").type("NAME=VALUE");
    app.add("--config-file", g_given.config_file, "The daemon's configuration, as a whole")
        .existing_file()
        .excludes(element);
    app.add("--chip", options.chip, "Chipset name").show_default();
    app.add("--module", g_given.module, "Kernel module at the start: loaded or unloaded")
        .one_of({"loaded", "unloaded"});
    app.add("--temperature", options.temperature, "Degrees Celsius").show_default();
    // In this order they are plugged.
    app.add("--usb-dir", take_stick_directories,
            "A USB stick that is a directory of this machine; plugged before --usb")
        .type("LABEL=DIR");
    app.add("--usb", take_sticks, "A USB stick from the start, empty, at /media/LABEL").type("LABEL[:SIZE]");
    app.add("--bind", take_binds, "More of this machine's directories, at their own paths, writable")
        .type("PATH")
        .suggest_files();
}

// What both commands finish in the same way.
void complete_options(double default_rate, bool module_loaded) {
    SetOptions &options = g_given.plan.options;
    options.source.rate = g_given.rate.value_or(default_rate);
    if (g_given.step) options.source.step_ns = static_cast<uint64_t>(*g_given.step * 1e9);
    if (g_given.config_file.empty()) {
        std::string error;
        options.config = make_config(g_given.config, &error);
        if (options.config.empty()) fail(error, kExitUsage);
    } else {
        const auto text = read_file(g_given.config_file, 1024 * 1024);
        if (!text) fail_errno(g_given.config_file, kExitUsage);
        options.config = *text;
    }
    // A daemon that does not load the module finds it loaded.
    options.module_loaded =
        g_given.module.empty() ? module_loaded || !config_loads_module(options.config) : g_given.module == "loaded";
}

// Leaves as the set's program did: with its exit code, or by its signal.
int leave(int code, int signal_number) {
    if (signal_number == 0) return code;
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);  // the program has left one, if it was to
    signal(signal_number, SIG_DFL);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal_number);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    raise(signal_number);
    return code;
}

// Beside this program in a build tree, or installed.
std::string find_daemon(const std::string &given) {
    if (!given.empty()) return find_program(given);
    const fs::path here = fs::path(own_program()).parent_path();
    for (const fs::path &candidate : {here / "../vestra-daemon/vestrad", here / "vestrad", here / "../sbin/vestrad"}) {
        std::string found = find_program(candidate);
        if (!found.empty()) return found;
    }
    return find_program("vestrad");
}

void take_log() {
    SetOptions &options = g_given.plan.options;
    if (g_given.log == "-") return;
    options.log = kStateLog;
    if (g_given.log.empty()) return;
    std::error_code error;
    g_given.plan.log_file = fs::absolute(g_given.log, error);
    options.log = kLogFile;
    if (!write_file(g_given.plan.log_file, "")) fail_errno(g_given.log);
}

int start_run() {
    LaunchPlan &plan = g_given.plan;
    plan.options.name = g_given.run_name;
    plan.options.daemon = plan.options.node = true;
    complete_options(kDaemonReads, false);
    const std::string daemon = find_daemon(g_given.daemon);
    if (daemon.empty()) {
        fail(g_given.daemon.empty() ? "vestrad is neither beside vestra-set nor in PATH; give its path with --vestrad"
                                    : "--vestrad " + g_given.daemon + ": there is no such program",
             kExitUsage);
    }
    plan.program = {daemon};
    plan.program.insert(plan.program.end(), g_program.begin(), g_program.end());
    ClaimedDirectory directory(plan.options.name);
    plan.directory = &directory;
    take_log();
    int signal_number = 0;
    return launch(plan, &signal_number);
}

int start_sandbox() {
    LaunchPlan &plan = g_given.plan;
    plan.options.name = g_given.sandbox_name;
    plan.quiet = true;
    if (g_program.empty()) {
        fail("sandbox: which program? vestra-set sandbox [options] -- PROGRAM [ARGUMENTS]", kExitUsage);
    }
    complete_options(0, true);
    plan.program = g_program;
    std::optional<ClaimedDirectory> directory;
    if (plan.options.name != kNoName) plan.directory = &directory.emplace(plan.options.name);
    int signal_number = 0;
    const int code = launch(plan, &signal_number);
    directory.reset();
    return leave(code, signal_number);
}

}  // namespace

void add_run_commands(cli::Command app) {
    cli::Command run = add_command(app, Where::kProgram, "run",
                                   "Start a set and the daemon in it; stays until the daemon has ended", start_run,
                                   "The words after \"--\" go to the daemon: [max_file_size_MiB [file_interval_s]].\n"
                                   "Ctrl-C stops the daemon in order, a second one at once.\n\n"
                                   "examples:\n"
                                   "  vestra-set run --source host --usb-dir STICK=./stick --log-level debug\n"
                                   "  vestra-set run --name small --config max_file_size=1 --usb A:8M -- 1 4");
    add_name_option(run, g_given.run_name, "The set's name; sets with different names run side by side");
    run.add("--vestrad", g_given.daemon, "The daemon; by default the one beside this program")
        .type("PATH")
        .suggest_files();
    run.add("--log", g_given.log,
            "The daemon's log, a file of this machine, or - for standard error; without it\n"
            "\"vestra-set log\" shows it while the set runs")
        .type("FILE")
        .suggest_files();
    run.add("--log-level", g_given.plan.options.log_level, "debug, info, warning or error")
        .one_of({"debug", "info", "warning", "error", "3", "4", "5", "6"});
    add_seconds_option(run, "--grace", g_given.plan.grace, "Seconds that the daemon has to end after Ctrl-C");
    run.add_flag("-q,--quiet", g_given.plan.quiet, "Do not report how the set comes up and ends");
    add_set_options(run, "Default: 2");

    cli::Command sandbox =
        add_command(app, Where::kProgram, "sandbox", "Run a program, such as a test, in its own set without the daemon",
                    start_sandbox,
                    "The program's exit code, or the signal that ends it, is passed on.\n"
                    "VESTRA_SET_INSIDE=1 is in its environment.\n\n"
                    "example:\n"
                    "  vestra-set sandbox --node --seed 7 -- ./build/tests/reader_test --gtest_list_tests");
    add_name_option(sandbox, g_given.sandbox_name,
                    "A name lets \"vestra-set exec\" and the like reach it; auto: nobody can");
    sandbox.add_flag("--node", g_given.plan.options.node, "Serve the trace control node as well");
    add_set_options(sandbox, "Default: 0");
}

}  // namespace vestra_set
