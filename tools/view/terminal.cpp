#include "tools/view/terminal.h"

#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cwchar>
#include <string>

#include <term.h>  // after the others: its macros have names of two letters and more
#undef columns
#undef lines

namespace vestra_view {
namespace {

constexpr std::array kEndings = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int kEscapeMs = 100;  // between the bytes of a key; a slow serial line needs less

volatile sig_atomic_t ended;

extern "C" void note_end(int) {
    ended = 1;
}

attr_t attributes(Style style) {
    switch (style) {
        case Style::kTitle:
            return A_BOLD;
        case Style::kFaint:
            return has_colors() ? A_DIM : A_NORMAL;
        case Style::kCursor:
            return A_REVERSE;
        case Style::kWarning:
            return A_BOLD | (has_colors() ? COLOR_PAIR(1) : A_NORMAL);
        case Style::kAlarm:
            return A_BOLD | (has_colors() ? COLOR_PAIR(2) : A_NORMAL);
        default:
            return A_NORMAL;
    }
}

Key key_of(int status, wint_t code) {
    if (status != KEY_CODE_YES) {
        switch (code) {
            case L'\r':
            case L'\n':
                return kEnter;
            case 0x1b:
                return kEscape;
            case 0x7f:
            case 0x08:
                return kErase;
            case L'\t':
                return kNextVital;
            default:
                return code;
        }
    }
    switch (code) {
        case KEY_LEFT:
            return kLeft;
        case KEY_RIGHT:
            return kRight;
        case KEY_UP:
            return kUp;
        case KEY_DOWN:
            return kDown;
        case KEY_PPAGE:
            return kPageUp;
        case KEY_NPAGE:
            return kPageDown;
        case KEY_HOME:
            return kHome;
        case KEY_END:
            return kEnd;
        case KEY_ENTER:
            return kEnter;
        case KEY_BACKSPACE:
        case KEY_DC:
            return kErase;
        case KEY_BTAB:
            return kLastVital;
        default:
            return kNoKey;
    }
}

}  // namespace

struct Terminal::Saved {
    SCREEN *screen = nullptr;
    sigset_t signals;  // that were blocked
    std::array<struct sigaction, kEndings.size()> actions;
};

Terminal::Terminal(FILE *keyboard)
    : saved_(std::make_unique<Saved>()),
      keyboard_(keyboard),
      utf8_(std::string_view(nl_langinfo(CODESET)) == "UTF-8") {}

bool can_show(FILE *keyboard) {
    return keyboard != nullptr && isatty(STDOUT_FILENO) == 1 && isatty(fileno(keyboard)) == 1;
}

std::unique_ptr<Terminal> Terminal::open(FILE *keyboard, std::string *error) {
    std::setlocale(LC_CTYPE, "");
    std::unique_ptr<Terminal> terminal(new Terminal(keyboard));
    const char *type = std::getenv("TERM");
    int known = 0;  // asked first, because newterm() does not give its memory back if it fails
    if (setupterm(nullptr, STDOUT_FILENO, &known) == OK) {
        del_curterm(cur_term);
        terminal->saved_->screen = newterm(nullptr, stdout, keyboard);
    }
    if (terminal->saved_->screen == nullptr || tigetstr("cup") == nullptr) {
        *error = "the terminal type '" + std::string(type != nullptr ? type : "") +
                 "' (TERM) is not known or cannot be used";
        return nullptr;
    }
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    if (std::getenv("ESCDELAY") == nullptr) set_escdelay(kEscapeMs);
    if (has_colors()) {
        start_color();
        use_default_colors();
        init_pair(1, COLOR_YELLOW, -1);
        init_pair(2, COLOR_RED, -1);
    }
    // Signals arrive only in wait(), so none is missed between a look at `ended` and the wait.
    ended = 0;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    struct sigaction action {};
    action.sa_handler = note_end;
    for (size_t i = 0; i < kEndings.size(); ++i) {
        sigaddset(&blocked, kEndings[i]);
        sigaction(kEndings[i], &action, &terminal->saved_->actions[i]);
    }
    sigprocmask(SIG_BLOCK, &blocked, &terminal->saved_->signals);
    return terminal;
}

Terminal::~Terminal() {
    if (saved_->screen == nullptr) return;
    // What the program prints next begins on an empty line, also on a terminal that keeps the screen.
    move(LINES - 1, 0);
    clrtoeol();
    refresh();
    endwin();
    delscreen(saved_->screen);
    for (size_t i = 0; i < kEndings.size(); ++i) sigaction(kEndings[i], &saved_->actions[i], nullptr);
    sigprocmask(SIG_SETMASK, &saved_->signals, nullptr);
}

Canvas Terminal::canvas() const {
    return {getmaxy(stdscr), getmaxx(stdscr), utf8_};
}

void Terminal::show(const Canvas &canvas) {
    std::wstring run;
    for (int row = 0; row < canvas.rows(); ++row) {
        for (int column = 0; column < canvas.columns();) {
            const Style style = canvas.at(row, column).style;
            const int begin = column;
            run.clear();
            for (; column < canvas.columns() && canvas.at(row, column).style == style; ++column) {
                const char32_t character = canvas.at(row, column).character;
                if (character != 0) run += static_cast<wchar_t>(character);
            }
            attrset(attributes(style));
            mvaddnwstr(row, begin, run.c_str(), static_cast<int>(run.size()));
        }
    }
    move(0, 0);
    refresh();
}

void run(Terminal *terminal, View *view, int wake, const std::function<bool()> &on_wake) {
    for (bool goes_on = true; goes_on;) {
        Canvas canvas = terminal->canvas();
        view->draw(&canvas);
        terminal->show(canvas);
        Key key = kNoKey;
        const Terminal::Event event = terminal->wait(wake, &key);
        if (event == Terminal::Event::kEnd) return;
        goes_on = event == Terminal::Event::kWake ? on_wake() : view->handle(key);
    }
}

Terminal::Event Terminal::wait(int wake, Key *key) {
    for (;;) {
        // Signals come here, too: keys may be typed without a pause, and then none is waited for.
        const timespec at_once = {};
        ppoll(nullptr, 0, &at_once, &saved_->signals);
        if (ended != 0) return Event::kEnd;
        wint_t code = 0;
        const int status = get_wch(&code);
        if (status != ERR) {
            *key = key_of(status, code);
            return Event::kKey;
        }
        pollfd ready[] = {{fileno(keyboard_), POLLIN, 0}, {wake, POLLIN, 0}};
        const int count = ppoll(ready, wake >= 0 ? 2 : 1, nullptr, &saved_->signals);
        if (count < 0 && errno != EINTR) return Event::kEnd;
        if (count <= 0) continue;
        if ((ready[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return Event::kEnd;
        if (wake >= 0 && ready[1].revents != 0 && ready[0].revents == 0) return Event::kWake;
    }
}

}  // namespace vestra_view
