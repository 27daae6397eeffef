#include "set/stop_watch.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "set/files.h"

namespace vestra_set {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kThreadsThatEnd[] = {"QXReadData", "QXClientProcess", "QXUserDataHndl"};

// For a process that does return from its last join after all.
constexpr auto kTimeForMain = std::chrono::milliseconds(200);

std::string seconds_since(Clock::time_point start) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(Clock::now() - start).count());
    return text;
}

}  // namespace

StopWatch::StopWatch(const RunningSet &set, double grace_seconds, std::function<void(const std::string &)> report)
    : set_(set),
      process_(open_program(set)),
      grace_seconds_(grace_seconds),
      report_(std::move(report)),
      start_(Clock::now()),
      running_(workers()),
      had_workers_(!running_.empty()) {
    signal_process(process_, set.stop_signal);
    report_("sent " + std::string(set.stop_signal == SIGTERM ? "SIGTERM" : "SIGRTMIN+6") + " to " + set.program);
}

std::map<std::string, std::string> StopWatch::workers() const {
    std::map<std::string, std::string> found;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(process_path(process_) + "/task", ignored)) {
        std::string name = read_file(entry.path() / "comm").value_or("");
        name.erase(std::find(name.begin(), name.end(), '\n'), name.end());
        if (std::find(std::begin(kThreadsThatEnd), std::end(kThreadsThatEnd), name) != std::end(kThreadsThatEnd)) {
            found[entry.path().filename()] = name;
        }
    }
    return found;
}

bool StopWatch::look() {
    if (ended_) return false;
    ended_ = !open_program(set_).valid();
    if (ended_) {
        report_((forced_ ? "ended by force after " : "ended by itself after ") + seconds_since(start_));
    } else if (!forced_ && time_to_force()) {
        force();
    }
    return !ended_;
}

bool StopWatch::time_to_force() {
    const auto current = workers();
    // A daemon that was just started may make them after it was told to stop.
    running_.insert(current.begin(), current.end());
    had_workers_ = had_workers_ || !current.empty();
    for (auto entry = running_.begin(); entry != running_.end();) {
        const bool runs = current.count(entry->first) != 0;
        if (!runs) report_("thread " + entry->second + " ended after " + seconds_since(start_));
        entry = runs ? std::next(entry) : running_.erase(entry);
    }
    const auto now = Clock::now();
    if (std::chrono::duration<double>(now - start_).count() >= grace_seconds_) {
        std::string left;
        for (const auto &[id, name] : running_) left += " " + name;
        report_("still there after " + seconds_since(start_) + (left.empty() ? "" : ", running:" + left));
        return true;
    }
    if (!running_.empty()) workers_gone_ = now;
    return had_workers_ && now - workers_gone_ >= kTimeForMain;
}

void StopWatch::force() {
    forced_ = true;
    write_file(set_directory(set_.name) + kForcedMark, "");
    signal_process(process_, SIGKILL);
}

}  // namespace vestra_set
