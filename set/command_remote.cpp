// key, vconf, temperature, notices, log and module: what a running set can be told and asked, carried out inside it.

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
#include "set/files.h"
#include "set/launcher.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

using nlohmann::json;

int complain(const std::string &text) {
    std::cerr << "vestra-set: " << text << std::endl;
    return kExitFailed;
}

int complain_errno(const std::string &what) {
    return complain(what + ": " + std::strerror(errno));
}

/* ------------------------------ vconf ------------------------------ */

int get_vconf(const std::string &key) {
    int number = 0;
    if (vconf_get_int(key.c_str(), &number) == 0) {
        std::cout << number << std::endl;
        return kExitOk;
    }
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key.c_str()), std::free);
    if (text == nullptr) return complain("vconf key " + key + " is not set");
    std::cout << text.get() << std::endl;
    return kExitOk;
}

int set_vconf(const std::string &key, const std::string &value, const std::string &type) {
    if (type == "string") {
        return vconf_set_str(key.c_str(), value.c_str()) == 0 ? kExitOk : complain("vconf key " + key + " was not set");
    }
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(value.c_str(), &end, 0);
    if (value.empty() || *end != '\0' || errno != 0 || number < INT_MIN || number > INT_MAX) {
        complain("\"" + value + "\" is not an integer; a text needs --type string");
        return kExitUsage;
    }
    return vconf_set_int(key.c_str(), static_cast<int>(number)) == 0 ? kExitOk
                                                                     : complain("vconf key " + key + " was not set");
}

/* ------------------------------ kernel module ------------------------------ */

std::string inject_file() {
    return state_path("module/inject");
}

// Replaces the file of faults; no lines, no file.
int set_faults(const std::vector<std::string> &lines) {
    if (lines.empty()) {
        return unlink(inject_file().c_str()) == 0 || errno == ENOENT ? kExitOk : complain_errno(inject_file());
    }
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    return replace_state_file(inject_file(), text) ? kExitOk : complain_errno(inject_file());
}

// Only the stall line comes or goes; what else is injected stays.
int set_stall(bool on) {
    std::vector<std::string> lines;
    std::istringstream old(read_file(inject_file()).value_or(""));
    for (std::string line; std::getline(old, line);) {
        if (line != "stall" && !line.empty()) lines.push_back(line);
    }
    if (on) lines.emplace_back("stall");
    return set_faults(lines);
}

int set_loaded(bool load) {
    int answer = 0;
    const int result = load ? PS_Insmod_Fast(kModuleFile, std::strlen(kModuleFile), 0, &answer)
                            : PS_Rmmod(kModuleName, std::strlen(kModuleName), 0, &answer);
    if (result == 0 && answer == 0) return kExitOk;
    return complain(std::string(load ? "loading" : "unloading") +
                    " the kernel module failed: " + PS_ErrorToString(result != 0 ? result : answer));
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

int show_status(bool as_json) {
    const std::string path = std::string(kNodeDir) + "/status";
    const auto text = read_file(path);
    if (!text) return complain("this set has no control node (" + path + ": " + std::strerror(errno) + ")");
    if (as_json) {
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

int show_log(bool follow, int lines) {
    const char *path = access(kLogFile, R_OK) == 0 ? kLogFile : kStateLog;
    if (access(path, R_OK) != 0) return complain("this set's log is not in a file, or empty so far");
    const std::string count = lines < 0 ? "+1" : std::to_string(lines);
    execlp("tail", "tail", "-n", count.c_str(), follow ? "-F" : path, follow ? path : nullptr, nullptr);
    return complain_errno("tail");
}

}  // namespace

Action setup_key(CLI::App &app) {
    auto number = std::make_shared<int>();
    app.add_option("number", *number, "Number of the combination")->required()->check(CLI::Range(0, INT_MAX));
    return [number](const Rest &) {
        return key_combination_drop(*number) == 0 ? kExitOk : complain_errno("the key press was not taken");
    };
}

Action setup_vconf(CLI::App &app) {
    auto key = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    auto type = std::make_shared<std::string>("int");
    app.require_subcommand(1);
    CLI::App *get = app.add_subcommand("get", "Show a key's value");
    get->add_option("key", *key, "Name of the key")->required();
    CLI::App *set = app.add_subcommand("set", "Set a key; who listens for it is told even when the value is as it was");
    set->add_option("key", *key, "Name of the key")->required();
    set->add_option("value", *value, "Its new value")->required();
    set->add_option("--type", *type, "int or string")->check(CLI::IsMember({"int", "string"}))->capture_default_str();
    for (CLI::App *sub : {get, set}) sub->fallthrough();
    return [=](const Rest &) { return get->parsed() ? get_vconf(*key) : set_vconf(*key, *value, *type); };
}

Action setup_temperature(CLI::App &app) {
    auto degrees = std::make_shared<int>();
    app.add_option("degrees", *degrees, "Degrees Celsius")->required();
    return [degrees](const Rest &) {
        const bool done = replace_state_file(kTemperatureFile, std::to_string(*degrees) + "\n");
        return done ? kExitOk : complain_errno(kTemperatureFile);
    };
}

Action setup_module(CLI::App &app) {
    auto as_json = std::make_shared<bool>(false);
    auto state = std::make_shared<std::string>();
    auto faults = std::make_shared<std::vector<std::string>>();
    app.require_subcommand(1);
    CLI::App *status = app.add_subcommand("status", "What it was told and what it handed out");
    status->add_flag("--json", *as_json, "As JSON");
    CLI::App *load = app.add_subcommand("load", "Load it: the control node appears");
    CLI::App *unload = app.add_subcommand("unload", "Unload it: the control node goes");
    CLI::App *stall = app.add_subcommand("stall", "Let reads of the control node wait");
    stall->add_option("state", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    CLI::App *inject = app.add_subcommand(
        "inject",
        "Faults to commit, in place of those so far: 'empty N', 'error N [ERRNO]', 'stall', 'size N'; none: behave");
    inject->add_option("fault", *faults, "One fault each");
    for (CLI::App *sub : {status, load, unload, stall, inject}) sub->fallthrough();
    return [=](const Rest &) {
        if (status->parsed()) return show_status(*as_json);
        if (stall->parsed()) return set_stall(*state == "on");
        if (inject->parsed()) return set_faults(*faults);
        return set_loaded(load->parsed());
    };
}

Action setup_notices(CLI::App &) {
    return [](const Rest &) { return show_notices(); };
}

Action setup_log(CLI::App &app) {
    auto follow = std::make_shared<bool>(false);
    auto lines = std::make_shared<int>(-1);
    app.add_flag("-f,--follow", *follow, "Go on with what is logged from now on");
    app.add_option("-n,--lines", *lines, "Only the last ones")->check(CLI::NonNegativeNumber);
    return [follow, lines](const Rest &) { return show_log(*follow, *lines); };
}

}  // namespace vestra_set
