// exec, wait, stop and list: commands about sets as a whole, from outside.

#include <fcntl.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "set/commands.h"
#include "set/complain.h"
#include "set/enter.h"
#include "set/inner_init.h"
#include "set/layout.h"
#include "set/set_directory.h"

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
        if (set && open_init(*set).valid()) return kExitOk;
        if (Clock::now() >= end) fail("no set \"" + g_name + "\" came up", kExitNotRunning);
    }
}

/* ------------------------------ stop ------------------------------ */

struct {
    double grace = 3;
} g_stop;

// Copies what was added to a file since the last call to standard output.
void show_new(int file) {
    char text[4096];
    for (ssize_t size = 0; (size = read(file, text, sizeof text)) > 0;) std::cout.write(text, size);
    std::cout << std::flush;
}

int stop_set() {
    const RunningSet set = find_running_set(g_name);
    const UniqueFd init = open_init(set);
    const UniqueFd stop_log(open((process_path(init) + "/root" + kStopLog).c_str(), O_RDONLY | O_CLOEXEC));
    if (!request_stop(init, g_stop.grace)) {
        fail("the set \"" + g_name + "\" has just ended", kExitNotRunning);
    }
    // The launcher has the directory to remove: what comes next may start a set of the same name.
    const auto limit = Clock::now() + Seconds(g_stop.grace) + kEndLimit;
    for (;; std::this_thread::sleep_for(kLook)) {
        const auto now = find_set(g_name);
        show_new(stop_log.get());
        if (!now || now->launcher != set.launcher) return kExitOk;
        if (Clock::now() >= limit) {
            fail("the set \"" + g_name + "\" has not ended; its launcher is process " + std::to_string(set.launcher));
        }
    }
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
            all.push_back({{"name", set.name},
                           {"launcher", set.launcher},
                           {"program", set.program},
                           {"directory", set_directory(set.name)}});
        }
        std::cout << all.dump(2, ' ', false, json::error_handler_t::replace) << std::endl;
        return kExitOk;
    }
    if (sets.empty()) std::cout << "no set is running" << std::endl;
    for (const RunningSet &set : sets) {
        std::printf("%-20s launcher %-8d %s\n", set.name.c_str(), set.launcher, set.program.c_str());
    }
    return kExitOk;
}

}  // namespace

const Command kExec = {"exec",
                       "Run a program inside a running set",
                       "The program's exit code is passed on; 128 + the number of a signal that ended it.\n\n"
                       "examples:\n"
                       "  vestra-set exec -- ls -l /media/STICK\n"
                       "  vestra-set exec -- sh",
                       Command::kProgram,
                       [](CLI::App &app) { add_name_option(app); },
                       execute};

const Command kWait = {"wait",
                       "Wait until a set is up",
                       "example:\n  vestra-set run --name demo & vestra-set wait --name demo",
                       Command::kOutside,
                       [](CLI::App &app) {
                           add_name_option(app);
                           add_seconds_option(app, "--timeout", g_wait.timeout, "Seconds to wait");
                       },
                       wait_for_set};

const Command kStop = {
    "stop",
    "Stop the daemon in order, and end its set",
    "The daemon gets SIGRTMIN+6 and ends its main loop and its reader, client and user-data threads.\n"
    "It then waits for its process-list thread, which never ends. So it is ended by force once the\n"
    "other threads have ended, or when the time of grace is over.\n\n"
    "example:\n  vestra-set stop --name small",
    Command::kOutside,
    [](CLI::App &app) {
        add_name_option(app);
        add_seconds_option(app, "--grace", g_stop.grace, "Seconds for the daemon's threads to end");
    },
    stop_set};

const Command kList = {"list",
                       "List the sets that are running",
                       "example:\n  vestra-set list --json",
                       Command::kOutside,
                       [](CLI::App &app) { app.add_flag("--json", g_list.json, "As JSON"); },
                       list_sets};

}  // namespace vestra_set
