#include "set/stop_watch.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "set/files.h"

namespace vestra_set {
namespace {

constexpr const char *kThreadsThatEnd[] = {"QXReadData", "QXClientProcess", "QXUserDataHndl"};

// For a process that does return from its last join after all.
constexpr auto kTimeForMain = std::chrono::milliseconds(200);

std::string in_seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

}  // namespace

StopWatch::StopWatch(std::string process_dir, double grace_seconds, std::function<void(const std::string &)> report)
    : process_dir_(std::move(process_dir)),
      grace_seconds_(grace_seconds),
      report_(std::move(report)),
      start_(std::chrono::steady_clock::now()),
      running_(workers()),
      had_workers_(!running_.empty()) {}

std::map<std::string, std::string> StopWatch::workers() const {
    std::map<std::string, std::string> found;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(process_dir_ + "/task", ignored)) {
        auto name = read_file(entry.path() / "comm");
        if (!name) continue;
        name->erase(std::find(name->begin(), name->end(), '\n'), name->end());
        if (std::find(std::begin(kThreadsThatEnd), std::end(kThreadsThatEnd), *name) != std::end(kThreadsThatEnd)) {
            found[entry.path().filename()] = *name;
        }
    }
    return found;
}

bool StopWatch::time_to_force() {
    const auto now = std::chrono::steady_clock::now();
    if (elapsed_seconds() >= grace_seconds_) {
        std::string left;
        for (const auto &[id, name] : workers()) left += " " + name;
        report_("still there after " + in_seconds(grace_seconds_) + (left.empty() ? "" : ", running:" + left));
        return true;
    }
    if (!had_workers_) return false;
    if (running_.empty()) return now - workers_gone_ >= kTimeForMain;
    const auto current = workers();
    for (auto entry = running_.begin(); entry != running_.end();) {
        if (current.count(entry->first) != 0) {
            ++entry;
            continue;
        }
        report_("thread " + entry->second + " ended after " + in_seconds(elapsed_seconds()));
        entry = running_.erase(entry);
    }
    if (running_.empty()) workers_gone_ = now;
    return false;
}

double StopWatch::elapsed_seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

}  // namespace vestra_set
