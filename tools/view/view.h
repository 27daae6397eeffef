// view.h -- the screen: what a recording looks like at a second, and what the keys do. Knows nothing of terminals.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/view/canvas.h"
#include "tools/view/recording.h"

namespace vestra_view {

// A character, or one of these.
using Key = char32_t;
enum SpecialKey : Key {
    kNoKey = 0x110000,  // after the last character
    kLeft,
    kRight,
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kHome,
    kEnd,
    kEnter,
    kEscape,
    kErase,
    kNextVital,
    kLastVital,
};

class View {
  public:
    // `vitals`: which to show, in that order. The recording must outlive the view.
    View(Recording &recording, std::vector<size_t> vitals);

    // False: the view ends.
    bool handle(Key key);

    // After a live recording went on: with its newest second, unless it is paused.
    void go_on();

    void draw(Canvas *canvas);

    // As the key for a time does. False with the reason in *error.
    bool go_to_time(const std::string &text, std::string *error);

    size_t cursor() const { return cursor_; }

  private:
    enum class Sort { kCpu, kMemory, kGrowth, kName, kPid };
    enum class Mode { kLooking, kHelp, kTime, kFilter };
    struct Layout;

    bool handle_looking(Key key);
    void handle_typing(Key key);
    void step(int64_t seconds);
    void step_rows(int rows);
    void go_to(size_t index);
    void jump_to_peak(bool forward);
    void jump_to_mark(const std::vector<Mark> &marks, std::optional<size_t> *last, bool forward, const char *what);
    void choose_vital(int step);
    void sort_by(Sort sort);
    void load_rows();
    void arrange_rows();
    size_t selected_row() const;
    size_t chosen_vital() const { return vitals_[chosen_]; }

    Layout layout(const Canvas &canvas) const;
    void draw_title(Canvas *canvas) const;
    void draw_time_line(Canvas *canvas, const Layout &at) const;
    void draw_vitals(Canvas *canvas, const Layout &at) const;
    void draw_vital(Canvas *canvas, int row, int column, int width, size_t vital) const;
    void draw_followed(Canvas *canvas, const Layout &at) const;
    void draw_processes(Canvas *canvas, const Layout &at);
    void draw_bottom(Canvas *canvas, const Layout &at) const;
    void draw_help(Canvas *canvas);
    void draw_line(Canvas *canvas, int row, int column, int width, const Line &line) const;

    Recording &recording_;
    const std::vector<size_t> vitals_;
    size_t cursor_ = 0;
    size_t chosen_ = 0;  // of vitals_
    Second now_;         // at the cursor
    Sort sort_ = Sort::kCpu;
    Mode mode_ = Mode::kLooking;
    std::string input_, filter_, message_;
    bool alarm_ = false;                // the message is about something that failed
    std::vector<ProcessRow> rows_;      // of the second, that pass the filter, sorted
    std::vector<ProcessRow> all_rows_;  // of the second
    std::optional<size_t> loaded_;      // the second that they are of
    std::optional<ProcessId> selected_, followed_;
    size_t first_row_ = 0;  // that is shown
    size_t page_rows_ = 1;  // that fit
    std::optional<size_t> last_finding_, last_damage_;
    int help_row_ = 0;
};

}  // namespace vestra_view
