// key, temperature, vconf, module, notices and log: what a set has, read and changed inside it.

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/privileged_service.h"
#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"
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
        const char *end = g_vconf.value.data() + g_vconf.value.size();
        const auto [stop, error] = std::from_chars(g_vconf.value.data(), end, number);
        if (error != std::errc() || stop != end) {
            fail("\"" + g_vconf.value + "\" is not an integer; a text needs --type string", kExitUsage);
        }
        result = vconf_set_int(key, number);
    }
    if (result != 0) fail("vconf key " + g_vconf.key + " was not set");
    return kExitOk;
}

/* ------------------------------ kernel module ------------------------------ */

struct {
    bool json = false;
    std::string state;
    std::vector<std::string> faults;
} g_module;

std::string inject_file() {
    return state_path("module/inject");
}

// Replaces the file of faults; removes it where there are none.
int set_faults(const std::string &lines) {
    const bool done = lines.empty() ? unlink(inject_file().c_str()) == 0 || errno == ENOENT
                                    : replace_state_file(inject_file(), lines);
    if (!done) fail_errno(inject_file());
    return kExitOk;
}

int inject() {
    std::string lines;
    for (const std::string &fault : g_module.faults) lines += fault + "\n";
    return set_faults(lines);
}

// Only the stall line is added or removed; what else is injected stays.
int set_stall() {
    std::string lines;
    std::istringstream old(read_file(inject_file()).value_or(""));
    for (std::string line; std::getline(old, line);) {
        if (line != "stall") lines += line + "\n";
    }
    return set_faults(lines + (g_module.state == "on" ? "stall\n" : ""));
}

int load_or_unload(bool load) {
    int answer = 0;
    const int result = load ? PS_Insmod_Fast(kModuleFile, std::strlen(kModuleFile), 0, &answer)
                            : PS_Rmmod(kModuleName, std::strlen(kModuleName), 0, &answer);
    if (result == 0 && answer == 0) return kExitOk;
    fail(std::string(load ? "loading" : "unloading") +
         " the kernel module failed: " + PS_ErrorToString(result != 0 ? result : answer));
}

// A member of the status for people.
std::string shown(const json &value) {
    if (value.is_boolean()) return value.get<bool>() ? "on" : "off";
    if (!value.is_array()) return value.is_null() ? "none yet" : value.dump();
    std::string text;
    for (const json &item : value) {
        text += (text.empty() ? "" : ", ") + (item.is_string() ? item.get<std::string>() : item.dump());
    }
    return text.empty() ? "none" : text;
}

void print_status(const json &status) {
    const json &filter = status["filter"];
    const json &reads = status["reads"];
    std::cout << "module       " << (status.value("loaded", false) ? "loaded" : "unloaded") << ", loaded "
              << status["loads"] << " times\n"
              << "tracing      " << shown(status["tracing"]) << "\n"
              << "disk I/O     reads " << shown(status["disk_read"]) << ", writes " << shown(status["disk_write"])
              << "\n"
              << "temperature  " << shown(status["temperature"]) << "\n"
              << "filter       names " << shown(filter["names"]) << "; process ids " << shown(filter["pids"]) << "\n"
              << "reads        " << reads["total"] << ", empty " << reads["empty"] << ", failed " << reads["failed"]
              << "\n"
              << "handed out   " << status["blocks"] << " blocks, " << status["bytes"] << " bytes\n";
    for (const auto &[type, count] : status["frames"].items()) {
        std::cout << "  frames of type " << type << ": " << count << "\n";
    }
    if (status["damaged_blocks"] != 0) {
        std::cout << "  blocks with damaged frames: " << status["damaged_blocks"] << "\n";
    }
    std::cout << "writes       " << status["writes"] << ", refused " << status["refused"] << "\n";
    for (const auto &[number, tally] : status["commands"].items()) {
        std::cout << "  command " << number << ": " << tally["count"] << " times, last " << tally["payload"] << "\n";
    }
    // The commands in their order; of many only the newest.
    constexpr size_t kShown = 20;
    const json &recent = status["recent"];
    const size_t hidden = recent.size() > kShown ? recent.size() - kShown : 0;
    if (!recent.empty()) std::cout << "received     " << (hidden > 0 ? "the newest, all with --json" : "") << "\n";
    for (size_t i = hidden; i < recent.size(); ++i) {
        std::cout << "  " << recent[i].value("command", "");
        if (recent[i]["count"] != 1) std::cout << "   " << recent[i]["count"] << " times";
        std::cout << "\n";
    }
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
        // What is on the screen; a notice without a text as it was posted.
        const bool has_text = notice.is_object() && notice.contains("text") && notice["text"].is_string();
        std::cout << (has_text ? notice["text"].get<std::string>() : line) << "\n";
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

}  // namespace

void add_remote_commands(cli::Command app) {
    constexpr Where kInside = Where::kInside;
    cli::Command command = add_command(app, kInside, "key", "Press a key combination on the remote control", press_key,
                                       "Combination 87 makes the daemon write a dump.");
    command.add("number", g_key.number, "Number of the combination").required().range(0, INT_MAX);

    command = add_command(app, kInside, "temperature", "Set the temperature of the set's processor", set_temperature,
                          "Above 125 the daemon raises its alarm.");
    command.add("degrees", g_temperature.degrees, "Degrees Celsius").required();

    cli::Command vconf =
        add_command(app, kInside, "vconf", "Read or set a key of the platform's configuration service", nullptr,
                    "examples:\n"
                    "  vestra-set vconf set system/DOD/test_monitor 1\n"
                    "  vestra-set vconf set system/vestra/robust --type string 'some text'\n"
                    "  vestra-set vconf get memory/SHM/trigger_db_write");
    command = add_command(vconf, kInside, "get", "Show a key's value", get_key);
    command.add("key", g_vconf.key, "Name of the key").required();
    command = add_command(vconf, kInside, "set",
                          "Set a key; its listeners are called even when the value stays the same", set_key);
    command.add("key", g_vconf.key, "Name of the key").required();
    command.add("value", g_vconf.value, "Its new value").required();
    command.add("--type", g_vconf.type, "int or string").one_of({"int", "string"}).show_default();

    cli::Command module =
        add_command(app, kInside, "module", "Look at the kernel module, load and unload it, make it misbehave", nullptr,
                    "examples:\n"
                    "  vestra-set module inject 'error 3' 'size 4096'\n"
                    "  vestra-set module inject        (behave again)");
    command = add_command(module, kInside, "status", "What it received and what it handed out", show_status);
    command.add_flag("--json", g_module.json, "As JSON");
    add_command(module, kInside, "load", "Load it: the control node appears", [] { return load_or_unload(true); });
    add_command(module, kInside, "unload", "Unload it: the control node goes", [] { return load_or_unload(false); });
    command = add_command(module, kInside, "stall", "Make reads of the control node wait", set_stall);
    command.add("state", g_module.state, "on or off").required().one_of({"on", "off"});
    command = add_command(module, kInside, "inject",
                          "Faults to commit, instead of those so far: 'empty N', 'error N [ERRNO]', 'stall', 'size N'; "
                          "none: behave",
                          inject);
    command.add("fault", g_module.faults, "One fault each");

    add_command(app, kInside, "notices", "Show the notices that were put on the set's screen", show_notices);

    command = add_command(app, kInside, "log", "Show the daemon's log", show_log);
    command.add_flag("-f,--follow", g_log.follow, "Continue with what is logged from now on");
    command.add("-n,--lines", g_log.lines, "Only the last ones").range(0, INT_MAX);
}

}  // namespace vestra_set
