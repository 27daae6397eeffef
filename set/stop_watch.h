// Watches a process that has been asked to end, and tells when to end it by force.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace vestra_set {

// The daemon's main loop and its reader, client and user-data threads end when it is asked to; the join of its
// process-list thread never returns. So there is nothing left to wait for once those three threads are gone.
class StopWatch {
  public:
    // `report` gets one line for each thing that happens. `process_dir` is the process's directory in procfs.
    StopWatch(std::string process_dir, double grace_seconds, std::function<void(const std::string &)> report);

    // Looks again; true when the process is to be ended by force.
    bool time_to_force();

    double elapsed_seconds() const;

  private:
    std::map<std::string, std::string> workers() const;  // thread id -> name, of the threads that end

    std::string process_dir_;
    double grace_seconds_;
    std::function<void(const std::string &)> report_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point workers_gone_{};
    std::map<std::string, std::string> running_;
    bool had_workers_;
};

}  // namespace vestra_set
