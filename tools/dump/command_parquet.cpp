// parquet: dumps into a lake.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "tools/dump/commands.h"
#include "tools/dump/lake.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::vector<std::string> paths;
    std::string lake, prefix;
    bool replace = false;
    TimeOptions time;
};

struct Tally {
    size_t converted = 0, skipped = 0;
    bool damaged = false;
    std::vector<std::string> bad;  // paths
};

// The arguments are invalid, which was said.
struct UsageError {};

constexpr TableSelection kLakeTables = {true, true, false, true};

// What convert() returns, if the lake is to stay as it is.
std::optional<bool> settle(const Options &options, const std::string &path, const Existing &existing, Tally *tally) {
    if (options.replace) return std::nullopt;
    if (existing.presence == Presence::kSame) {
        ++tally->skipped;
        tally->damaged = tally->damaged || !existing.clean;
        return true;
    }
    if (existing.presence != Presence::kOther) return std::nullopt;
    complain(printable(path) + ": the lake has another dump of this name; --prefix keeps the dumps of sets apart, " +
             "--replace replaces it");
    return false;
}

// False if the dump cannot be read or is not to be converted, which was said.
bool convert(const Options &options, const std::string &path, Tally *tally) {
    Dump dump;
    int code = kExitClean;
    if (!open_dump(path, options.time, &dump, &code)) {
        if (code == kExitUsage) throw UsageError();
        return false;
    }
    dump.file->show_progress(false);
    const std::string name = options.prefix + fs::path(path).filename().string();
    const LakeEntry entry = make_entry(name, dump.time, dump.survey, *dump.file, VESTRA_VERSION);
    dump.file->show_progress(true);
    if (const auto settled = settle(options, path, find_existing(options.lake, entry), tally)) return *settled;
    LakeWriter writer(options.lake, entry, dump.time);
    RowMaker maker(kLakeTables, writer);
    const Overview overview = read(&dump, 0, maker);
    code = report_result(overview, true);
    if (code == kExitUnreadable) return false;
    writer.complete(overview);
    const LakeLock lock(options.lake);
    const Existing existing = find_existing(options.lake, entry);  // another converter may have been faster
    if (const auto settled = settle(options, path, existing, tally)) return *settled;
    writer.finish(existing.misplaced);
    ++tally->converted;
    tally->damaged = tally->damaged || code == kExitDamaged;
    return true;
}

// Which dump comes next, if somebody looks. The next line that is printed overwrites it.
void show_progress(size_t done, size_t all) {
    if (all == 1 || isatty(STDERR_FILENO) == 0) return;
    if (done < all) {
        std::fprintf(stderr, "\r\033[K%zu of %zu\r", done, all);
    } else {
        std::fprintf(stderr, "\r\033[K");
    }
    std::fflush(stderr);
}

void print_tally(const Tally &tally, size_t all) {
    if (all == 1 || (tally.bad.empty() && isatty(STDERR_FILENO) == 0)) return;
    complain(std::to_string(tally.converted) + " converted, " + std::to_string(tally.skipped) +
             " in the lake already, " + std::to_string(tally.bad.size()) + " left out" +
             (tally.bad.empty() ? "" : ":"));
    for (const std::string &path : tally.bad) complain("  " + printable(path));
}

int parquet(const Options &options) {
    const std::vector<std::string> &paths = options.paths;
    if (std::find(paths.begin(), paths.end(), "-") != paths.end()) {
        complain("standard input has no name, which a dump in a lake needs");
        return kExitUsage;
    }
    std::error_code failed;
    fs::create_directories(options.lake, failed);
    if (failed || !fs::is_directory(options.lake, failed)) {
        if (!failed) failed = std::make_error_code(std::errc::not_a_directory);
        complain(printable(options.lake) + ": " + failed.message());
        return kExitUnreadable;
    }
    Tally tally;
    try {
        for (size_t i = 0; i < paths.size(); ++i) {
            show_progress(i, paths.size());
            if (!convert(options, paths[i], &tally)) tally.bad.push_back(paths[i]);
        }
    } catch (const LakeError &problem) {
        show_progress(1, 1);
        complain(problem.what());
        return kExitUnreadable;
    } catch (const UsageError & /*said*/) {
        show_progress(1, 1);
        return kExitUsage;
    }
    show_progress(paths.size(), paths.size());
    print_tally(tally, paths.size());
    if (tally.bad.size() == paths.size()) return kExitUnreadable;
    return tally.damaged || !tally.bad.empty() ? kExitDamaged : kExitClean;
}

}  // namespace

Action setup_parquet(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->paths, "The dumps").required().type("FILE").suggest_files();
    app.add("-o,--output", options->lake, "The directory, created if it does not exist")
        .required()
        .type("LAKE")
        .suggest_files();
    add_epoch_option(app, options->time);
    app.add("--prefix", options->prefix, "Put this before the dumps' names, such as the name of the set").type("TEXT");
    app.add_flag("--replace", options->replace, "Replace other dumps of the same names, and convert everything again");
    return [options] { return parquet(*options); };
}

}  // namespace vestra_dump
