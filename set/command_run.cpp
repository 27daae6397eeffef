// run and sandbox: the commands that make a set.

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "set/bubblewrap.h"
#include "set/commands.h"
#include "set/config_file.h"
#include "set/files.h"
#include "set/launcher.h"
#include "set/layout.h"
#include "set/set_directory.h"

namespace vestra_set {
namespace {

namespace fs = std::filesystem;

constexpr const char *kDefaultStickSize = "64M";
constexpr const char *kNoName = "auto";

// Options of both commands as they are typed.
struct Typed {
    LaunchPlan plan;
    std::string daemon;  // path of vestrad
    std::vector<std::string> source;
    std::vector<std::string> config;
    std::string config_file;
    std::string module;
    std::vector<std::string> sticks;
    std::vector<std::string> stick_dirs;
    std::string log;
};

bool complain(const std::string &text) {
    std::cerr << "vestra-set: " << text << std::endl;
    return false;
}

void add_set_options(CLI::App &app, Typed &typed, const std::string &rate_note) {
    SetOptions &options = typed.plan.options;
    SourceOptions &source = options.source;
    app.add_option(
           "--source", typed.source,
           "What the kernel module hands out: host (this machine's processes), synthetic, or replay FILE (a dump)")
        ->expected(1, 2)
        ->type_name("KIND [FILE]");
    const char *group = "Trace source";
    app.add_option("--rate", source.rate,
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
        ->check(CLI::Range(0.0001, 3600.0))
        ->group(group);
    app.add_option("--seed", source.seed, "synthetic: equal seeds give equal blocks")->group(group);
    app.add_flag("--loop", source.loop, "replay: begin again at the end")->group(group);

    app.add_option("--image", options.image, "Kind of system image")
        ->check(CLI::IsMember({"debug", "release", "perf", "none"}))
        ->capture_default_str();
    app.add_option("--config", typed.config, "Override an element of the daemon's configuration")
        ->type_name("KEY=VALUE");
    app.add_option("--config-file", typed.config_file, "The daemon's configuration, as a whole")
        ->check(CLI::ExistingFile);
    app.add_option("--chip", options.chip, "Chipset name")->capture_default_str();
    app.add_option("--module", typed.module, "Kernel module at the start: loaded or unloaded")
        ->check(CLI::IsMember({"loaded", "unloaded"}));
    app.add_option("--temperature", options.temperature, "Degrees Celsius")->capture_default_str();
    app.add_option("--usb", typed.sticks, "A USB stick from the start, empty, at /media/LABEL")
        ->type_name("LABEL[:SIZE]");
    app.add_option("--usb-dir", typed.stick_dirs,
                   "A USB stick that is a directory of this machine; plugged before --usb")
        ->type_name("LABEL=DIR");
    app.add_option("--bind", typed.plan.binds, "More of this machine's directories, at their own paths, writable")
        ->type_name("PATH");
}

bool take_source(Typed &typed) {
    if (typed.source.empty()) return true;
    SourceOptions &source = typed.plan.options.source;
    source.kind = typed.source[0];
    if (source.kind != "host" && source.kind != "synthetic" && source.kind != "replay") {
        return complain("--source " + source.kind + ": wanted host, synthetic or replay FILE");
    }
    if ((source.kind == "replay") != (typed.source.size() == 2)) {
        return complain(source.kind == "replay" ? "--source replay: wanted a FILE behind it"
                                                : "--source " + source.kind + ": \"" + typed.source[1] +
                                                      "\" behind it? only replay takes a file");
    }
    if (source.kind != "replay") return true;
    std::error_code error;
    source.file = fs::canonical(typed.source[1], error);
    return !error || complain(typed.source[1] + ": " + error.message());
}

bool take_sticks(Typed &typed) {
    std::vector<Stick> &sticks = typed.plan.options.sticks;
    const auto add = [&](const std::string &label, const std::string &size) {
        for (const Stick &stick : sticks) {
            if (stick.label == label) return complain("USB stick " + label + ": the label is taken");
        }
        if (!valid_name(label)) return complain("\"" + label + "\" cannot be a USB stick's label");
        sticks.push_back({label, size});
        return true;
    };
    for (const std::string &text : typed.stick_dirs) {
        const size_t equals = text.find('=');
        std::error_code error;
        const fs::path directory =
            equals == std::string::npos ? fs::path() : fs::canonical(text.substr(equals + 1), error);
        if (equals == std::string::npos) return complain("--usb-dir " + text + ": wanted LABEL=DIR");
        if (error || !fs::is_directory(directory, error)) return complain(text + ": there is no such directory");
        if (!add(text.substr(0, equals), "")) return false;
        typed.plan.stick_dirs.emplace_back(text.substr(0, equals), directory);
    }
    for (const std::string &text : typed.sticks) {
        const size_t colon = text.find(':');
        const std::string size = colon == std::string::npos ? kDefaultStickSize : text.substr(colon + 1);
        if (!add(text.substr(0, colon), size)) return false;
    }
    return true;
}

bool take_binds(Typed &typed) {
    for (std::string &path : typed.plan.binds) {
        std::error_code error;
        path = fs::canonical(path, error);
        if (error) return complain("--bind " + path + ": " + error.message());
        if (!may_be_bound(path))
            return complain("--bind " + path + ": a set has its own, or sees this machine's anyway");
    }
    return true;
}

bool take_config(Typed &typed, bool loaded_by_default) {
    SetOptions &options = typed.plan.options;
    std::string error;
    if (!typed.config_file.empty()) {
        if (!typed.config.empty()) return complain("--config and --config-file do not go together");
        const auto text = read_file(typed.config_file, 1024 * 1024);
        if (!text) return complain(typed.config_file + ": " + std::strerror(errno));
        options.config = *text;
    } else {
        options.config = make_config(typed.config, &error);
        if (options.config.empty()) return complain(error);
    }
    // A daemon that does not load the module finds it loaded.
    options.module_loaded =
        typed.module.empty() ? loaded_by_default || !config_loads_module(options.config) : typed.module == "loaded";
    return true;
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

bool take_log(Typed &typed) {
    SetOptions &options = typed.plan.options;
    if (typed.log == "-") return true;
    if (typed.log.empty()) {
        options.log = kStateLog;
        return true;
    }
    std::error_code error;
    typed.plan.log_file = fs::absolute(typed.log, error);
    options.log = kLogFile;
    return write_file(typed.plan.log_file, "") || complain(typed.log + ": " + std::strerror(errno));
}

int start_run(Typed &typed, const Rest &rest) {
    LaunchPlan &plan = typed.plan;
    plan.options.daemon = plan.options.node = true;
    if (!take_source(typed) || !take_sticks(typed) || !take_binds(typed) || !take_config(typed, false))
        return kExitUsage;
    const std::string daemon = find_daemon(typed.daemon);
    if (daemon.empty()) {
        complain(typed.daemon.empty()
                     ? "vestrad is not to be found beside vestra-set or in PATH; give its path with --vestrad"
                     : "--vestrad " + typed.daemon + ": there is no such program");
        return kExitUsage;
    }
    plan.program = {daemon};
    plan.program.insert(plan.program.end(), rest.words.begin(), rest.words.end());
    std::string error;
    const auto directory = ClaimedDirectory::claim(plan.options.name, &error);
    if (directory == nullptr) {
        complain(error);
        return kExitFailed;
    }
    plan.state_dir = directory->path();
    if (!take_log(typed)) return kExitFailed;
    int signal_number = 0;
    return launch(plan, &signal_number);
}

int start_sandbox(Typed &typed, const Rest &rest) {
    LaunchPlan &plan = typed.plan;
    if (rest.words.empty()) {
        complain("sandbox: which program? vestra-set sandbox [options] -- PROGRAM [ARGUMENTS]");
        return kExitUsage;
    }
    if (!take_source(typed) || !take_sticks(typed) || !take_binds(typed) || !take_config(typed, true))
        return kExitUsage;
    plan.program = rest.words;
    std::unique_ptr<ClaimedDirectory> directory;
    if (plan.options.name != kNoName) {
        std::string error;
        directory = ClaimedDirectory::claim(plan.options.name, &error);
        if (directory == nullptr) {
            complain(error);
            return kExitFailed;
        }
        plan.state_dir = directory->path();
    }
    int signal_number = 0;
    const int code = launch(plan, &signal_number);
    directory.reset();
    return leave(code, signal_number);
}

CLI::Validator is_valid_name() {
    return {[](std::string &text) {
                return valid_name(text) ? std::string() : "wanted up to 32 letters, digits, '-', '_' and '.'";
            },
            "NAME"};
}

}  // namespace

Action setup_run(CLI::App &app) {
    auto typed = std::make_shared<Typed>();
    typed->plan.options.name = "default";
    typed->plan.options.source.rate = 2;  // what the daemon reads in a second
    app.add_option("--name", typed->plan.options.name, "The set's name; sets with different names run side by side")
        ->check(is_valid_name())
        ->capture_default_str();
    app.add_option("--vestrad", typed->daemon, "The daemon; by default the one beside this program")->type_name("PATH");
    add_set_options(app, *typed, "Default: 2");
    app.add_option("--log", typed->log,
                   "The daemon's log, a file of this machine, or - for standard error; without it\n"
                   "\"vestra-set log\" shows it while the set runs")
        ->type_name("FILE");
    app.add_option("--log-level", typed->plan.options.log_level, "debug, info, warning or error")
        ->check(CLI::IsMember({"debug", "info", "warning", "error", "3", "4", "5", "6"}));
    app.add_option("--grace", typed->plan.grace, "Seconds that the daemon has to end after Ctrl-C")
        ->capture_default_str();
    app.add_flag("-q,--quiet", typed->plan.quiet, "No word about the set's going up and down");
    return [typed](const Rest &rest) { return start_run(*typed, rest); };
}

Action setup_sandbox(CLI::App &app) {
    auto typed = std::make_shared<Typed>();
    typed->plan.options.name = kNoName;
    typed->plan.quiet = true;
    app.add_option("--name", typed->plan.options.name,
                   "A name lets \"vestra-set exec\" and the like reach it; auto: nobody can")
        ->check(is_valid_name())
        ->capture_default_str();
    app.add_flag("--node", typed->plan.options.node, "Serve the trace control node as well");
    add_set_options(app, *typed, "Default: 0");
    return [typed](const Rest &rest) { return start_sandbox(*typed, rest); };
}

}  // namespace vestra_set
