// perfetto: a dump as a trace for a trace viewer.

#include <unistd.h>

#include <algorithm>

#include "tools/dump/commands.h"
#include "tools/dump/explain.h"
#include "tools/dump/perfetto_trace.h"
#include "tools/dump/trace_events.h"

namespace vestra_dump {
namespace {

constexpr size_t kTop = 10;  // processes in each list of the summary

struct Options : FileOptions {
    std::string machine;
    bool json = false;
};

// A trace, and the history that findings come from.
class Reader : public DumpSink {
  public:
    Reader(PerfettoTrace &trace, History &history) : trace_(trace), history_(history) {}

    void on_frame(const Frame &frame, const FrameMessages &messages) override {
        trace_.on_frame(frame, messages);
        history_.on_frame(frame, messages);
    }
    void on_process(const SwitchSample &sample, const Process &process) override {
        trace_.on_process(sample, process);
        history_.on_process(sample, process);
    }
    void on_second(const SecondVitals &second) override {
        trace_.on_second(second);
        history_.on_second(second);
    }
    void on_damage(const DamagedSpan &span) override { trace_.on_damage(span); }

  private:
    PerfettoTrace &trace_;
    History &history_;
};

int write_native(Dump *dump, const std::string &machine, Output &out) {
    const TimeSpan span = dump->survey.timeline.span().value_or(TimeSpan{});
    PerfettoTrace trace(identify(machine, dump->path, dump->survey), dump->time, span.first_ns, out);
    History history(std::min(dump->time.range.to, span.newest_ns));
    Reader reader(trace, history);
    const Overview overview = read(dump, 0, reader);
    trace.end(overview, explain(history, dump->path, span.first_ns));
    return report_result(overview, true);
}

int write_json(Dump *dump, Output &out) {
    TraceEvents events(dump->time.range, out);
    const Overview overview = read(dump, kTop, events);
    events.end(overview);
    return report_result(overview, true);
}

int perfetto(const Options &options) {
    if (!options.json && options.output == "-" && isatty(STDOUT_FILENO) == 1) {
        complain("a trace is no text for a terminal: -o FILE, or --json");
        return kExitUsage;
    }
    return with_files(options, [&options](Dump *dump, Output &out) {
        return options.json ? write_json(dump, out) : write_native(dump, options.machine, out);
    });
}

}  // namespace

Action setup_perfetto(cli::Command app) {
    auto options = std::make_shared<Options>();
    add_file_options(app, options.get());
    const cli::Option json =
        app.add_flag("--json", options->json, "Trace events in JSON, which other viewers read too");
    app.add(
           "--machine", options->machine,
           "Name of the set: dumps with the same name are of one machine when traces are merged. Without it, each dump "
           "is a machine of its own")
        .type("NAME")
        .excludes(json);
    return [options] { return perfetto(*options); };
}

}  // namespace vestra_dump
