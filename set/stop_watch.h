// Ends a set's program in order, and by force when it does not end.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "set/set_directory.h"

namespace vestra_set {

constexpr auto kStopLook = std::chrono::milliseconds(20);  // between looks

// The daemon's main loop and its reader, client and user-data threads end when it is asked to; the join of its
// process-list thread never returns. So there is nothing left to wait for once those three threads have ended.
class StopWatch {
  public:
    // Sends the signal that stops the program. `report` gets one line for each thing that happens.
    StopWatch(const RunningSet &set, double grace_seconds, std::function<void(const std::string &)> report);

    // Reports threads that have ended, and forces the end when it is time to. False once the program has ended.
    bool look();

    // Ends the program at once. The set's launcher then finds the mark that this was on purpose.
    void force();

    // How long ago the program was told to stop.
    std::chrono::steady_clock::duration age() const { return std::chrono::steady_clock::now() - start_; }

  private:
    std::map<std::string, std::string> workers() const;  // thread id -> name, of the threads that end
    bool time_to_force();

    const RunningSet set_;
    const UniqueFd process_;
    const double grace_seconds_;
    const std::function<void(const std::string &)> report_;
    const std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point workers_gone_{};
    std::map<std::string, std::string> running_;
    bool had_workers_;
    bool forced_ = false;
    bool ended_ = false;
};

}  // namespace vestra_set
