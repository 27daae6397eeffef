#include "tools/view/live_recording.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <ctime>
#include <system_error>

namespace vestra_view {

constexpr int64_t kNs = 1'000'000'000;

LiveRecording::LiveRecording(std::function<void(Snapshot *)> ask, std::chrono::duration<double> interval, int window)
    : ask_(std::move(ask)), interval_(interval), window_(window), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are for the thread of the screen
    thread_ = std::thread([this] { ask_again_and_again(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

LiveRecording::~LiveRecording() {
    {
        const std::lock_guard guard(lock_);
        ends_ = true;
    }
    changed_.notify_all();
    thread_.join();
    close(wake_);
}

void LiveRecording::ask_again_and_again() {
    using Clock = std::chrono::steady_clock;
    const auto interval = std::chrono::duration_cast<Clock::duration>(interval_);
    auto next = Clock::now();
    Snapshot snapshot;
    for (bool ends = false; !ends;) {
        ask_(&snapshot);
        // After a question that took long, the next ones are not asked early.
        next = std::max(next + interval, Clock::now());
        std::unique_lock guard(lock_);
        newest_ = snapshot;
        ++asked_;
        const uint64_t one = 1;
        if (write(wake_, &one, sizeof one) < 0) ends_ = true;  // it cannot, unless the descriptor is gone
        ends = changed_.wait_until(guard, next, [this] { return ends_; });
    }
}

void LiveRecording::take() {
    uint64_t count = 0;
    if (read(wake_, &count, sizeof count) < 0) count = 0;  // nothing new
    const std::lock_guard guard(lock_);
    shown_asked_ = asked_;
    code_ = newest_.code;
    if (asked_ > 0) problem_ = newest_.problem;
    if (!paused_) shown_ = newest_;
}

void LiveRecording::pause(bool pause) {
    paused_ = pause;
    take();
}

Second LiveRecording::second(size_t index) const {
    const vestra_stat::Second &second = shown_.seconds[shown_.seconds.size() - 1 - index];
    const auto number = static_cast<int64_t>(shown_.time) - second.age;
    return {number, number * kNs, second.vitals};
}

// Local time, as on the clock of the set.
std::string LiveRecording::wall_time(int64_t time_ns) const {
    const auto seconds = static_cast<time_t>(time_ns / kNs);
    struct tm local {};
    char text[32] = "";
    if (localtime_r(&seconds, &local) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

Line LiveRecording::line(size_t vital, size_t columns) const {
    Line line(columns, kUnknown);
    const Axis along = axis(columns);
    std::vector<double> figures(static_cast<size_t>(along.seconds), kUnknown);  // by second
    for (size_t i = 0; i < size(); ++i) {
        figures[static_cast<size_t>(second(i).second - along.first)] = second(i).vitals[vital];
    }
    for (size_t column = 0; column < columns; ++column) {
        const Axis::Part part = along.part(column);
        for (int64_t at = part.begin; at < part.end; ++at) {
            const double value = figures[static_cast<size_t>(at)];
            if (!std::isfinite(value)) continue;
            double &figure = line[column];
            if (std::isnan(figure) || (low_tells(vital) ? value < figure : value > figure)) figure = value;
        }
    }
    return line;
}

std::optional<size_t> LiveRecording::peak(size_t vital, size_t index, bool forward) const {
    const auto value = [&](size_t at) { return second(at).vitals[vital] * (low_tells(vital) ? -1 : 1); };
    double sum = 0, count = 0, top = 0;
    for (size_t i = 0; i < size(); ++i) {
        if (!std::isfinite(value(i))) continue;
        top = count > 0 ? std::max(top, value(i)) : value(i);
        sum += value(i);
        ++count;
    }
    return count > 0 ? find_peak(size(), value, (sum / count + top) / 2, index, forward) : std::nullopt;
}

std::optional<size_t> LiveRecording::find_time(const std::string &text, size_t /*index*/, std::string *error) const {
    if (!text.empty() && text[0] == '-') {
        int64_t seconds = 0;
        const auto parsed = std::from_chars(text.data() + 1, text.data() + text.size(), seconds);
        if (parsed.ec == std::errc() && parsed.ptr == text.data() + text.size()) {
            return index_of((second(size() - 1).second - std::clamp<int64_t>(seconds, 0, 1000)) * kNs);
        }
    }
    // A time of day: the first second that is not before it. At midnight some seconds are of the day before.
    if (text.size() >= 5 && text[2] == ':') {
        constexpr size_t kDay = 11;  // "2026-11-25 "
        const std::string oldest = wall_time(second(0).time_ns), newest = wall_time(second(size() - 1).time_ns);
        std::string wanted = newest.substr(0, kDay) + text;
        const std::string before = oldest.substr(0, kDay) + text;
        if (wanted > newest && before >= oldest) wanted = before;
        for (size_t i = 0; i < size(); ++i) {
            if (wall_time(second(i).time_ns) >= wanted) return i;
        }
        return size() - 1;
    }
    *error = "'" + text + "' is not a time: -30, 15:23:20";
    return std::nullopt;
}

Recording::WindowFigures LiveRecording::window_figures(size_t vital) const {
    for (const vestra_api_data &answer : shown_.window) {
        if (static_cast<size_t>(answer.packet_type) != vital) continue;
        // For a window without data the daemon answers -1, -1 and no average.
        const bool none = answer.maximum == -1 && answer.minimum == -1 && std::isnan(answer.average);
        return none ? WindowFigures{} : WindowFigures{answer.maximum, answer.minimum, answer.average};
    }
    return {};
}

}  // namespace vestra_view
