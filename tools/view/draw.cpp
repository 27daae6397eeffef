// What the view looks like.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/stat/sparkline.h"
#include "tools/view/view.h"

namespace vestra_view {
namespace {

constexpr int64_t kNs = 1'000'000'000;
constexpr int kVitalWidth = 37;      // name, figure, unit and a gap
constexpr int kWindowColumn = 10;    // each of maximum, minimum and average of a window
constexpr int kLineLeast = 12;       // columns of a line over time
constexpr int kProcessesLeast = 11;  // rows, if the vitals are to have one column
constexpr int kMessageMost = 3;      // rows

// In at most `width` characters: with fewer decimals, or an exponent, or "#" where no figure fits. Cut off, it would be
// another figure.
std::string number(double value, int decimals, int width) {
    if (std::isnan(value)) return "-";
    char text[352];  // the greatest double has 309 digits before the point
    for (const bool exponent : {false, true}) {
        for (int digits = exponent ? 2 : decimals; digits >= 0; --digits) {
            const int size = exponent ? std::snprintf(text, sizeof text, "%.*e", digits, value)
                                      : std::snprintf(text, sizeof text, "%.*f", digits, value);
            if (size <= width) return text;
        }
    }
    return "#";
}

// In lines of that width, broken between words.
std::vector<std::string> wrap(const std::string &text, int width, bool utf8) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (!lines.empty() && Canvas::width_of(lines.back() + " " + word, utf8) <= width) {
            lines.back() += " " + word;
        } else {
            lines.push_back(word);
        }
        begin = end + 1;
    }
    return lines;
}

struct Column {
    const char *title;
    int width;
    int rank;  // the columns of the smallest ranks are shown where not all fit
    std::string (*text)(const ProcessRow &row);
};
const Column kColumns[] = {
    {"PID", 7, 2, [](const ProcessRow &row) { return number(row.pid, 0, 7); }},
    {"NAME", 15, 0, [](const ProcessRow &row) { return row.name; }},
    {"CPU %", 7, 1, [](const ProcessRow &row) { return number(row.cpu, 2, 7); }},
    {"USER", 7, 5, [](const ProcessRow &row) { return number(row.user, 2, 7); }},
    {"SYSTEM", 7, 6, [](const ProcessRow &row) { return number(row.system, 2, 7); }},
    {"RSS KiB", 9, 3, [](const ProcessRow &row) { return number(static_cast<double>(row.rss), 0, 9); }},
    {"SWAP", 8, 7, [](const ProcessRow &row) { return number(static_cast<double>(row.swap), 0, 8); }},
    {"GROWTH", 9, 4, [](const ProcessRow &row) {
         return !row.growth ? "-" : (*row.growth > 0 ? "+" : "") + number(static_cast<double>(*row.growth), 0, 8);
     }}};
constexpr int kName = 1;  // takes what the others leave, up to
constexpr int kNameMost = 48;

// The columns that fit, and how wide the name is.
std::vector<const Column *> columns_in(int width, int *name_width) {
    std::vector<const Column *> shown;
    int used = 0;
    for (int rank = 0; rank < static_cast<int>(std::size(kColumns)); ++rank) {
        for (const Column &column : kColumns) {
            if (column.rank != rank || (rank > 0 && used + 1 + column.width > width)) continue;
            shown.push_back(&column);
            used += column.width + (rank > 0 ? 1 : 0);
        }
    }
    std::sort(shown.begin(), shown.end());
    *name_width = std::min(kColumns[kName].width + std::max(width - used, 0), kNameMost);
    return shown;
}

struct HelpLine {
    const char *keys, *what;
};
constexpr HelpLine kHelp[] = {
    {"left right  h l", "a second back, forward"},
    {"< >  H L", "a minute back, forward"},
    {"Home End  g G", "the first second, the last"},
    {"t", "to a time: 601.5, +60, -30, 15:23:20, a date and time"},
    {"n N", "the next peak of the vital marked with >, the one before"},
    {"v V  Tab", "mark the next vital, the one before"},
    {"f F", "the next finding, the one before"},
    {"d D", "the next damage or gap, the one before"},
    {"up down  j k", "select a process; PageUp, PageDown: by pages"},
    {"c m w a i", "sort by CPU, memory, growth, name, process id"},
    {"/", "show only processes with that in their names"},
    {"Enter", "follow the selected process over time; again: no more"},
    {"Escape", "do not follow any more; show all processes"},
    {"p", "live: pause, go on"},
    {"q", "quit"},
    {"", ""},
    {"Below the line over time:", "^ this second  ! finding  x damage  ~ gap"},
    {"CPU is in percent of all cores.", "GROWTH: since the process's first sample."},
};

}  // namespace

// Rows. A part of no height is not shown.
struct View::Layout {
    int width = 0;
    int label = 0, left = 0;  // what a vital needs without its line; where lines over time begin, 0: without labels
    int line = 1;
    int vitals = 0, vital_rows = 0, vital_columns = 1, first_vital = 0;
    int followed = 0, followed_rows = 0;
    int processes = 0, process_rows = 0;  // the heading is one of them
    int message = 0, status = 0;
    std::vector<std::string> lines;  // of the message
};

View::Layout View::layout(const Canvas &canvas) const {
    Layout at;
    at.width = canvas.columns();
    const int with_window = kVitalWidth + 3 * kWindowColumn;
    at.label = recording_.window() > 0 && at.width >= with_window + kLineLeast ? with_window : kVitalWidth;
    at.left = at.width >= at.label + kLineLeast ? at.label : 0;
    at.status = canvas.rows() > 1 ? canvas.rows() - 1 : canvas.rows();
    at.lines = wrap(message_.empty() ? recording_.problem() : message_, at.width, canvas.utf8());
    at.lines.resize(std::min<size_t>(at.lines.size(), canvas.rows() > 12 ? kMessageMost : canvas.rows() > 3 ? 1 : 0));
    at.message = at.status - static_cast<int>(at.lines.size());
    at.vitals = at.line + 2;
    // A message covers processes, so that nothing moves when it comes.
    const int room = std::max(at.status - at.vitals, 0), count = static_cast<int>(vitals_.size());
    const int least = recording_.has_processes() ? kProcessesLeast : 0, half = (count + 1) / 2;
    at.vital_rows = count;
    if (room < count + least) {
        const bool two = at.width >= 2 * kVitalWidth && at.label == kVitalWidth;
        at.vital_columns = two ? 2 : 1;
        at.vital_rows = std::min(two ? half : count, least > 0 ? std::max(room - kProcessesLeast, room / 3) : room);
    }
    at.vital_rows = std::clamp(at.message - at.vitals, 0, at.vital_rows);
    const int shown = at.vital_rows * at.vital_columns;
    at.first_vital = std::clamp(static_cast<int>(chosen_) - shown / 2, 0, std::max(count - shown, 0));
    at.followed = at.vitals + at.vital_rows;
    at.followed_rows = followed_ && at.message - at.followed >= 4 ? 2 : 0;
    at.processes = at.followed + at.followed_rows;
    at.process_rows = recording_.has_processes() ? std::max(at.message - at.processes, 0) : 0;
    return at;
}

void View::draw(Canvas *canvas) {
    if (mode_ == Mode::kHelp) {
        draw_help(canvas);
        return;
    }
    const Layout at = layout(*canvas);
    draw_title(canvas);
    if (recording_.size() > 0) {
        draw_time_line(canvas, at);
        draw_vitals(canvas, at);
        draw_followed(canvas, at);
        draw_processes(canvas, at);
    }
    draw_bottom(canvas, at);
}

void View::draw_title(Canvas *canvas) const {
    canvas->paint(0, 0, canvas->columns(), Style::kTitle);
    std::string text;
    if (recording_.size() > 0) {
        text = recording_.wall_time(now_.time_ns);
        char place[96];
        if (!recording_.is_live()) {
            std::snprintf(place, sizeof place, "%s%.3f s  %zu/%zu  ", text.empty() ? "" : "  ",
                          static_cast<double>(now_.time_ns) / kNs, cursor_ + 1, recording_.size());
        } else if (recording_.paused()) {
            std::snprintf(place, sizeof place, "  paused, %lld s before the newest  ",
                          static_cast<long long>(recording_.second(recording_.size() - 1).second - now_.second));
        } else {
            std::snprintf(place, sizeof place, "  live  ");
        }
        text += place;
    }
    canvas->put(0, 0, text + recording_.title(), Style::kTitle);
}

void View::draw_line(Canvas *canvas, int row, int column, int width, const Line &line) const {
    canvas->put(row, column, vestra_stat::sparkline(line, canvas->utf8()), Style::kPlain, width);
    canvas->paint(row, column + static_cast<int>(recording_.axis(line.size()).column_of(now_.second)), 1,
                  Style::kCursor);
}

// The chosen vital over the whole recording, and what there is to jump to below it.
void View::draw_time_line(Canvas *canvas, const Layout &at) const {
    const int width = at.width - at.left;
    if (width <= 0 || at.message <= at.line) return;
    const auto columns = static_cast<size_t>(width);
    if (at.left > 0) draw_vital(canvas, at.line, 0, at.left, chosen_vital());
    draw_line(canvas, at.line, at.left, width, recording_.line(chosen_vital(), columns));
    if (at.message <= at.line + 1) return;
    if (at.left > kVitalWidth) {
        const std::string window = std::to_string(recording_.window()) + " s:   maximum   minimum   average";
        canvas->put_right(at.line + 1, 0, at.left - 2, window, Style::kFaint);
    }
    const Axis axis = recording_.axis(columns);
    const int row = at.line + 1;
    const auto mark = [&](int64_t ns, const char *sign, Style style) {
        canvas->put(row, at.left + static_cast<int>(axis.column_of(ns / kNs)), sign, style);
    };
    for (const Mark &damage : recording_.damage()) {
        const bool gap = damage.text.rfind("Nothing", 0) == 0;
        for (size_t column = axis.column_of(damage.from_ns / kNs); gap && column <= axis.column_of(damage.to_ns / kNs);
             ++column) {
            canvas->put(row, at.left + static_cast<int>(column), "~", Style::kAlarm);
        }
    }
    for (const Mark &damage : recording_.damage()) {
        if (damage.text.rfind("Nothing", 0) != 0) mark(damage.from_ns, "x", Style::kAlarm);
    }
    for (const Mark &finding : recording_.findings()) mark(finding.from_ns, "!", Style::kWarning);
    mark(now_.second * kNs, "^", Style::kTitle);
}

// Name, figure and unit; then, where there is room, the line over time.
void View::draw_vital(Canvas *canvas, int row, int column, int width, size_t vital) const {
    const vestra_tools::Vital &about = vestra_tools::kVitals[vital];
    const Style style = vital == chosen_vital() ? Style::kTitle : Style::kPlain;
    const std::string name = (vital == chosen_vital() ? ">" : " ") + std::string(about.name);
    const int name_width = std::clamp(width - 12, 1, 20);
    canvas->put(row, column, name, style, std::min(name_width, width));
    const int figure = std::min(11, width - name_width);
    canvas->put_right(row, column + name_width, figure, number(now_.vitals[vital], about.decimals, figure), style);
    if (width > name_width + figure + 1) {
        canvas->put(row, column + name_width + figure + 1, about.short_unit, Style::kFaint,
                    width - name_width - figure - 1);
    }
    if (recording_.window() == 0 || width < kVitalWidth + 3 * kWindowColumn) return;
    const auto [maximum, minimum, average] = recording_.window_figures(vital);
    int place = column + kVitalWidth - 2;
    for (const double value : {maximum, minimum, average}) {
        canvas->put_right(row, place, kWindowColumn, number(value, about.decimals, kWindowColumn - 1), style);
        place += kWindowColumn;
    }
}

void View::draw_vitals(Canvas *canvas, const Layout &at) const {
    const int width = at.width / at.vital_columns;
    for (int i = 0; i < at.vital_rows * at.vital_columns; ++i) {
        const size_t place = static_cast<size_t>(at.first_vital) + static_cast<size_t>(i);
        if (place >= vitals_.size()) break;
        const int row = at.vitals + i % std::max(at.vital_rows, 1), column = i / std::max(at.vital_rows, 1) * width;
        const bool with_line = width >= at.label + kLineLeast;
        draw_vital(canvas, row, column, with_line ? at.label : width, vitals_[place]);
        if (!with_line) continue;
        const int line = width - at.label - (at.vital_columns > 1 ? 2 : 0);
        draw_line(canvas, row, column + at.label, line, recording_.line(vitals_[place], static_cast<size_t>(line)));
    }
}

void View::draw_followed(Canvas *canvas, const Layout &at) const {
    if (at.followed_rows == 0) return;
    const auto there = std::find_if(all_rows_.begin(), all_rows_.end(), [&](const ProcessRow &row) {
        return ProcessId{row.pid, row.name} == *followed_;
    });
    const bool found = there != all_rows_.end();
    const std::string who = std::to_string(followed_->pid) + " " + followed_->name;
    const int row = at.followed, label = at.left > 0 ? at.left - 1 : at.width;
    canvas->paint(row, 0, label, Style::kTitle);
    canvas->put(row, 0, who, Style::kTitle, std::max(label - 17, 1));
    canvas->put_right(row, 0, label, (found ? number(there->cpu, 2, 9) : "-") + " % CPU", Style::kTitle);
    canvas->put(row + 1, 0, found ? "" : "no sample", Style::kFaint, std::max(label - 17, 0));
    canvas->put_right(row + 1, 0, label, (found ? std::to_string(there->rss) : "-") + " KiB", Style::kTitle);
    if (at.left == 0) return;
    const int width = at.width - at.left;
    const auto lines = recording_.process_lines(*followed_, static_cast<size_t>(width));
    draw_line(canvas, row, at.left, width, lines.cpu);
    draw_line(canvas, row + 1, at.left, width, lines.rss);
}

void View::draw_processes(Canvas *canvas, const Layout &at) {
    if (at.process_rows == 0) return;
    static constexpr const char *kSorted[] = {"CPU %", "RSS KiB", "GROWTH", "NAME", "PID"};
    int name_width = 0;
    const auto columns = columns_in(at.width, &name_width);
    const auto draw_row = [&](int row, Style style, const ProcessRow *process) {
        int place = 0;
        for (const Column *column : columns) {
            const bool is_name = column == &kColumns[kName];
            const int width = is_name ? name_width : column->width;
            const std::string text = process != nullptr ? column->text(*process) : column->title;
            const bool sorted =
                process == nullptr && std::string_view(column->title) == kSorted[static_cast<size_t>(sort_)];
            const Style shown = sorted ? Style::kTitle : style;
            if (is_name) {
                canvas->put(row, place, text, shown, width);
            } else {
                canvas->put_right(row, place, width, text, shown);
            }
            place += width + 1;
        }
    };
    draw_row(at.processes, Style::kFaint, nullptr);
    page_rows_ = static_cast<size_t>(std::max(at.process_rows - 1, 1));
    const size_t selected = selected_row();
    if (selected < first_row_) first_row_ = selected;
    if (selected >= first_row_ + page_rows_) first_row_ = selected - page_rows_ + 1;
    first_row_ = std::min(first_row_, rows_.size() - std::min(rows_.size(), page_rows_));
    for (int i = 0; i < at.process_rows - 1; ++i) {
        const size_t place = first_row_ + static_cast<size_t>(i);
        if (place >= rows_.size()) break;
        const int row = at.processes + 1 + i;
        const bool followed = followed_ && *followed_ == ProcessId{rows_[place].pid, rows_[place].name};
        draw_row(row, followed ? Style::kTitle : Style::kPlain, &rows_[place]);
        if (place == selected) canvas->paint(row, 0, at.width, Style::kCursor);
    }
}

void View::draw_bottom(Canvas *canvas, const Layout &at) const {
    for (size_t i = 0; i < at.lines.size(); ++i) {
        const bool alarm = alarm_ || message_.empty();
        canvas->put(at.message + static_cast<int>(i), 0, at.lines[i], alarm ? Style::kAlarm : Style::kWarning);
    }
    std::string text = "? keys  q quit";
    if (mode_ == Mode::kTime) text = "To time: " + input_ + "_";
    if (mode_ == Mode::kFilter) text = "Names with: " + input_ + "_";
    if (mode_ == Mode::kLooking && recording_.has_processes() && recording_.size() > 0) {
        text += "  " + (filter_.empty() ? "" : std::to_string(rows_.size()) + " of ") +
                std::to_string(all_rows_.size()) + " processes";
        if (!filter_.empty()) text += " with \"" + filter_ + "\"";
    }
    canvas->put(at.status, 0, text, mode_ == Mode::kLooking ? Style::kFaint : Style::kTitle);
}

void View::draw_help(Canvas *canvas) {
    const int most = std::max(static_cast<int>(std::size(kHelp)) - canvas->rows() + 1, 0);
    help_row_ = std::min(help_row_, most);
    for (int i = 0; i < canvas->rows() - 1; ++i) {
        const int line = help_row_ + i;
        if (line >= static_cast<int>(std::size(kHelp))) break;
        const int taken = canvas->put(i, 0, kHelp[line].keys, Style::kTitle);
        canvas->put(i, std::max(taken + 1, 17), kHelp[line].what);
    }
    canvas->put(canvas->rows() - 1, 0, most > 0 ? "up down: more  Any other key: back" : "Any key: back",
                Style::kFaint);
}

}  // namespace vestra_view
