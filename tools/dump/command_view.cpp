// view: a dump second by second, in a terminal.

#include <fcntl.h>
#include <unistd.h>

#include <numeric>

#include "tools/dump/commands.h"
#include "tools/dump/text.h"
#include "tools/view/dump_recording.h"
#include "tools/view/terminal.h"

namespace vestra_dump {
namespace {

struct Options {
    std::string path, at;
    TimeOptions time;
};

struct Closer {
    void operator()(FILE *file) const { std::fclose(file); }
};

int view(const Options &options) {
    // Where the dump comes from standard input, keys come from the terminal itself. That must not become standard output,
    // or the dump, where one of them is closed.
    std::unique_ptr<FILE, Closer> terminal_file;
    FILE *keyboard = stdin;
    if (options.path == "-") {
        const bool both_open = fcntl(STDIN_FILENO, F_GETFD) >= 0 && isatty(STDOUT_FILENO) == 1;
        if (both_open) terminal_file.reset(std::fopen("/dev/tty", "re"));
        keyboard = terminal_file.get();
    }
    if (!vestra_view::can_show(keyboard)) {
        complain("view needs a terminal: standard output and the keyboard; for text, use info, explain or csv");
        return kExitUsage;
    }
    Dump dump;
    int code = kExitClean;
    if (!open_dump(options.path, options.time, &dump, &code)) return code;
    vestra_view::DumpRecording recording(*dump.file, dump.survey, dump.time, options.path);
    dump.file->show_progress(false);
    if (recording.size() == 0) {
        complain(printable(options.path) + ": no second with a sample");
        return report_result({options.path, dump.time, recording.summary()}, true) == kExitClean ? kExitUnreadable
                                                                                                 : kExitDamaged;
    }
    // Seconds would be shown as if all their figures were 0.
    if (!recording.problem().empty()) {
        complain(recording.problem() + "; TMPDIR says where it is made");
        return kExitUnreadable;
    }
    std::vector<size_t> vitals(vestra_view::kVitalCount);
    std::iota(vitals.begin(), vitals.end(), size_t{0});
    vestra_view::View screen(recording, std::move(vitals));
    std::string error;
    if (!options.at.empty() && !screen.go_to_time(options.at, &error)) {
        complain(error);
        return kExitUsage;
    }
    {
        const auto terminal = vestra_view::Terminal::open(keyboard, &error);
        if (terminal == nullptr) {
            complain(error);
            return kExitUsage;
        }
        vestra_view::run(terminal.get(), &screen);
    }
    return report_result({options.path, dump.time, recording.summary()}, true);
}

}  // namespace

Action setup_view(cli::Command app) {
    auto options = std::make_shared<Options>();
    app.add("file", options->path, "The dump; - is standard input").required().type("FILE").suggest_files();
    app.add("--at", options->at, "Begin at this moment instead of the end; times as in other commands").type("TIME");
    add_epoch_option(app, options->time);
    return [options] { return view(*options); };
}

}  // namespace vestra_dump
