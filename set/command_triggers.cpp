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
#include "set/files.h"
#include "set/launcher.h"

namespace vestra_set {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr const char *kRobustKey = "system/vestra/robust";
constexpr const char *kDodKey = "system/DOD/test_monitor";
constexpr const char *kHistoryKey = "memory/SHM/trigger_db_write";
constexpr const char *kHistoryFile = "/opt/usr/home/owner/share/tvhistory.db";
constexpr const char *kListDirectory = "/tmp/vestra_processes";
constexpr const char *kListFile = "/tmp/vestra_processes/processes.txt";
constexpr size_t kFieldLimit = 255;  // characters that the daemon takes of a robustness request's path and name
constexpr double kPatience = 10;     // seconds, where none are given
constexpr Seconds kOffer{1};         // how long a list lies there before it is dropped anew

int complain(const std::string &text, int code = kExitFailed) {
    std::cerr << "vestra-set: " << text << std::endl;
    return code;
}

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

void add_timeout(CLI::App &app, double &timeout) {
    app.add_option("--timeout", timeout, "Seconds to wait")->check(CLI::NonNegativeNumber)->capture_default_str();
}

/* ------------------------------ robust, dod ------------------------------ */

int request_dump(const std::string &directory, const std::string &process, int pid) {
    for (const std::string &field : {directory, process}) {
        if (field.empty() || field.size() > kFieldLimit || field.find('|') != std::string::npos) {
            return complain("\"" + field + "\": wanted 1 to 255 characters, none of them a '|'", kExitUsage);
        }
    }
    struct stat info;
    if (stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        complain("note: " + directory + " is no directory in the set; the daemon waits 41 s for it");
    }
    const std::string value = directory + "|" + process + "|" + std::to_string(pid);
    return vconf_set_str(kRobustKey, value.c_str()) == 0
               ? kExitOk
               : complain(std::string("vconf key ") + kRobustKey + " was not set");
}

int set_dod(bool on) {
    return vconf_set_int(kDodKey, on ? 1 : 0) == 0 ? kExitOk
                                                   : complain(std::string("vconf key ") + kDodKey + " was not set");
}

/* ------------------------------ history ------------------------------ */

struct HistoryRow {
    int64_t time;  // nanoseconds
    int64_t pid;
    std::string name;
    int64_t rss, swap;  // KiB
    int64_t cpu;        // percent
};

struct SqliteClose {
    void operator()(sqlite3 *database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// The number of rows in `*total` and the `limit` newest of them, newest first, in `*rows`. False with `*error` set.
bool read_history(int limit, int64_t *total, std::vector<HistoryRow> *rows, std::string *error) {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(kHistoryFile, &opened, SQLITE_OPEN_READONLY, nullptr);
    const std::unique_ptr<sqlite3, SqliteClose> database(opened);
    const auto failed = [&] {
        *error = std::string(kHistoryFile) + ": " + sqlite3_errmsg(opened);
        return false;
    };
    if (result != SQLITE_OK) return failed();
    sqlite3_busy_timeout(opened, 2000);
    // The daemon writes its list from the newest sample to the oldest.
    static constexpr char kQuery[] =
        "SELECT TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED,COUNT(*) OVER () "
        "FROM PROCESS_INFO ORDER BY rowid LIMIT ?";
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(opened, kQuery, -1, &prepared, nullptr) != SQLITE_OK) return failed();
    const std::unique_ptr<sqlite3_stmt, SqliteClose> statement(prepared);
    sqlite3_bind_int(prepared, 1, limit);
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(prepared)) == SQLITE_ROW) {
        const auto number = [&](int column) { return int64_t{sqlite3_column_int64(prepared, column)}; };
        const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(prepared, 2));
        rows->push_back({number(0), number(1), name != nullptr ? name : "", number(3), number(4), number(5)});
        *total = number(6);
    }
    return step == SQLITE_DONE || failed();
}

void print_rows(int64_t total, const std::vector<HistoryRow> &rows) {
    std::cout << total << " rows in " << kHistoryFile;
    if (rows.empty()) {
        std::cout << std::endl;
        return;
    }
    std::cout << (rows.size() < static_cast<size_t>(total) ? "; the newest:\n" : "\n");
    std::cout << "      TIME s     PID  NAME              RSS KiB  SWAP KiB  CPU %\n" << std::fixed;
    for (const HistoryRow &row : rows) {
        std::string name = row.name;  // processes choose theirs
        std::replace_if(
            name.begin(), name.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
        std::cout << std::setw(12) << std::setprecision(3) << static_cast<double>(row.time) / 1e9 << std::setw(8)
                  << row.pid << "  " << std::left << std::setw(14) << name << std::right << std::setw(11) << row.rss
                  << std::setw(10) << row.swap << std::setw(7) << row.cpu << "\n";
    }
    std::cout << std::flush;
}

int show_history(int limit, bool as_json, double timeout) {
    if (vconf_set_int(kHistoryKey, 1) != 0) return complain(std::string("vconf key ") + kHistoryKey + " was not set");
    int value = 1;
    const auto filled = [&] { return vconf_get_int(kHistoryKey, &value) == 0 && value == 0; };
    if (!comes_true(filled, Seconds(timeout))) {
        return complain(std::string("the history was not filled: key ") + kHistoryKey + " still stands at " +
                        std::to_string(value) + " after " + seconds_text(timeout) +
                        ".\nA fill that failed leaves it so, and the daemon's log has the \"SQL error\". Without such "
                        "a line the daemon is busy with\nanother request, or does not run.");
    }
    int64_t total = 0;
    std::vector<HistoryRow> rows;
    std::string error;
    if (!read_history(limit, &total, &rows, &error)) return complain(error);
    if (!as_json) {
        print_rows(total, rows);
        return kExitOk;
    }
    using nlohmann::json;
    json list = json::array();
    for (const HistoryRow &row : rows) {
        list.push_back({{"time_ns", row.time},
                        {"pid", row.pid},
                        {"name", row.name},
                        {"rss_kib", row.rss},
                        {"swap_kib", row.swap},
                        {"cpu_percent", row.cpu}});
    }
    const json answer = {{"total", total}, {"rows", list}};
    std::cout << answer.dump(2, ' ', false, json::error_handler_t::replace) << std::endl;
    return kExitOk;
}

/* ------------------------------ filter ------------------------------ */

// Removes a file at the end of the scope.
struct Leftover {
    std::string path;
    ~Leftover() { unlink(path.c_str()); }
};

// The list is linked into its place: a whole file appears, with the event that the daemon waits for. One written in
// place may be read half done, one renamed is not noticed.
int drop_list(const std::vector<std::string> &names, double timeout) {
    std::string text;
    for (const std::string &name : names) {
        if (name.find('\n') != std::string::npos) return complain("a name has one line", kExitUsage);
        text += name + "\n";
    }
    const Leftover list{std::string("/tmp/.vestra-set-list.") + std::to_string(getpid())};
    if (!write_file(list.path, text)) return complain(list.path + ": " + std::strerror(errno));
    int problem = 0;
    const auto taken = [&] {
        // One that lies there was dropped before the daemon's watch stood, or renamed into place: nobody will take it.
        unlink(kListFile);
        problem = link(list.path.c_str(), kListFile) == 0 ? 0 : errno;
        return problem == 0 && comes_true([] { return access(kListFile, F_OK) != 0; }, kOffer);
    };
    if (comes_true(taken, Seconds(timeout))) return kExitOk;
    unlink(kListFile);
    return complain(problem == ENOENT
                        ? std::string("there is no ") + kListDirectory + ": no daemon runs in this set yet"
                        : std::string(kListFile) + " was not taken in " + seconds_text(timeout) +
                              (problem != 0 ? std::string(": ") + std::strerror(problem) : "; does the daemon run?"));
}

}  // namespace

Action setup_robust(CLI::App &app) {
    auto directory = std::make_shared<std::string>();
    auto process = std::make_shared<std::string>();
    auto pid = std::make_shared<int>();
    app.add_option("directory", *directory, "Directory inside the set that the dump goes to")->required();
    app.add_option("process", *process, "Name of the process that failed")->required();
    app.add_option("pid", *pid, "Its process id")->required()->check(CLI::Range(0, INT_MAX));
    return [=](const Rest &) { return request_dump(*directory, *process, *pid); };
}

Action setup_dod(CLI::App &app) {
    auto state = std::make_shared<std::string>();
    app.add_option("state", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    return [=](const Rest &) { return set_dod(*state == "on"); };
}

Action setup_history(CLI::App &app) {
    auto rows = std::make_shared<int>(20);
    auto as_json = std::make_shared<bool>(false);
    auto timeout = std::make_shared<double>(kPatience);
    app.add_option("--rows", *rows, "How many to show")->check(CLI::Range(1, INT_MAX))->capture_default_str();
    app.add_flag("--json", *as_json, "As JSON");
    add_timeout(app, *timeout);
    return [=](const Rest &) { return show_history(*rows, *as_json, *timeout); };
}

Action setup_filter(CLI::App &app) {
    auto names = std::make_shared<std::vector<std::string>>();
    auto timeout = std::make_shared<double>(kPatience);
    app.add_option("name", *names, "Process names; the daemon sends the first five")->required()->type_name("NAME");
    add_timeout(app, *timeout);
    return [=](const Rest &) { return drop_list(*names, *timeout); };
}

}  // namespace vestra_set
