// The sets of this user that run, on the host: a directory ${XDG_RUNTIME_DIR or /tmp}/vestra-set-UID/NAME for each, and
// a lock file NAME.lock that the launcher holds for as long as the set runs. The lock file holds a RunningSet as JSON.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "set/fd.h"

namespace vestra_set {

// Where the set NAME keeps its state on the host.
std::string set_directory(const std::string &name);

// In the directory of a set whose program was ended by force, and on purpose.
constexpr const char *kForcedMark = "/ended-by-force";

struct RunningSet {
    std::string name;
    pid_t launcher = 0;   // its process id
    pid_t process = 0;    // the program's; 0 while the set is not up
    uint64_t start = 0;   // when the program was started, in clock ticks since the machine was
    int stop_signal = 0;  // stops the program in order
    std::string program;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RunningSet, name, launcher, process, start, stop_signal, program)

// A set's directory, empty at first, held by one launcher and removed with this object.
class ClaimedDirectory {
  public:
    // Removes what a killed set has left under this name. Throws Failure when the name is taken, or the directory
    // cannot be made or is not safe to use.
    explicit ClaimedDirectory(const std::string &name);
    ~ClaimedDirectory();
    ClaimedDirectory(const ClaimedDirectory &) = delete;
    ClaimedDirectory &operator=(const ClaimedDirectory &) = delete;

    const std::string &path() const { return path_; }

    // Says what runs in the set. False with errno set on failure.
    bool announce(const RunningSet &set);

  private:
    ClaimedDirectory() = default;

    std::string path_;
    UniqueFd lock_;
};

// The sets of this user that run now, by name; and the one of a name.
std::vector<RunningSet> running_sets();
std::optional<RunningSet> find_set(const std::string &name);

// The same for a command that needs the set to be up; throws Failure where it is not.
RunningSet find_running_set(const std::string &name);

// Directory of a process in /proc. It stays with that process: once the process has ended, what is looked up in it
// fails, even if another process has got the process id.
UniqueFd open_process(pid_t process);

// When that process was started; 0 once it has ended.
uint64_t start_time(const UniqueFd &process);

// Sends a signal to that process. False with errno set when it has ended.
bool signal_process(const UniqueFd &process, int number);

// That of a set's program. Not valid when it has ended, or the set is not up.
UniqueFd open_program(const RunningSet &set);

// Path of such a directory, for this process and others of this user.
std::string process_path(const UniqueFd &process);

}  // namespace vestra_set
