// exec, wait, stop and list: commands about sets as a whole, from outside.

#include <chrono>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "set/commands.h"
#include "set/complain.h"
#include "set/enter.h"
#include "set/set_directory.h"
#include "set/stop_watch.h"

namespace vestra_set {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kLook = std::chrono::milliseconds(10);
constexpr Seconds kEndLimit{5};  // for a set to go once its program has been ended

/* ------------------------------ exec ------------------------------ */

int execute() {
    if (!g_program.empty()) return execute_in_set(g_name, g_program);
    fail("exec: which program? vestra-set exec [options] -- PROGRAM [ARGUMENTS]", kExitUsage);
}

/* ------------------------------ wait ------------------------------ */

struct {
    double timeout = 10;
} g_wait;

int wait_for_set() {
    const auto end = Clock::now() + Seconds(g_wait.timeout);
    for (;; std::this_thread::sleep_for(kLook)) {
        const auto set = find_set(g_name);
        if (set && open_program(*set).valid()) return kExitOk;
        if (Clock::now() >= end) fail("no set \"" + g_name + "\" came up", kExitNotRunning);
    }
}

/* ------------------------------ stop ------------------------------ */

struct {
    double grace = 3;
} g_stop;

int stop_set() {
    const RunningSet set = find_running_set(g_name);
    StopWatch watch(set, g_stop.grace, [](const std::string &line) { std::cout << line << std::endl; });
    while (watch.look()) std::this_thread::sleep_for(kStopLook);
    // The launcher has the directory to remove: what comes next may start a set of the same name.
    for (const auto limit = Clock::now() + kEndLimit; Clock::now() < limit; std::this_thread::sleep_for(kLook)) {
        const auto now = find_set(g_name);
        if (!now || now->launcher != set.launcher) return kExitOk;
    }
    fail("the set \"" + g_name + "\" has not ended; its launcher is process " + std::to_string(set.launcher));
}

/* ------------------------------ list ------------------------------ */

struct {
    bool json = false;
} g_list;

int list_sets() {
    using nlohmann::json;
    const auto sets = running_sets();
    if (g_list.json) {
        json all = json::array();
        for (const RunningSet &set : sets) {
            all.push_back(set);
            all.back()["directory"] = set_directory(set.name);
        }
        std::cout << all.dump(2, ' ', false, json::error_handler_t::replace) << std::endl;
        return kExitOk;
    }
    if (sets.empty()) std::cout << "no set is running" << std::endl;
    for (const RunningSet &set : sets) {
        std::cout << std::left << std::setw(20) << set.name << " launcher " << std::setw(8) << set.launcher << " "
                  << set.program << "\n";
    }
    return kExitOk;
}

}  // namespace

void add_set_commands(cli::Command app) {
    cli::Command command =
        add_command(app, Where::kProgram, "exec", "Run a program inside a running set", execute,
                    "The program's exit code is passed on; 128 + the number of a signal that ended it.\n\n"
                    "example:\n  vestra-set exec --name demo -- ls -l /media/STICK");
    add_name_option(command);

    command = add_command(app, Where::kOutside, "wait", "Wait until a set is up", wait_for_set);
    add_name_option(command);
    add_seconds_option(command, "--timeout", g_wait.timeout, "Seconds to wait");

    command =
        add_command(app, Where::kOutside, "stop", "Stop the daemon in order, and end its set", stop_set,
                    "The daemon gets SIGRTMIN+6 and ends its main loop and its reader, client and user-data\n"
                    "threads. It then waits for its process-list thread, which never ends. So it is ended by force\n"
                    "once the other threads have ended, or when the time of grace is over.");
    add_name_option(command);
    add_seconds_option(command, "--grace", g_stop.grace, "Seconds for the daemon's threads to end");

    command = add_command(app, Where::kOutside, "list", "List the sets that are running", list_sets);
    command.add_flag("--json", g_list.json, "As JSON");
}

}  // namespace vestra_set
