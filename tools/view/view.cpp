#include "tools/view/view.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <tuple>
#include <utility>

namespace vestra_view {
namespace {

constexpr int64_t kNs = 1'000'000'000;
constexpr size_t kInputMax = 64;  // bytes

ProcessId id_of(const ProcessRow &row) {
    return {row.pid, row.name};
}

std::string lower(std::string text) {
    for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Unknown figures come last.
double or_least(double value) {
    return std::isnan(value) ? -1e300 : value;
}

void append_utf8(char32_t character, std::string *text) {
    const auto byte = [&](char32_t value) { *text += static_cast<char>(value); };
    if (character < 0x80) {
        byte(character);
    } else if (character < 0x800) {
        byte(0xc0 | character >> 6);
        byte(0x80 | (character & 0x3f));
    } else if (character < 0x10000) {
        byte(0xe0 | character >> 12);
        byte(0x80 | (character >> 6 & 0x3f));
        byte(0x80 | (character & 0x3f));
    } else {
        byte(0xf0 | character >> 18);
        byte(0x80 | (character >> 12 & 0x3f));
        byte(0x80 | (character >> 6 & 0x3f));
        byte(0x80 | (character & 0x3f));
    }
}

}  // namespace

View::View(Recording &recording, std::vector<size_t> vitals) : recording_(recording), vitals_(std::move(vitals)) {
    // The first vital of interest to most.
    const auto cpu = std::find_if(vitals_.begin(), vitals_.end(), [](size_t vital) {
        return std::string_view(vestra_tools::kVitals[vital].column) == "cpu_total";
    });
    if (cpu != vitals_.end()) chosen_ = static_cast<size_t>(cpu - vitals_.begin());
    if (recording_.size() > 0) go_to(recording_.size() - 1);
}

void View::go_on() {
    if (recording_.size() > 0) go_to(recording_.is_live() && !recording_.paused() ? recording_.size() - 1 : cursor_);
}

bool View::handle(Key key) {
    if (key == kNoKey) return true;
    if (mode_ == Mode::kHelp) {
        const bool scrolls = key == kUp || key == kDown || key == U'j' || key == U'k';
        if (scrolls) help_row_ = std::max(help_row_ + (key == kDown || key == U'j' ? 1 : -1), 0);
        if (!scrolls) mode_ = Mode::kLooking;
        return key != U'q';
    }
    if (mode_ != Mode::kLooking) {
        handle_typing(key);
        return true;
    }
    message_.clear();
    alarm_ = false;
    return handle_looking(key);
}

bool View::handle_looking(Key key) {
    if (key == U'q') return false;
    if (key == U'?') {
        mode_ = Mode::kHelp;
        help_row_ = 0;
        return true;
    }
    if (recording_.size() == 0) return true;
    switch (key) {
        case kLeft:
        case U'h':
            step(-1);
            break;
        case kRight:
        case U'l':
            step(1);
            break;
        case U'H':
        case U'<':
            step(-60);
            break;
        case U'L':
        case U'>':
            step(60);
            break;
        case kHome:
        case U'g':
            recording_.pause(true);
            go_to(0);
            break;
        case kEnd:
        case U'G':
            recording_.pause(false);
            go_to(recording_.size() - 1);
            break;
        case U'p':
            recording_.pause(!recording_.paused());
            go_on();
            break;
        case U't':
        case U'/':
            mode_ = key == U't' ? Mode::kTime : Mode::kFilter;
            if (mode_ == Mode::kTime) recording_.pause(true);
            input_.clear();
            break;
        case U'n':
        case U'N':
            jump_to_peak(key == U'n');
            break;
        case U'f':
        case U'F':
            jump_to_mark(recording_.findings(), &last_finding_, key == U'f', "finding");
            break;
        case U'd':
        case U'D':
            jump_to_mark(recording_.damage(), &last_damage_, key == U'd', "damage or gap");
            break;
        case kNextVital:
        case U'v':
            choose_vital(1);
            break;
        case kLastVital:
        case U'V':
            choose_vital(-1);
            break;
        case U'c':
            sort_by(Sort::kCpu);
            break;
        case U'm':
            sort_by(Sort::kMemory);
            break;
        case U'w':
            sort_by(Sort::kGrowth);
            break;
        case U'a':
            sort_by(Sort::kName);
            break;
        case U'i':
            sort_by(Sort::kPid);
            break;
        case kUp:
        case U'k':
            step_rows(-1);
            break;
        case kDown:
        case U'j':
            step_rows(1);
            break;
        case kPageUp:
            step_rows(-static_cast<int>(page_rows_));
            break;
        case kPageDown:
            step_rows(static_cast<int>(page_rows_));
            break;
        case kEnter:
            if (followed_) {
                followed_.reset();
            } else if (!rows_.empty()) {
                followed_ = selected_ = id_of(rows_[selected_row()]);
            }
            break;
        case kEscape:
            if (!followed_) filter_.clear();
            followed_.reset();
            arrange_rows();
            break;
        default:
            break;
    }
    return true;
}

void View::handle_typing(Key key) {
    if (key == kEscape) {
        mode_ = Mode::kLooking;
    } else if (key == kErase) {
        while (!input_.empty() && (input_.back() & 0xc0) == 0x80) input_.pop_back();
        if (!input_.empty()) input_.pop_back();
    } else if (key < kNoKey && key >= U' ' && input_.size() < kInputMax) {
        append_utf8(key, &input_);
    } else if (key == kEnter) {
        const Mode mode = std::exchange(mode_, Mode::kLooking);
        if (mode == Mode::kFilter) {
            filter_ = input_;
            arrange_rows();
        } else if (!input_.empty() && recording_.size() > 0) {
            alarm_ = !go_to_time(input_, &message_);
        }
    }
}

bool View::go_to_time(const std::string &text, std::string *error) {
    const auto found = recording_.find_time(text, cursor_, error);
    if (found) go_to(*found);
    return found.has_value();
}

void View::go_to(size_t index) {
    if (recording_.size() == 0) return;  // a live one may begin anew
    cursor_ = std::min(index, recording_.size() - 1);
    now_ = recording_.second(cursor_);
    load_rows();
}

// One second is the next that was recorded; more are seconds of time.
void View::step(int64_t seconds) {
    recording_.pause(true);
    if (seconds == 1 || seconds == -1) {
        if (seconds > 0 ? cursor_ + 1 < recording_.size() : cursor_ > 0) go_to(seconds > 0 ? cursor_ + 1 : cursor_ - 1);
        return;
    }
    const size_t there = recording_.index_of((now_.second + seconds) * kNs);
    // Over a gap that is longer.
    go_to(there == cursor_ && seconds > 0 ? cursor_ + 1 : there);
}

void View::jump_to_peak(bool forward) {
    recording_.pause(true);
    const std::string name = vestra_tools::kVitals[chosen_vital()].name;
    const auto found = recording_.peak(chosen_vital(), cursor_, forward);
    if (found) go_to(*found);
    message_ = found ? (low_tells(chosen_vital()) ? "Low point of " : "Peak of ") + name
                     : std::string("No ") + (forward ? "later" : "earlier") + " peak of " + name;
}

void View::jump_to_mark(const std::vector<Mark> &marks, std::optional<size_t> *last, bool forward, const char *what) {
    size_t next = 0;  // the first mark after the place, forward or backward
    if (*last && **last < marks.size() && recording_.index_of(marks[**last].from_ns) == cursor_) {
        next = forward ? **last + 1 : **last;
    } else {
        const int64_t here = now_.second;
        next = static_cast<size_t>(std::partition_point(marks.begin(), marks.end(),
                                                        [&](const Mark &mark) {
                                                            return forward ? mark.from_ns / kNs <= here
                                                                           : mark.from_ns / kNs < here;
                                                        }) -
                                   marks.begin());
    }
    if (forward ? next >= marks.size() : next == 0) {
        message_ = std::string("No ") + (forward ? "later " : "earlier ") + what;
        return;
    }
    const size_t chosen = forward ? next : next - 1;
    *last = chosen;
    const Mark &mark = marks[chosen];
    recording_.pause(true);
    go_to(recording_.index_of(mark.from_ns));
    message_ = std::to_string(chosen + 1) + "/" + std::to_string(marks.size()) + " " + mark.text;
    for (const ProcessRow &row : rows_) {
        if (mark.pid == row.pid) selected_ = id_of(row);
    }
}

void View::choose_vital(int step) {
    chosen_ = (chosen_ + vitals_.size() + static_cast<size_t>(step)) % vitals_.size();
}

void View::sort_by(Sort sort) {
    sort_ = sort;
    arrange_rows();
}

void View::load_rows() {
    if (!recording_.has_processes() || loaded_ == cursor_) return;
    all_rows_ = recording_.processes(cursor_);
    loaded_ = cursor_;
    arrange_rows();
}

void View::arrange_rows() {
    rows_.clear();
    const std::string filter = lower(filter_);
    for (const ProcessRow &row : all_rows_) {
        if (filter.empty() || lower(row.name).find(filter) != std::string::npos) rows_.push_back(row);
    }
    std::sort(rows_.begin(), rows_.end(), [this](const ProcessRow &a, const ProcessRow &b) {
        const auto by_id = std::tie(a.pid, a.name) < std::tie(b.pid, b.name);
        const auto more = [&](auto x, auto y) { return x != y ? x > y : by_id; };
        switch (sort_) {
            case Sort::kCpu:
                return more(or_least(a.cpu), or_least(b.cpu));
            case Sort::kMemory:
                return more(a.rss, b.rss);
            case Sort::kGrowth:
                return more(a.growth.value_or(INT64_MIN), b.growth.value_or(INT64_MIN));
            case Sort::kName:
                return a.name != b.name ? a.name < b.name : a.pid < b.pid;
            default:
                return by_id;
        }
    });
}

// The selected process, or the first if it is not there.
size_t View::selected_row() const {
    for (size_t i = 0; selected_ && i < rows_.size(); ++i) {
        if (id_of(rows_[i]) == *selected_) return i;
    }
    return 0;
}

void View::step_rows(int rows) {
    if (rows_.empty()) return;
    const auto last = static_cast<int64_t>(rows_.size()) - 1;
    const auto row = std::clamp(static_cast<int64_t>(selected_row()) + rows, int64_t{0}, last);
    selected_ = id_of(rows_[static_cast<size_t>(row)]);
}

}  // namespace vestra_view
