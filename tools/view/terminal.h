// terminal.h -- the terminal, through ncurses. One at a time; one thread.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "tools/view/canvas.h"
#include "tools/view/view.h"

namespace vestra_view {

class Terminal {
  public:
    // Takes over the terminal at standard output, with keys from `keyboard`, and the signals that end a program. Null
    // with the reason in *error.
    static std::unique_ptr<Terminal> open(FILE *keyboard, std::string *error);
    ~Terminal();  // leaves it as it was
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    Canvas canvas() const;  // empty, of the terminal's present size
    void show(const Canvas &canvas);

    enum class Event { kKey, kWake, kEnd };
    // Waits for a key (in *key; kNoKey after a change of the size), for a byte to read at the descriptor `wake` (-1: none),
    // or for the end: a signal, or a terminal that is gone.
    Event wait(int wake, Key *key);

  private:
    explicit Terminal(FILE *keyboard);

    struct Saved;
    std::unique_ptr<Saved> saved_;
    FILE *keyboard_;
    bool utf8_;
};

// Shows the view until it ends. After a byte can be read at `wake`, calls on_wake, which returns whether to go on.
void run(Terminal *terminal, View *view, int wake = -1, const std::function<bool()> &on_wake = {});

// Whether there is a terminal to show something on: standard output is one, and the keyboard too.
bool can_show(FILE *keyboard);

}  // namespace vestra_view
