// vestra-stat: queries vitals from the running daemon.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "tools/stat/output.h"
#include "tools/stat/vitals.h"
#include "tools/stat/watch.h"

namespace vestra_stat {
namespace {

constexpr double kShortestInterval = 0.1, kLongestInterval = 86400;
constexpr double kLongestTimeout = 3600;

constexpr const char *kFooter =
    "A VITAL is a number, a name, or the beginning of names (\"cpu\" selects three); see --list. The default is all.\n"
    "Average and variance cover the seconds in which the vital was above 0. \"-\" means that there are none.\n\n"
    "exit codes:\n"
    "  0   answered, or --watch was interrupted\n"
    "  1   the answer could not be written\n"
    "  4   no daemon is running, or you may not open its shared memory\n"
    "  5   the daemon did not answer in time\n"
    "  6   the daemon left a vital unanswered\n"
    "  64  invalid options or arguments\n\n"
    "examples:\n"
    "  vestra-stat                          all vitals over the last minute\n"
    "  vestra-stat --window 0 cpu-total     the current value of one\n"
    "  vestra-stat --watch 2 --window 10 cpu memory-used\n"
    "  vestra-stat --json cpu | jq '.vitals[\"cpu-total\"].average'\n"
    "  vestra-stat --history --csv cpu      the last 180 s, a line for each second\n"
    "  vestra-stat --openmetrics > vestra.prom.new && mv vestra.prom.new "
    "/var/lib/prometheus/node-exporter/vestra.prom\n"
    "  vestra-set exec --name demo -- vestra-stat --watch     the daemon of a simulated set";

struct Options {
    std::vector<std::string> words;
    int window = 60;
    std::string watch;
    long count = 0;
    double timeout = 5;
    bool json = false, csv = false;
    bool history = false;
    bool openmetrics = false;
    bool list = false;
};

int complain(const std::string &text) {
    std::fprintf(stderr, "vestra-stat: %s\n", text.c_str());
    return kExitUsage;
}

// The whole text as a number.
std::optional<double> number(const std::string &text) {
    double value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// The vitals that the words select, in that order, each once; without words all. An unknown word gives false and a
// message.
bool choose(const std::vector<std::string> &words, std::vector<int> *types) {
    for (const std::string &word : words) {
        const std::vector<int> selected = vitals_selected(word);
        if (selected.empty()) {
            complain("unknown vital \"" + word + "\"; see --list");
            return false;
        }
        for (const int type : selected) {
            if (std::find(types->begin(), types->end(), type) == types->end()) types->push_back(type);
        }
    }
    for (int type = 0; words.empty() && type < VESTRA_API_VITALS; ++type) types->push_back(type);
    return true;
}

int run(int argc, char **argv) {
    Options options;
    cli::Program program(
        "Queries the running flight recorder for vitals: maximum, minimum, average and variance of the last\n"
        "seconds, or the current values.",
        "vestra-stat", VESTRA_VERSION);
    program.footer(kFooter);
    program.add("VITAL", options.words, "The vitals to show, in this order").type("").suggest([] {
        std::vector<std::string> names;
        for (const Vital &vital : kVitals) names.emplace_back(vital.name);
        return names;
    });
    const cli::Option window =
        program.add("-w,--window", options.window, "Seconds to look back, up to 180; 0: the current values")
            .range(0, VESTRA_API_WINDOW_MAX)
            .show_default()
            .type("SECONDS");
    const cli::Option watching =
        program.add("-W,--watch", options.watch, "Ask again every SECONDS (default: 1) until interrupted")
            .values(0, 1)
            .type("[SECONDS]");
    program.add("-n,--count", options.count, "End --watch after N questions")
        .range(1, 1000000000)
        .needs(watching)
        .type("N");
    const cli::Option history = program.add_flag("--history", options.history, "The last 180 s, second by second")
                                    .excludes(window)
                                    .excludes(watching);
    const cli::Option json = program.add_flag("-j,--json", options.json, "One line of JSON for each answer");
    program.add_flag("--csv", options.csv, "The history as CSV").needs(history).excludes(json);
    program
        .add_flag("--openmetrics", options.openmetrics, "The current values for Prometheus, in the OpenMetrics format")
        .excludes(window)
        .excludes(watching)
        .excludes(history)
        .excludes(json);
    program.add("-t,--timeout", options.timeout, "Seconds to wait for an answer")
        .range(0.0, kLongestTimeout)
        .show_default()
        .type("SECONDS");
    program.add_flag("-l,--list", options.list, "List the vitals without asking the daemon");
    if (const std::optional<int> code = program.parse(argc, argv)) return *code == 0 ? kExitOk : kExitUsage;
    if (options.list) return print(list_of_vitals()) ? kExitOk : kExitFailed;

    Watch how;
    how.count = options.count;
    if (!options.watch.empty()) {
        const std::optional<double> seconds = number(options.watch);
        // "--watch cpu": the word is a vital.
        if (!seconds) options.words.insert(options.words.begin(), options.watch);
        how.seconds = seconds.value_or(how.seconds);
        if (!(how.seconds >= kShortestInterval && how.seconds <= kLongestInterval)) {
            return complain("--watch " + options.watch + ": must be 0.1 to 86400 seconds");
        }
    }
    Question question;
    question.window = options.window;
    question.timeout_ms = static_cast<int>(std::lround(options.timeout * 1000));
    if (options.json) question.format = Format::kJson;
    if (options.csv) question.format = Format::kCsv;
    if (options.openmetrics) {
        question.format = Format::kOpenMetrics;
        question.window = 0;
    }
    if (!choose(options.words, &question.types)) return kExitUsage;

    const std::unique_ptr<vestra_api_client, void (*)(vestra_api_h)> client(vestra_api_open(), vestra_api_close);
    if (client == nullptr) {
        std::fputs("vestra-stat: out of memory\n", stderr);
        return kExitFailed;
    }
    if (options.history) return show_history(client.get(), question);
    return watching.given() ? watch(client.get(), question, how) : ask_once(client.get(), question);
}

}  // namespace
}  // namespace vestra_stat

int main(int argc, char **argv) {
    try {
        return vestra_stat::run(argc, argv);
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "vestra-stat: %s\n", problem.what());
        return vestra_stat::kExitFailed;
    }
}
