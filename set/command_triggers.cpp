// robust, dod, history and filter: what other programs of a set ask of the daemon. Each drops the file or sets the key
// that those programs do; carried out inside the set.

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/vconf.h"
#include "set/commands.h"
#include "set/complain.h"
#include "set/files.h"

namespace vestra_set {
namespace {

using nlohmann::json;
using Seconds = std::chrono::duration<double>;

constexpr const char *kRobustKey = "system/vestra/robust";
constexpr const char *kDodKey = "system/DOD/test_monitor";
constexpr const char *kHistoryKey = "memory/SHM/trigger_db_write";
constexpr const char *kHistoryFile = "/opt/usr/home/owner/share/tvhistory.db";
constexpr const char *kListDirectory = "/tmp/vestra_processes";
constexpr const char *kListFile = "/tmp/vestra_processes/processes.txt";
constexpr size_t kFieldLimit = 255;  // characters that the daemon takes of a robustness request's path and name
constexpr double kPatience = 10;     // seconds, where none are given
constexpr Seconds kOffer{1};         // until a list that was not taken is dropped again

// Looks every 20 ms until `condition` holds; false when it still does not after `patience`.
bool comes_true(const std::function<bool()> &condition, Seconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string seconds_text(double seconds) {
    std::ostringstream text;
    text << seconds << " s";
    return text.str();
}

void set_key(const char *key, int value) {
    if (vconf_set_int(key, value) != 0) fail(std::string("vconf key ") + key + " was not set");
}

/* ------------------------------ robust, dod ------------------------------ */

struct {
    std::string directory, process;
    int pid;
} g_robust;

int request_dump() {
    for (const std::string &field : {g_robust.directory, g_robust.process}) {
        if (field.empty() || field.size() > kFieldLimit || field.find('|') != std::string::npos) {
            fail("\"" + field + "\": expected 1 to 255 characters, none of them a '|'", kExitUsage);
        }
    }
    struct stat info;
    if (stat(g_robust.directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        say("note: " + g_robust.directory + " is no directory in the set; the daemon waits 41 s for it");
    }
    const std::string value = g_robust.directory + "|" + g_robust.process + "|" + std::to_string(g_robust.pid);
    if (vconf_set_str(kRobustKey, value.c_str()) != 0) fail(std::string("vconf key ") + kRobustKey + " was not set");
    return kExitOk;
}

struct {
    std::string state;
} g_dod;

int set_dod() {
    set_key(kDodKey, g_dod.state == "on" ? 1 : 0);
    return kExitOk;
}

/* ------------------------------ history ------------------------------ */

struct {
    int rows = 20;
    bool as_json = false;
    double timeout = kPatience;
} g_history;

struct SqliteClose {
    void operator()(sqlite3 *database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// {total: number of rows, rows: the newest of them, newest first}
json read_history() {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(kHistoryFile, &opened, SQLITE_OPEN_READONLY, nullptr);
    const std::unique_ptr<sqlite3, SqliteClose> database(opened);
    const auto check = [&](bool good) {
        if (!good) fail(std::string(kHistoryFile) + ": " + sqlite3_errmsg(opened));
    };
    check(result == SQLITE_OK);
    sqlite3_busy_timeout(opened, 2000);
    // The daemon writes its list from the newest sample to the oldest.
    static constexpr char kQuery[] =
        "SELECT TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED,COUNT(*) OVER () "
        "FROM PROCESS_INFO ORDER BY rowid LIMIT ?";
    sqlite3_stmt *prepared = nullptr;
    check(sqlite3_prepare_v2(opened, kQuery, -1, &prepared, nullptr) == SQLITE_OK);
    const std::unique_ptr<sqlite3_stmt, SqliteClose> statement(prepared);
    sqlite3_bind_int(prepared, 1, g_history.rows);
    json history = {{"total", 0}, {"rows", json::array()}};
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(prepared)) == SQLITE_ROW) {
        const auto number = [&](int column) { return int64_t{sqlite3_column_int64(prepared, column)}; };
        const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(prepared, 2));
        history["rows"].push_back({{"time_ns", number(0)},
                                   {"pid", number(1)},
                                   {"name", name != nullptr ? name : ""},
                                   {"rss_kib", number(3)},
                                   {"swap_kib", number(4)},
                                   {"cpu_percent", number(5)}});
        history["total"] = number(6);
    }
    check(step == SQLITE_DONE);
    return history;
}

void print_history(const json &history) {
    const json &rows = history["rows"];
    std::cout << history["total"] << " rows in " << kHistoryFile
              << (rows.size() < history["total"] ? "; the newest:" : "");
    if (!rows.empty()) std::cout << "\n      TIME s     PID  NAME              RSS KiB  SWAP KiB  CPU %";
    for (const json &row : rows) {
        std::string name = row["name"];  // processes choose theirs
        std::replace_if(
            name.begin(), name.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
        std::cout << std::fixed << std::setprecision(3) << "\n"
                  << std::setw(12) << row["time_ns"].get<double>() / 1e9 << std::setw(8) << row["pid"] << "  "
                  << std::left << std::setw(14) << name << std::right << std::setw(11) << row["rss_kib"]
                  << std::setw(10) << row["swap_kib"] << std::setw(7) << row["cpu_percent"];
    }
    std::cout << std::endl;
}

int show_history() {
    set_key(kHistoryKey, 1);
    int value = 1;
    const auto filled = [&] { return vconf_get_int(kHistoryKey, &value) == 0 && value == 0; };
    if (!comes_true(filled, Seconds(g_history.timeout))) {
        fail(std::string("the history was not written: key ") + kHistoryKey + " is still " + std::to_string(value) +
             " after " + seconds_text(g_history.timeout) +
             ".\nA write that failed leaves it so, and the daemon's log has the \"SQL error\". Without such a line the "
             "daemon is busy with\nanother request, or does not run.");
    }
    const json history = read_history();
    if (g_history.as_json) {
        std::cout << history.dump(2, ' ', false, json::error_handler_t::replace) << std::endl;
    } else {
        print_history(history);
    }
    return kExitOk;
}

/* ------------------------------ filter ------------------------------ */

struct {
    std::vector<std::string> names;
    double timeout = kPatience;
} g_filter;

// Removes a file at the end of the scope.
struct Leftover {
    std::string path;
    ~Leftover() { unlink(path.c_str()); }
};

// The list is linked into its place: a whole file appears, with the event that the daemon waits for. One written in
// place may be read half done, one renamed is not noticed.
int drop_list() {
    std::string text;
    for (const std::string &name : g_filter.names) {
        if (name.find('\n') != std::string::npos) fail("a name has one line", kExitUsage);
        text += name + "\n";
    }
    const Leftover list{std::string("/tmp/.vestra-set-list.") + std::to_string(getpid())};
    if (!write_file(list.path, text)) fail_errno(list.path);
    int problem = 0;
    const auto taken = [&] {
        // A list that is still there came before the daemon watched, or was renamed into place: nobody will take it.
        unlink(kListFile);
        problem = link(list.path.c_str(), kListFile) == 0 ? 0 : errno;
        return problem == 0 && comes_true([] { return access(kListFile, F_OK) != 0; }, kOffer);
    };
    if (comes_true(taken, Seconds(g_filter.timeout))) return kExitOk;
    unlink(kListFile);
    if (problem == ENOENT) fail(std::string("there is no ") + kListDirectory + ": no daemon runs in this set yet");
    fail(std::string(kListFile) + " was not taken within " + seconds_text(g_filter.timeout) +
         (problem != 0 ? std::string(": ") + std::strerror(problem) : "; does the daemon run?"));
}

}  // namespace

void add_trigger_commands(cli::Command app) {
    cli::Command command = add_command(
        app, Where::kInside, "robust", "Report a failed process: the daemon writes a dump for it at once", request_dump,
        "The dump is DIRECTORY/0000000000_PID_PROCESS_SECONDS, and a copy of it is on the stick.");
    command.add("directory", g_robust.directory, "Directory inside the set that the dump goes to")
        .required()
        .suggest_files();
    command.add("process", g_robust.process, "Name of the process that failed").required();
    command.add("pid", g_robust.pid, "Its process id").required().range(0, INT_MAX);

    command =
        add_command(app, Where::kInside, "dod", "Switch DOD mode: continuous dumps, in a folder of the stick", set_dod,
                    "The dumps go to /media/LABEL/issue_report_agent_DOD/Vestra. They need a daemon that was\n"
                    "started with two arguments.");
    command.add("state", g_dod.state, "on or off").required().one_of({"on", "off"});

    command = add_command(app, Where::kInside, "history",
                          "Make the daemon write the process history into its database, and show the newest rows",
                          show_history, "Exit code 1 when the daemon did not write it.");
    command.add("--rows", g_history.rows, "How many to show").range(1, INT_MAX).show_default();
    command.add_flag("--json", g_history.as_json, "As JSON");
    add_seconds_option(command, "--timeout", g_history.timeout, "Seconds to wait");

    command = add_command(app, Where::kInside, "filter", "Drop a list of process names: the module reports no others",
                          drop_list,
                          "Waits until the daemon has taken the list. The module keeps the five newest names, from\n"
                          "whatever lists, until it is loaded again; it compares 15 characters.");
    command.add("name", g_filter.names, "Process names; the daemon sends the first five").required().type("NAME");
    add_seconds_option(command, "--timeout", g_filter.timeout, "Seconds to wait");
}

}  // namespace vestra_set
