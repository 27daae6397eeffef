// vestra-stat: asks the running daemon for its vitals.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/stat/output.h"
#include "tools/stat/vitals.h"
#include "tools/stat/watch.h"

namespace vestra_stat {
namespace {

constexpr double kShortestInterval = 0.1, kLongestInterval = 86400;
constexpr double kLongestTimeout = 3600;

constexpr const char *kFooter =
    "A VITAL is a number, a name, or the beginning of names (\"cpu\" is three); --list shows them. Without any: all.\n"
    "Average and variance are over the seconds in which the vital was above 0. \"-\" is no figure: no such second.\n\n"
    "exit codes:\n"
    "  0   answered; or an endless --watch was interrupted\n"
    "  1   the answer could not be written\n"
    "  4   no daemon is running, or its shared memory is not open to you\n"
    "  5   the daemon did not answer in time\n"
    "  6   the daemon left a vital unanswered\n"
    "  64  wrong options or arguments\n\n"
    "examples:\n"
    "  vestra-stat                          all vitals over the last minute\n"
    "  vestra-stat --window 0 cpu-total     the current value of one\n"
    "  vestra-stat --watch 2 --window 10 cpu memory-used\n"
    "  vestra-stat --json cpu | jq '.vitals[\"cpu-total\"].average'\n"
    "  vestra-set exec --name demo -- vestra-stat --watch     the daemon of a simulated set";

struct Typed {
    std::vector<std::string> words;
    int window = 60;
    std::string watch;
    long count = 0;
    double timeout = 5;
    bool json = false;
    bool list = false;
};

int complain(const std::string &text) {
    std::fprintf(stderr, "vestra-stat: %s\n", text.c_str());
    return kExitUsage;
}

// The whole text as a number.
std::optional<double> number(const std::string &text) {
    double value = 0;
    if (!CLI::detail::lexical_cast(text, value)) return std::nullopt;
    return value;
}

// All that the words stand for, in their order, each once; all vitals without words. False, with a message, for a word
// that is none.
bool choose(const std::vector<std::string> &words, std::vector<int> *types) {
    for (const std::string &word : words) {
        const std::vector<int> called = vitals_called(word);
        if (called.empty()) {
            complain("there is no vital \"" + word + "\"; --list shows all");
            return false;
        }
        for (const int type : called) {
            if (std::find(types->begin(), types->end(), type) == types->end()) types->push_back(type);
        }
    }
    for (int type = 0; words.empty() && type < kVestraVitals; ++type) types->push_back(type);
    return true;
}

int run(int argc, char **argv) {
    Typed typed;
    CLI::App app(
        "Asks the running flight recorder for its vitals: maximum, minimum, average and variance of the last\n"
        "seconds, or the current values.",
        "vestra-stat");
    app.footer(kFooter);
    app.set_version_flag("--version", "vestra-stat " VESTRA_VERSION);
    app.add_option("VITAL", typed.words, "Which vitals, in which order")->type_name("");
    app.add_option("-w,--window", typed.window, "Seconds to look back, up to 180; 0: the current values")
        ->check(CLI::Range(0, kVestraWindowMax))
        ->capture_default_str()
        ->type_name("SECONDS");
    CLI::Option *watching =
        app.add_option("-W,--watch", typed.watch, "Ask again every so many seconds (1), until interrupted")
            ->expected(0, 1)
            ->type_name("[SECONDS]");
    app.add_option("-n,--count", typed.count, "End --watch after so many questions")
        ->check(CLI::Range(1L, 1000000000L))
        ->needs(watching)
        ->type_name("N");
    app.add_flag("-j,--json", typed.json, "One line of JSON for each answer");
    app.add_option("-t,--timeout", typed.timeout, "Seconds to wait for an answer")
        ->check(CLI::Range(0.0, kLongestTimeout))
        ->capture_default_str()
        ->type_name("SECONDS");
    app.add_flag("-l,--list", typed.list, "Show what the vitals are, and ask nothing");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }
    if (typed.list) return print(list_of_vitals()) ? kExitOk : kExitFailed;

    Watch how;
    how.count = typed.count;
    if (!typed.watch.empty()) {
        const std::optional<double> seconds = number(typed.watch);
        // "--watch cpu": the word is a vital's already.
        if (!seconds) typed.words.insert(typed.words.begin(), typed.watch);
        how.seconds = seconds.value_or(how.seconds);
        if (!(how.seconds >= kShortestInterval && how.seconds <= kLongestInterval)) {
            return complain("--watch " + typed.watch + ": wanted 0.1 to 86400 seconds");
        }
    }
    Question question;
    question.window = typed.window;
    question.timeout_ms = static_cast<int>(std::lround(typed.timeout * 1000));
    question.json = typed.json;
    if (!choose(typed.words, &question.types)) return kExitUsage;

    const std::unique_ptr<vestra_api_client, void (*)(vestra_api_h)> client(vestra_api_open(), vestra_api_close);
    if (client == nullptr) {
        std::fputs("vestra-stat: out of memory\n", stderr);
        return kExitFailed;
    }
    return watching->count() > 0 ? watch(client.get(), question, how) : ask_once(client.get(), question);
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
