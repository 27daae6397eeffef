#include "tools/stat/watch.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "tools/stat/output.h"
#include "tools/view/live_recording.h"
#include "tools/view/terminal.h"

namespace vestra_stat {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMovedAsTheyWereAsked = -100;  // a result that the library does not have
constexpr int kHistoryTries = 20;

std::string problem_text(int result, const Question &question) {
    if (result == VESTRA_API_REFUSED) return "the daemon left a vital unanswered";
    if (result == kMovedAsTheyWereAsked) return "the seconds pass faster than the daemon answers";
    std::string text = vestra_api_result_text(result);
    if (result == VESTRA_API_TIMEOUT) text += ", " + std::to_string(question.timeout_ms) + " ms";
    return text;
}

vestra_api_data request_for(int type, int window) {
    vestra_api_data request = {};
    request.packet_type = type;
    request.window = window;
    return request;
}

double now() {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(since_1970).count()) / 1000;
}

int ask(vestra_api_h client, std::vector<vestra_api_data> *requests, const Question &question) {
    return vestra_api_ask(client, requests->data(), static_cast<int>(requests->size()), question.timeout_ms);
}

// Asks the daemon. Sets *answer. Returns a VESTRA_API_ result.
int ask(vestra_api_h client, const Question &question, Answer *answer) {
    answer->window = question.window;
    answer->vitals.clear();
    for (const int type : question.types) answer->vitals.push_back(request_for(type, question.window));
    const int result = ask(client, &answer->vitals, question);
    answer->time = now();
    return result;
}

// What the daemon computes only when a second ends, so it is the same as long as the newest second is.
int ask_for_mark(vestra_api_h client, const Question &question, std::vector<vestra_api_data> *mark) {
    mark->clear();
    for (const int type : {2, 3, 4, 9, 10}) {
        for (const int window : {0, 1, VESTRA_API_WINDOW_MAX}) mark->push_back(request_for(type, window));
    }
    return ask(client, mark, question);
}

// Each question is for seventeen windows of a vital, the last of which is the first of the next question. So both
// windows of a pair are always from one question.
int ask_for_pairs(vestra_api_h client, const Question &question, WindowPairs *pairs) {
    for (int type = 0; type < VESTRA_API_VITALS; ++type) {
        for (int first = 0; first < VESTRA_API_WINDOW_MAX; first += VESTRA_API_VITALS - 1) {
            std::vector<vestra_api_data> windows;
            for (int window = first; window <= std::min(first + VESTRA_API_VITALS - 1, VESTRA_API_WINDOW_MAX);
                 ++window) {
                windows.push_back(request_for(type, window));
            }
            if (const int result = ask(client, &windows, question); result != VESTRA_API_OK) return result;
            for (size_t i = 1; i < windows.size(); ++i) {
                (*pairs)[static_cast<size_t>(type)][static_cast<size_t>(first) + i - 1] = {windows[i - 1], windows[i]};
            }
        }
    }
    return VESTRA_API_OK;
}

// Asks for all windows, again if the newest second changed meanwhile.
int ask_for_history(vestra_api_h client, const Question &question, Past *past) {
    const auto pairs = std::make_unique<WindowPairs>();
    const auto same = [](const std::vector<vestra_api_data> &a, const std::vector<vestra_api_data> &b) {
        return std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0;
    };
    std::vector<vestra_api_data> before, after;
    int result = ask_for_mark(client, question, &before);
    for (int tries = 0; tries < kHistoryTries && result == VESTRA_API_OK; ++tries) {
        result = ask_for_pairs(client, question, pairs.get());
        if (result == VESTRA_API_OK) result = ask_for_mark(client, question, &after);
        if (result != VESTRA_API_OK) break;
        if (same(before, after)) {
            *past = {now(), question.types, recover(*pairs)};
            return VESTRA_API_OK;
        }
        before.swap(after);
    }
    return result == VESTRA_API_OK ? kMovedAsTheyWereAsked : result;
}

int exit_code(int result) {
    switch (result) {
        case VESTRA_API_OK:
            return kExitOk;
        case VESTRA_API_NO_DAEMON:
            return kExitNoDaemon;
        case VESTRA_API_TIMEOUT:
        case kMovedAsTheyWereAsked:
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
    switch (question.format) {
        case Format::kJson:
            return as_json(answer);
        case Format::kOpenMetrics:
            return as_openmetrics(answer);
        default:
            return as_table(answer);
    }
}

// Brings what the screen shows up to date: the window's figures, and once a second the past.
class Asker {
  public:
    Asker(vestra_api_h client, const Question &question) : client_(client), question_(question) {}

    void operator()(vestra_view::Snapshot *snapshot) {
        Answer answer;
        Past past;
        int result = ask(client_, question_, &answer);
        const auto asked = Clock::now();
        const bool ask_past = snapshot->seconds.empty() || asked - asked_ >= std::chrono::milliseconds(900);
        if (result == VESTRA_API_OK && ask_past) {
            result = ask_for_history(client_, question_, &past);
            asked_ = asked;
        }
        snapshot->code = exit_code(result);
        snapshot->problem = result == VESTRA_API_OK ? "" : problem_text(result, question_) + "; still asking";
        if (result != VESTRA_API_OK) return;
        if (ask_past && past.seconds.empty()) snapshot->problem = "the daemon has no figures yet";
        if (ask_past) {
            snapshot->time = past.time;
            snapshot->seconds = past.seconds;
        }
        snapshot->window = answer.vitals;
    }

  private:
    vestra_api_h client_;
    Question question_;
    Clock::time_point asked_;
};

// The screen, until the person or a signal ends the program. Returns only if the terminal cannot show it.
void watch_on_screen(vestra_api_h client, const Question &question, const Watch &how) {
    std::string error;
    auto terminal = vestra_view::Terminal::open(stdin, &error);
    if (terminal == nullptr) return;
    // Never destroyed: that would wait for an answer.
    auto &recording = *new vestra_view::LiveRecording(Asker(client, question),
                                                      std::chrono::duration<double>(how.seconds), question.window);
    vestra_view::View view(recording, {question.types.begin(), question.types.end()});
    int code = kExitOk;
    vestra_view::run(terminal.get(), &view, recording.wake(), [&] {
        recording.take();
        view.go_on();
        const bool ends = how.count > 0 && recording.asked() >= how.count;
        if (ends) code = recording.code();
        return !ends;
    });
    terminal.reset();
    // A question may be under way. Other clients do not have to wait for one that ends during its turn.
    std::fflush(nullptr);
    _exit(code);
}

volatile sig_atomic_t on_terminal;

extern "C" void leave(int) {
    // After the terminal's own "^C". Only calls that a signal handler may make.
    if (on_terminal != 0 && write(STDOUT_FILENO, "\n", 1) < 0) _exit(kExitFailed);
    _exit(kExitOk);
}

}  // namespace

namespace {

int report(int result, const Question &question) {
    say(problem_text(result, question));
    if (result == VESTRA_API_NO_DAEMON && std::getenv("VESTRA_SET_INSIDE") == nullptr) {
        std::fputs("  To ask the daemon of a simulated set: vestra-set exec --name NAME -- vestra-stat ...\n", stderr);
    }
    return exit_code(result);
}

}  // namespace

int ask_once(vestra_api_h client, const Question &question) {
    Answer answer;
    const int result = ask(client, question, &answer);
    if (result != VESTRA_API_OK) return report(result, question);
    return print(as_text(question, answer)) ? kExitOk : print_failed();
}

int show_history(vestra_api_h client, const Question &question) {
    Past past;
    const int result = ask_for_history(client, question, &past);
    if (result != VESTRA_API_OK) return report(result, question);
    return print(as_text(past, question.format)) ? kExitOk : print_failed();
}

int watch(vestra_api_h client, const Question &question, const Watch &how) {
    const char *term = std::getenv("TERM");
    if (question.format == Format::kTable && vestra_view::can_show(stdin) && term != nullptr &&
        std::string_view(term) != "dumb") {
        watch_on_screen(client, question, how);
    }
    on_terminal = isatty(STDOUT_FILENO);
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, leave);

    const auto interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(how.seconds));
    auto next = Clock::now();
    int before = VESTRA_API_OK;
    for (long asked = 1;; ++asked) {
        Answer answer;
        const int result = ask(client, question, &answer);
        const bool changed = result != before;
        before = result;
        if (result == VESTRA_API_OK) {
            if (changed) say("the daemon answers again");
            const std::string gap = asked > 1 && question.format != Format::kJson ? "\n" : "";
            if (!print(gap + as_text(question, answer))) return print_failed();
        } else if (changed) {
            say(problem_text(result, question) + "; still asking");
        }
        if (asked == how.count) return exit_code(result);
        // After a question that took long, the next ones are not asked early.
        next = std::max(next + interval, Clock::now());
        std::this_thread::sleep_until(next);
    }
}

}  // namespace vestra_stat
