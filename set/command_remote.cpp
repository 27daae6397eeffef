// key, temperature, vconf, module, notices and log: what a set has, read and changed inside it.

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/key_combination.h"
#include "platform/privileged_service.h"
#include "platform/state_dir.h"
#include "platform/vconf.h"
#include "set/commands.h"
#include "set/complain.h"
#include "set/files.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

using nlohmann::json;

/* ------------------------------ key, temperature ------------------------------ */

struct {
    int number;
} g_key;

int press_key() {
    if (key_combination_drop(g_key.number) != 0) fail_errno("the key press was not taken");
    return kExitOk;
}

struct {
    int degrees;
} g_temperature;

int set_temperature() {
    if (!replace_state_file(kTemperatureFile, std::to_string(g_temperature.degrees) + "\n")) {
        fail_errno(kTemperatureFile);
    }
    return kExitOk;
}

/* ------------------------------ vconf ------------------------------ */

struct {
    int (*action)();
    std::string key;
    std::string value;
    std::string type = "int";
} g_vconf;

int get_key() {
    int number = 0;
    if (vconf_get_int(g_vconf.key.c_str(), &number) == 0) {
        std::cout << number << std::endl;
        return kExitOk;
    }
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(g_vconf.key.c_str()), std::free);
    if (text == nullptr) fail("vconf key " + g_vconf.key + " is not set");
    std::cout << text.get() << std::endl;
    return kExitOk;
}

int set_key() {
    const char *key = g_vconf.key.c_str();
    int result = 0;
    if (g_vconf.type == "string") {
        result = vconf_set_str(key, g_vconf.value.c_str());
    } else {
        int number = 0;
        if (!CLI::detail::lexical_cast(g_vconf.value, number)) {
            fail("\"" + g_vconf.value + "\" is not an integer; a text needs --type string", kExitUsage);
        }
        result = vconf_set_int(key, number);
    }
    if (result != 0) fail("vconf key " + g_vconf.key + " was not set");
    return kExitOk;
}

/* ------------------------------ kernel module ------------------------------ */

struct {
    int (*action)();
    bool json = false;
    std::string state;
    std::vector<std::string> faults;
} g_module;

std::string inject_file() {
    return state_path("module/inject");
}

// Replaces the file of faults; removes it where there are none.
int set_faults(const std::vector<std::string> &lines) {
    if (lines.empty()) {
        if (unlink(inject_file().c_str()) != 0 && errno != ENOENT) fail_errno(inject_file());
        return kExitOk;
    }
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    if (!replace_state_file(inject_file(), text)) fail_errno(inject_file());
    return kExitOk;
}

// Only the stall line is added or removed; what else is injected stays.
int set_stall() {
    std::vector<std::string> lines;
    std::istringstream old(read_file(inject_file()).value_or(""));
    for (std::string line; std::getline(old, line);) {
        if (line != "stall" && !line.empty()) lines.push_back(line);
    }
    if (g_module.state == "on") lines.emplace_back("stall");
    return set_faults(lines);
}

int check_privileged(const char *what, int result, int answer) {
    if (result != 0 || answer != 0) fail(std::string(what) + ": " + PS_ErrorToString(result != 0 ? result : answer));
    return kExitOk;
}

int load_module() {
    int answer = 0;
    const int result = PS_Insmod_Fast(kModuleFile, std::strlen(kModuleFile), 0, &answer);
    return check_privileged("loading the kernel module", result, answer);
}

int unload_module() {
    int answer = 0;
    const int result = PS_Rmmod(kModuleName, std::strlen(kModuleName), 0, &answer);
    return check_privileged("unloading the kernel module", result, answer);
}

std::string joined(const json &list) {
    std::string text;
    for (const json &item : list)
        text += (text.empty() ? "" : ", ") + (item.is_string() ? item.get<std::string>() : item.dump());
    return text.empty() ? "none" : text;
}

// The commands that came, in their order; of many the newest.
void print_received(const json &recent) {
    constexpr size_t kShown = 20;
    const size_t hidden = recent.size() > kShown ? recent.size() - kShown : 0;
    if (!recent.empty()) std::cout << "received     " << (hidden > 0 ? "the newest, all with --json" : "") << "\n";
    for (size_t i = hidden; i < recent.size(); ++i) {
        std::cout << "  " << recent[i].value("command", "");
        if (recent[i]["count"] != 1) std::cout << "   " << recent[i]["count"] << " times";
        std::cout << "\n";
    }
}

void print_status(const json &status) {
    const auto on_off = [&](const char *name) { return status.value(name, false) ? "on" : "off"; };
    std::cout << "module       " << (status.value("loaded", false) ? "loaded" : "unloaded") << ", loaded "
              << status["loads"] << " times\n"
              << "tracing      " << on_off("tracing") << "\n"
              << "disk I/O     reads " << on_off("disk_read") << ", writes " << on_off("disk_write") << "\n"
              << "temperature  " << (status["temperature"].is_null() ? "not told yet" : status["temperature"].dump())
              << "\n"
              << "filter       names " << joined(status["filter"]["names"]) << "; process ids "
              << joined(status["filter"]["pids"]) << "\n"
              << "reads        " << status["reads"]["total"] << ", empty " << status["reads"]["empty"] << ", failed "
              << status["reads"]["failed"] << "\n"
              << "handed out   " << status["blocks"] << " blocks, " << status["bytes"] << " bytes\n";
    for (const auto &[type, count] : status["frames"].items()) {
        std::cout << "  frames of type " << type << ": " << count << "\n";
    }
    if (status["damaged_blocks"] != 0)
        std::cout << "  blocks with damaged frames: " << status["damaged_blocks"] << "\n";
    std::cout << "writes       " << status["writes"] << ", refused " << status["refused"] << "\n";
    for (const auto &[number, tally] : status["commands"].items()) {
        std::cout << "  command " << number << ": " << tally["count"] << " times, last " << tally["payload"] << "\n";
    }
    print_received(status["recent"]);
    std::cout << std::flush;
}

int show_status() {
    const std::string path = std::string(kNodeDir) + "/status";
    const auto text = read_file(path);
    if (!text) fail_errno("this set has no control node: " + path);
    if (g_module.json) {
        std::cout << *text << std::flush;
    } else {
        print_status(json::parse(*text));
    }
    return kExitOk;
}

/* ------------------------------ notices and log ------------------------------ */

int show_notices() {
    std::istringstream lines(read_file(state_path("notifications.jsonl")).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const json notice = json::parse(line, nullptr, false);
        // As it is on the screen where it has a text; anything else as it was posted.
        std::cout << (notice.is_object() && notice.contains("text") && notice["text"].is_string()
                          ? notice["text"].get<std::string>()
                          : line)
                  << "\n";
    }
    std::cout << std::flush;
    return kExitOk;
}

struct {
    bool follow = false;
    int lines = -1;
} g_log;

int show_log() {
    const char *path = access(kLogFile, R_OK) == 0 ? kLogFile : kStateLog;
    if (access(path, R_OK) != 0) fail("this set's log is not in a file, or still empty");
    const std::string count = g_log.lines < 0 ? "+1" : std::to_string(g_log.lines);
    execlp("tail", "tail", "-n", count.c_str(), g_log.follow ? "-F" : path, g_log.follow ? path : nullptr, nullptr);
    fail_errno("tail");
}

/* ------------------------------ options ------------------------------ */

void add_vconf_options(CLI::App &app) {
    app.require_subcommand(1);
    CLI::App *sub = add_action(app, "get", "Show a key's value", &g_vconf.action, get_key);
    sub->add_option("key", g_vconf.key, "Name of the key")->required();
    sub = add_action(app, "set", "Set a key; its listeners are called even when the value stays the same",
                     &g_vconf.action, set_key);
    sub->add_option("key", g_vconf.key, "Name of the key")->required();
    sub->add_option("value", g_vconf.value, "Its new value")->required();
    sub->add_option("--type", g_vconf.type, "int or string")
        ->check(CLI::IsMember({"int", "string"}))
        ->capture_default_str();
}

void add_module_options(CLI::App &app) {
    app.require_subcommand(1);
    int (**action)() = &g_module.action;
    add_action(app, "status", "What it received and what it handed out", action, show_status)
        ->add_flag("--json", g_module.json, "As JSON");
    add_action(app, "load", "Load it: the control node appears", action, load_module);
    add_action(app, "unload", "Unload it: the control node goes", action, unload_module);
    add_action(app, "stall", "Make reads of the control node wait", action, set_stall)
        ->add_option("state", g_module.state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    add_action(
        app, "inject",
        "Faults to commit, instead of those so far: 'empty N', 'error N [ERRNO]', 'stall', 'size N'; none: behave",
        action, [] { return set_faults(g_module.faults); })
        ->add_option("fault", g_module.faults, "One fault each");
}

}  // namespace

const Command kKey = {
    "key",
    "Press a key combination on the remote control",
    "Combination 87 makes the daemon write a dump.\n\nexample:\n  vestra-set key 87",
    Command::kInside,
    [](CLI::App &app) {
        app.add_option("number", g_key.number, "Number of the combination")->required()->check(CLI::Range(0, INT_MAX));
    },
    press_key};

const Command kTemperature = {
    "temperature",
    "Set the temperature of the set's processor, in degrees Celsius",
    "example:\n  vestra-set temperature 126     (above 125 the daemon raises its alarm)",
    Command::kInside,
    [](CLI::App &app) { app.add_option("degrees", g_temperature.degrees, "Degrees Celsius")->required(); },
    set_temperature};

const Command kVconf = {"vconf",
                        "Read or set a key of the platform's configuration service",
                        "examples:\n"
                        "  vestra-set vconf set system/DOD/test_monitor 1\n"
                        "  vestra-set vconf set system/vestra/robust --type string 'some text'\n"
                        "  vestra-set vconf get memory/SHM/trigger_db_write",
                        Command::kInside,
                        add_vconf_options,
                        [] { return g_vconf.action(); }};

const Command kModule = {"module",
                         "Look at the kernel module, load and unload it, make it misbehave",
                         "examples:\n"
                         "  vestra-set module status\n"
                         "  vestra-set module stall on      (reads of the control node wait, until: stall off)\n"
                         "  vestra-set module inject 'error 3' 'size 4096'\n"
                         "  vestra-set module inject        (behave again)",
                         Command::kInside,
                         add_module_options,
                         [] { return g_module.action(); }};

const Command kNotices = {"notices",
                          "Show the notices that were put on the set's screen",
                          "example:\n  vestra-set notices",
                          Command::kInside,
                          nullptr,
                          show_notices};

const Command kLog = {
    "log",
    "Show the daemon's log",
    "example:\n  vestra-set log -f",
    Command::kInside,
    [](CLI::App &app) {
        app.add_flag("-f,--follow", g_log.follow, "Continue with what is logged from now on");
        app.add_option("-n,--lines", g_log.lines, "Only the last ones")->check(CLI::NonNegativeNumber);
    },
    show_log};

}  // namespace vestra_set
