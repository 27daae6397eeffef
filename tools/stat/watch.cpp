#include "tools/stat/watch.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/dlog.h"
#include "tools/stat/output.h"

namespace vestra_stat {
namespace {

using Clock = std::chrono::steady_clock;

// Asks the daemon. Sets *answer, or *problem to a text for the user. Returns a VESTRA_API_ result.
int ask(vestra_api_h client, const Question &question, Answer *answer, std::string *problem) {
    answer->window = question.window;
    answer->vitals.clear();
    for (const int type : question.types) {
        vestra_api_data request = {};
        request.packet_type = type;
        request.window = question.window;
        answer->vitals.push_back(request);
    }
    const int result =
        vestra_api_ask(client, answer->vitals.data(), static_cast<int>(answer->vitals.size()), question.timeout_ms);
    answer->time = static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count()) /
                   1000;
    *problem = vestra_api_result_text(result);
    if (result == VESTRA_API_TIMEOUT) *problem += ", " + std::to_string(question.timeout_ms) + " ms";
    if (result == VESTRA_API_REFUSED) *problem = "the daemon left a vital unanswered";
    return result;
}

int exit_code(int result) {
    switch (result) {
        case VESTRA_API_OK:
            return kExitOk;
        case VESTRA_API_NO_DAEMON:
            return kExitNoDaemon;
        case VESTRA_API_TIMEOUT:
            return kExitTimeout;
        case VESTRA_API_REFUSED:
            return kExitRefused;
        default:
            return kExitFailed;
    }
}

void say(const std::string &text) {
    std::fprintf(stderr, "vestra-stat: %s\n", text.c_str());
}

int print_failed() {
    say(std::string("cannot write: ") + std::strerror(errno));
    return kExitFailed;
}

std::string as_text(const Question &question, const Answer &answer) {
    return question.json ? as_json(answer) : as_table(answer);
}

// Overwrites what the terminal showed before, without flicker.
std::string overwriting(const std::string &text) {
    std::string screen = "\x1b[H";
    for (const char byte : text) screen += byte == '\n' ? std::string("\x1b[K\n") : std::string(1, byte);
    return screen + "\x1b[J";
}

volatile sig_atomic_t on_terminal;

extern "C" void leave(int) {
    // After the terminal's own "^C". Only calls that a signal handler may make.
    if (on_terminal != 0 && write(STDOUT_FILENO, "\n", 1) < 0) _exit(kExitFailed);
    _exit(kExitOk);
}

}  // namespace

int ask_once(vestra_api_h client, const Question &question) {
    Answer answer;
    std::string problem;
    const int result = ask(client, question, &answer, &problem);
    if (result == VESTRA_API_OK) return print(as_text(question, answer)) ? kExitOk : print_failed();
    say(problem);
    if (result == VESTRA_API_NO_DAEMON && std::getenv("VESTRA_SET_INSIDE") == nullptr) {
        std::fputs("  To ask the daemon of a simulated set: vestra-set exec --name NAME -- vestra-stat ...\n", stderr);
    }
    return exit_code(result);
}

int watch(vestra_api_h client, const Question &question, const Watch &how) {
    const char *term = std::getenv("TERM");
    const bool redraw =
        !question.json && isatty(STDOUT_FILENO) == 1 && term != nullptr && std::string_view(term) != "dumb";
    on_terminal = isatty(STDOUT_FILENO);
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, leave);
    if (redraw && !print("\x1b[2J")) return print_failed();

    const auto interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(how.seconds));
    auto next = Clock::now();
    int before = VESTRA_API_OK;
    for (long asked = 1;; ++asked) {
        Answer answer;
        std::string problem;
        const int result = ask(client, question, &answer, &problem);
        const bool changed = result != before;
        before = result;
        if (result == VESTRA_API_OK) {
            if (changed && !redraw) say("the daemon answers again");
            const std::string text = as_text(question, answer);
            const std::string gap = asked > 1 && !question.json ? "\n" : "";
            if (!print(redraw ? overwriting(text) : gap + text)) return print_failed();
        } else if (redraw) {
            if (!print(overwriting("vestra-stat: " + problem + "; still asking\n"))) return print_failed();
        } else if (changed) {
            say(problem + "; still asking");
        }
        // The library has logged the reason by now and need not repeat it with every question.
        if (result != VESTRA_API_OK) dlog_set_threshold(DLOG_ERROR);
        if (asked == how.count) return exit_code(result);
        // After a question that took long, the next ones are not asked early.
        next = std::max(next + interval, Clock::now());
        std::this_thread::sleep_until(next);
    }
}

}  // namespace vestra_stat
