// report: a dump as an HTML page, or all dumps of a directory as pages with an index.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>

#include "tools/dump/commands.h"
#include "tools/dump/explain.h"
#include "tools/dump/report.h"
#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

namespace fs = std::filesystem;

struct Options : FileOptions {
    unsigned top = 10;
};

// What the second pass is for.
struct PageReader : History {
    using History::History;
    VitalSeries vitals;

    void on_second(const SecondVitals &second) override {
        History::on_second(second);
        vitals.on_second(second);
    }
};

// `row`: set to the dump's line in the index.
int write_page(Dump *dump, Output &out, size_t top, IndexRow *row) {
    const TimeSpan span = dump->survey.timeline.span().value_or(TimeSpan{});
    auto seen = std::make_unique<PageReader>(std::min(dump->time.range.to, span.newest_ns));
    const Overview overview = read(dump, std::max(top, ProcessSeries::kKnown), *seen);
    const std::vector<Finding> findings = explain(*seen, dump->path, span.first_ns);
    const VitalSeries vitals = seen->vitals;
    seen.reset();  // a history is large
    ProcessSeries processes(overview.summary, findings, vitals.width());
    read(dump, 0, processes);
    const ReportParts parts = {vitals, processes, overview, findings, top};
    write_report(parts, out);
    *row = index_row(row->page, row->name, &parts);
    return report_result(overview, true);
}

// A file name for a dump's page: harmless anywhere, and no other dump's.
std::string page_name(const std::string &dump) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string page;
    for (const char c : dump) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.') {
            page += c;
        } else {
            page.append(1, '=').append(1, kDigits[static_cast<uint8_t>(c) >> 4]).append(1, kDigits[c & 15]);
        }
    }
    return page + ".report.html";
}

// The files in a directory and below, in the order of their names, without those in `out`. Links to directories are not
// followed.
std::vector<fs::path> files_below(const fs::path &directory, const fs::path &out) {
    std::vector<fs::path> files;
    std::error_code failed, problem;
    fs::recursive_directory_iterator at(directory, fs::directory_options::skip_permission_denied, failed);
    for (; !failed && at != fs::end(at); at.increment(failed)) {
        if (at->is_directory(problem) && fs::equivalent(at->path(), out, problem)) at.disable_recursion_pending();
        if (at->is_regular_file(problem)) files.push_back(at->path());
    }
    if (failed) complain(printable(directory.string()) + ": " + failed.message());
    std::sort(files.begin(), files.end());
    return files;
}

int report_directory(const Options &options) {
    const fs::path out = options.output;
    std::error_code failed;
    if (options.output == "-") {
        complain("the dumps of a directory need a directory for their pages: -o OUT/");
        return kExitUsage;
    }
    fs::create_directories(out, failed);
    if (failed) {
        complain(printable(options.output) + ": " + failed.message());
        return kExitUnreadable;
    }
    // A link in the place of a page may lead out of the directory.
    const auto file_for = [&out, &failed](const std::string &page) {
        const fs::path path = out / page;
        if (fs::is_symlink(path, failed)) fs::remove(path, failed);
        return path.string();
    };
    int code = kExitClean;
    std::vector<IndexRow> rows;
    for (const fs::path &file : files_below(options.path, out)) {
        const std::string name = file.lexically_relative(options.path).string();
        IndexRow row = {page_name(name), name, {}};
        FileOptions one = options;
        one.path = file.string();
        one.output = file_for(row.page);
        const int result =
            with_files(one, [&](Dump *dump, Output &to) { return write_page(dump, to, options.top, &row); });
        rows.push_back(result <= kExitDamaged ? row : index_row("", name, nullptr));
        code = std::max(code, result);
    }
    std::string error;
    const std::string path = file_for("index.html");
    const auto index = Output::open(path, &error);
    if (index != nullptr) write_index(options.path, rows, *index);
    if (index != nullptr && index->close(&error)) return code;
    complain(printable(path) + ": " + error);
    return std::max<int>(code, kExitUnreadable);
}

int report(const Options &options) {
    std::error_code failed;
    if (options.path != "-" && fs::is_directory(options.path, failed)) return report_directory(options);
    return with_files(options, [&options](Dump *dump, Output &out) {
        IndexRow unused;
        return write_page(dump, out, options.top, &unused);
    });
}

}  // namespace

Action setup_report(cli::Command app) {
    auto options = std::make_shared<Options>();
    add_file_options(app, options.get());
    add_top_option(app, options->top, 1, 1000);
    return [options] { return report(*options); };
}

}  // namespace vestra_dump
