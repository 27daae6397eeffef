// sqlite: dumps into a database.

#include <algorithm>
#include <filesystem>

#include "tools/dump/commands.h"
#include "tools/dump/database.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Typed {
    std::string database;
    std::vector<std::string> paths;
    TimeOptions time;
};

constexpr Wanted kAllTables = {true, true, true, true};

// The name that a file is known by, from wherever it is loaded.
std::string full_name(const std::string &path) {
    std::error_code failed;
    const auto full = std::filesystem::canonical(path, failed);
    return failed ? path : full.string();
}

int load(Database *database, const std::string &path, const TimeOptions &options) {
    DumpTime time;
    int code = kExitClean;
    const auto file = open_dump(path, options, &time, &code);
    if (file == nullptr) return code;
    database->begin_dump(path == "-" ? std::string() : full_name(path));
    RowMaker maker(path, time, 1, kAllTables, *database);
    const DumpTotals totals = read_dump(*file, maker);
    code = judge(path, totals, true);
    if (code == kExitUnreadable) {
        database->drop_dump();
    } else {
        database->end_dump(maker.summary());
    }
    return code;
}

int sqlite(const Typed &typed) {
    int code = kExitClean;
    try {
        Database database(typed.database);
        for (const std::string &path : typed.paths) code = std::max(code, load(&database, path, typed.time));
        database.finish();
    } catch (const DatabaseError &problem) {
        complain(printable(typed.database) + ": " + problem.what());
        return kExitUnreadable;
    }
    return code;
}

}  // namespace

Action setup_sqlite(cli::Command app) {
    auto typed = std::make_shared<Typed>();
    app.add("database", typed->database, "The SQLite file, made where there is none").required().type("OUT.db");
    app.add("file", typed->paths, "The dumps; - is standard input").required().type("FILE");
    add_time_options(app, typed->time);
    return [typed] { return sqlite(*typed); };
}

}  // namespace vestra_dump
