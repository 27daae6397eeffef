// run and sandbox: the commands that make a set.

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <memory>
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

// Options of both commands, as they were given.
struct {
    LaunchPlan plan;
    std::string daemon;  // path of vestrad
    std::vector<std::string> source;
    std::optional<double> rate;
    std::vector<std::string> config;
    std::string config_file;
    std::string module;
    std::vector<std::string> sticks;
    std::vector<std::string> stick_dirs;
    std::string log;
    std::string run_name = "default";
    std::string sandbox_name = kNoName;
} g_given;

void add_set_options(CLI::App &app, const std::string &rate_note) {
    SetOptions &options = g_given.plan.options;
    SourceOptions &source = options.source;
    app.add_option(
           "--source", g_given.source,
           "What the kernel module hands out: host (this machine's processes), synthetic, or replay FILE (a dump)")
        ->expected(1, 2)
        ->type_name("KIND [FILE]");
    const char *group = "Trace source";
    app.add_option("--rate", g_given.rate,
                   "Blocks a second (host: samples a second); 0: a block with every read (host: 2). " + rate_note)
        ->group(group);
    app.add_flag("--every-process", source.every_process,
                 "host: each process in each sample, not only those that ran since the last")
        ->group(group);
    app.add_option("--block-size", source.block_size, "Bytes of a block, 64 to 131072; 0: as it comes")->group(group);
    app.add_option("--profile", source.profile, "synthetic: steady, burst, stall or hostile (damaged frames)")
        ->capture_default_str()
        ->group(group);
    app.add_option("--processes", source.processes, "synthetic: number of processes, up to 32000; 0: 24")->group(group);
    app.add_option_function<double>(
           "--step", [&source](const double &seconds) { source.step_ns = static_cast<uint64_t>(seconds * 1e9); },
           "synthetic, with a rate of 0: seconds of the stream in a block, 0.0001 to 3600 (default 1)")
        ->check(between(0.0001, 3600))
        ->group(group);
    app.add_option("--seed", source.seed, "synthetic: equal seeds give equal blocks")->group(group);
    app.add_flag("--loop", source.loop, "replay: begin again at the end")->group(group);

    app.add_option("--image", options.image, "Kind of system image")
        ->check(CLI::IsMember({"debug", "release", "perf", "none"}))
        ->capture_default_str();
    app.add_option("--config", g_given.config, "Override an element of the daemon's configuration")
        ->type_name("NAME=VALUE");
    app.add_option("--config-file", g_given.config_file, "The daemon's configuration, as a whole")
        ->check(CLI::ExistingFile);
    app.add_option("--chip", options.chip, "Chipset name")->capture_default_str();
    app.add_option("--module", g_given.module, "Kernel module at the start: loaded or unloaded")
        ->check(CLI::IsMember({"loaded", "unloaded"}));
    app.add_option("--temperature", options.temperature, "Degrees Celsius")->capture_default_str();
    app.add_option("--usb", g_given.sticks, "A USB stick from the start, empty, at /media/LABEL")
        ->type_name("LABEL[:SIZE]");
    app.add_option("--usb-dir", g_given.stick_dirs,
                   "A USB stick that is a directory of this machine; plugged before --usb")
        ->type_name("LABEL=DIR");
    app.add_option("--bind", g_given.plan.binds, "More of this machine's directories, at their own paths, writable")
        ->type_name("PATH");
}

void take_source() {
    if (g_given.source.empty()) return;
    SourceOptions &source = g_given.plan.options.source;
    source.kind = g_given.source[0];
    const bool has_file = g_given.source.size() == 2;
    if (source.kind != "host" && source.kind != "synthetic" && source.kind != "replay") {
        fail("--source " + source.kind + ": expected host, synthetic or replay FILE", kExitUsage);
    }
    if (source.kind != "replay") {
        if (has_file)
            fail("--source " + source.kind + " " + g_given.source[1] + ": only replay takes a file", kExitUsage);
        return;
    }
    if (!has_file) fail("--source replay: expected a FILE after it", kExitUsage);
    std::error_code error;
    source.file = fs::canonical(g_given.source[1], error);
    if (error) fail(g_given.source[1] + ": " + error.message(), kExitUsage);
}

void take_sticks() {
    std::vector<Stick> &sticks = g_given.plan.options.sticks;
    const auto add = [&](const std::string &label, const std::string &size) {
        for (const Stick &stick : sticks) {
            if (stick.label == label) fail("USB stick " + label + ": there are two of that label", kExitUsage);
        }
        if (!valid_name(label)) fail("\"" + label + "\" cannot be a USB stick's label", kExitUsage);
        sticks.push_back({label, size});
    };
    for (const std::string &text : g_given.stick_dirs) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos) fail("--usb-dir " + text + ": expected LABEL=DIR", kExitUsage);
        std::error_code error;
        const fs::path directory = fs::canonical(text.substr(equals + 1), error);
        if (error || !fs::is_directory(directory, error)) fail(text + ": there is no such directory", kExitUsage);
        add(text.substr(0, equals), "");
        g_given.plan.stick_dirs.emplace_back(text.substr(0, equals), directory);
    }
    for (const std::string &text : g_given.sticks) {
        const size_t colon = text.find(':');
        add(text.substr(0, colon), colon == std::string::npos ? kDefaultStickSize : text.substr(colon + 1));
    }
}

void take_binds() {
    for (std::string &path : g_given.plan.binds) {
        std::error_code error;
        const fs::path target = fs::canonical(path, error);
        if (error) fail("--bind " + path + ": " + error.message(), kExitUsage);
        if (!may_be_bound(target)) {
            fail("--bind " + path + ": a set has its own, or sees this machine's anyway", kExitUsage);
        }
        path = target;
    }
}

void take_config(bool loaded_by_default) {
    SetOptions &options = g_given.plan.options;
    if (!g_given.config_file.empty()) {
        if (!g_given.config.empty()) fail("--config and --config-file exclude each other", kExitUsage);
        const auto text = read_file(g_given.config_file, 1024 * 1024);
        if (!text) fail_errno(g_given.config_file, kExitUsage);
        options.config = *text;
    } else {
        std::string error;
        options.config = make_config(g_given.config, &error);
        if (options.config.empty()) fail(error, kExitUsage);
    }
    // A daemon that does not load the module finds it loaded.
    options.module_loaded =
        g_given.module.empty() ? loaded_by_default || !config_loads_module(options.config) : g_given.module == "loaded";
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

void take_set_options(double default_rate, bool module_loaded) {
    g_given.plan.options.source.rate = g_given.rate.value_or(default_rate);
    take_source();
    take_sticks();
    take_binds();
    take_config(module_loaded);
}

std::unique_ptr<ClaimedDirectory> claim_directory() {
    LaunchPlan &plan = g_given.plan;
    std::string error;
    auto directory = ClaimedDirectory::claim(plan.options.name, &error);
    if (directory == nullptr) fail(error);
    plan.directory = directory.get();
    return directory;
}

int start_run() {
    LaunchPlan &plan = g_given.plan;
    plan.options.name = g_given.run_name;
    plan.options.daemon = plan.options.node = true;
    take_set_options(kDaemonReads, false);
    const std::string daemon = find_daemon(g_given.daemon);
    if (daemon.empty()) {
        fail(g_given.daemon.empty() ? "vestrad is neither beside vestra-set nor in PATH; give its path with --vestrad"
                                    : "--vestrad " + g_given.daemon + ": there is no such program",
             kExitUsage);
    }
    plan.program = {daemon};
    plan.program.insert(plan.program.end(), g_program.begin(), g_program.end());
    const auto directory = claim_directory();
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
    take_set_options(0, true);
    plan.program = g_program;
    std::unique_ptr<ClaimedDirectory> directory;
    if (plan.options.name != kNoName) directory = claim_directory();
    int signal_number = 0;
    const int code = launch(plan, &signal_number);
    directory.reset();
    return leave(code, signal_number);
}

void add_run_options(CLI::App &app) {
    add_name_option(app, g_given.run_name, "The set's name; sets with different names run side by side");
    app.add_option("--vestrad", g_given.daemon, "The daemon; by default the one beside this program")
        ->type_name("PATH");
    add_set_options(app, "Default: 2");
    app.add_option("--log", g_given.log,
                   "The daemon's log, a file of this machine, or - for standard error; without it\n"
                   "\"vestra-set log\" shows it while the set runs")
        ->type_name("FILE");
    app.add_option("--log-level", g_given.plan.options.log_level, "debug, info, warning or error")
        ->check(CLI::IsMember({"debug", "info", "warning", "error", "3", "4", "5", "6"}));
    add_seconds_option(app, "--grace", g_given.plan.grace, "Seconds that the daemon has to end after Ctrl-C");
    app.add_flag("-q,--quiet", g_given.plan.quiet, "Do not report how the set comes up and ends");
}

void add_sandbox_options(CLI::App &app) {
    add_name_option(app, g_given.sandbox_name,
                    "A name lets \"vestra-set exec\" and the like reach it; auto: nobody can");
    app.add_flag("--node", g_given.plan.options.node, "Serve the trace control node as well");
    add_set_options(app, "Default: 0");
}

}  // namespace

const Command kRun = {"run",
                      "Start a set and the daemon in it; stays until the daemon has ended",
                      "The words after \"--\" go to the daemon: [max_file_size_MiB [file_interval_s]].\n"
                      "Ctrl-C stops the daemon in order, a second one at once.\n\n"
                      "examples:\n"
                      "  vestra-set run\n"
                      "  vestra-set run --source host --usb-dir STICK=./stick --log-level debug\n"
                      "  vestra-set run --name small --config max_file_size=1 --usb A:8M -- 1 4",
                      Command::kProgram,
                      add_run_options,
                      start_run};

const Command kSandbox = {
    "sandbox",
    "Run a program, such as a test, in its own set without the daemon",
    "The program's exit code, or the signal that ends it, is passed on. VESTRA_SET_INSIDE=1 is in its environment.\n\n"
    "examples:\n"
    "  vestra-set sandbox -- ./build/tests/decoder_test\n"
    "  vestra-set sandbox --node --seed 7 -- ./build/tests/reader_test --gtest_filter='*Empty*'",
    Command::kProgram,
    add_sandbox_options,
    start_sandbox};

}  // namespace vestra_set
