// sqlite: dumps into a database.

#include <algorithm>
#include <filesystem>

#include "tools/dump/commands.h"
#include "tools/dump/database.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

struct Options {
    std::string database;
    std::vector<std::string> paths;
    TimeOptions time;
};

constexpr TableSelection kAllTables = {true, true, true, true};

// A name for a file that does not depend on the working directory.
std::string full_name(const std::string &path) {
    std::error_code failed;
    const auto full = std::filesystem::canonical(path, failed);
    return failed ? path : full.string();
}

int load(Database *database, const std::string &path, const TimeOptions &time_options) {
    DumpTime time;
    int code = kExitClean;
    const auto file = open_dump(path, time_options, &time, &code);
    if (file == nullptr) return code;
    database->begin_dump(path == "-" ? std::string() : full_name(path));
    RowMaker maker(path, time, 1, kAllTables, *database);
    const DumpTotals totals = read_dump(*file, maker);
    code = report_result(path, totals, true);
    if (code == kExitUnreadable) {
        database->drop_dump();
    } else {
        database->end_dump(maker.summary());
    }
    return code;
}

int sqlite(const Options &options) {
    int code = kExitClean;
    try {
        Database database(options.database);
        for (const std::string &path : options.paths) code = std::max(code, load(&database, path, options.time));
        database.finish();
    } catch (const DatabaseError &problem) {
        complain(printable(options.database) + ": " + problem.what());
        return kExitUnreadable;
    }
    return code;
}

}  // namespace

Action setup_sqlite(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("database", options->database, "The SQLite file, created if it does not exist").required().type("OUT.db");
    app.add("file", options->paths, "The dumps; - is standard input").required().type("FILE");
    add_time_options(app, options->time);
    return [options] { return sqlite(*options); };
}

}  // namespace vestra_dump
