// sqlite: dumps into a database.

#include <algorithm>
#include <filesystem>
#include <fstream>

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
    Dump dump;
    int code = kExitClean;
    if (!open_dump(path, time_options, &dump, &code)) return code;
    database->begin_dump(path == "-" ? std::string() : full_name(path));
    RowMaker maker(kAllTables, *database);
    const Overview overview = read(&dump, 0, maker);
    code = report_result(overview, true);
    if (code == kExitUnreadable) {
        database->drop_dump();
    } else {
        database->end_dump(overview);
    }
    return code;
}

// Whether the file can become or is a database. SQLite would take an empty name for a file that nobody sees.
bool can_be_database(const std::string &path) {
    constexpr std::string_view kHeader = "SQLite format 3";
    std::error_code failed;
    if (path.empty()) return false;
    if (!std::filesystem::is_regular_file(path, failed)) return true;
    std::string begin(kHeader.size(), '\0');
    std::ifstream(path, std::ios::binary).read(begin.data(), static_cast<std::streamsize>(begin.size()));
    return begin == kHeader;
}

int sqlite(const Options &options) {
    if (!can_be_database(options.database)) {
        complain("'" + printable(options.database) +
                 "' is not a database: the first file is the one to create or to add to, the dumps follow");
        return kExitUsage;
    }
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
    app.add("database", options->database, "The SQLite file, created if it does not exist")
        .required()
        .type("OUT.db")
        .suggest_files();
    app.add("file", options->paths, "The dumps; - is standard input").required().type("FILE").suggest_files();
    add_time_options(app, options->time);
    return [options] { return sqlite(*options); };
}

}  // namespace vestra_dump
