// exec, wait, stop and list: commands about sets as a whole, from outside.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>

#include "set/commands.h"
#include "set/launcher.h"
#include "set/messages.h"
#include "set/remote.h"
#include "set/set_directory.h"

namespace vestra_set {
namespace {

using nlohmann::json;

constexpr auto kWaitLook = std::chrono::milliseconds(20);
constexpr auto kEndLook = std::chrono::milliseconds(10);
constexpr auto kEndLimit = std::chrono::seconds(5);

bool is_running(const std::string &name) {
    const auto sets = running_sets();
    return std::any_of(sets.begin(), sets.end(), [&](const RunningSet &set) { return set.name == name; });
}

std::optional<json> ask_info(const std::string &name) {
    const UniqueFd set = connect_to_set(name, true);
    if (!set.valid() || !send_message(set.get(), {{"op", "info"}})) return std::nullopt;
    return receive_message(set.get());
}

int stop_set(const std::string &name, double grace) {
    const UniqueFd set = connect_to_set(name);
    if (!set.valid()) return kExitNotRunning;
    send_message(set.get(), {{"op", "stop"}, {"grace", grace}});
    while (const auto message = receive_message(set.get())) {
        if (message->contains("text")) std::cout << message->value("text", "") << std::endl;
        if (message->contains("exit")) break;
    }
    // What comes next may start a set of the same name: the launcher has the directory to clear away first.
    const auto limit = std::chrono::steady_clock::now() + kEndLimit;
    while (is_running(name) && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(kEndLook);
    return kExitOk;
}

int wait_for_set(const std::string &name, double limit) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(limit);
    while (!ask_info(name)) {
        if (std::chrono::steady_clock::now() >= end) {
            std::cerr << "vestra-set: no set \"" << name << "\" came up" << std::endl;
            return kExitNotRunning;
        }
        std::this_thread::sleep_for(kWaitLook);
    }
    return kExitOk;
}

int list_sets(bool as_json) {
    json all = json::array();
    for (const RunningSet &set : running_sets()) {
        const auto info = ask_info(set.name);
        all.push_back({{"name", set.name},
                       {"launcher", set.launcher},
                       {"program", info ? info->value("program", "") : ""},
                       {"directory", set_directory(set.name)}});
    }
    if (as_json) {
        std::cout << all.dump(2) << std::endl;
        return kExitOk;
    }
    if (all.empty()) std::cout << "no set is running" << std::endl;
    for (const json &set : all) {
        std::printf("%-20s launcher %-8d %s\n", set.value("name", "").c_str(), set.value("launcher", 0),
                    set.value("program", "").c_str());
    }
    return kExitOk;
}

}  // namespace

Action setup_exec(CLI::App &app) {
    auto name = std::make_shared<std::string>("default");
    add_name_option(app, *name);
    return [name](const Rest &rest) -> int {
        if (!rest.words.empty()) return execute_in_set(*name, rest.words);
        std::cerr << "vestra-set: exec: which program? vestra-set exec [options] -- PROGRAM [ARGUMENTS]" << std::endl;
        return kExitUsage;
    };
}

Action setup_stop(CLI::App &app) {
    auto name = std::make_shared<std::string>("default");
    auto grace = std::make_shared<double>(3.0);
    add_name_option(app, *name);
    app.add_option("--grace", *grace, "Seconds that the daemon's threads have to end")->capture_default_str();
    return [name, grace](const Rest &) { return stop_set(*name, *grace); };
}

Action setup_list(CLI::App &app) {
    auto as_json = std::make_shared<bool>(false);
    app.add_flag("--json", *as_json, "As JSON");
    return [as_json](const Rest &) { return list_sets(*as_json); };
}

Action setup_wait(CLI::App &app) {
    auto name = std::make_shared<std::string>("default");
    auto limit = std::make_shared<double>(10.0);
    add_name_option(app, *name);
    app.add_option("--timeout", *limit, "Seconds")->capture_default_str();
    return [name, limit](const Rest &) { return wait_for_set(*name, *limit); };
}

}  // namespace vestra_set
