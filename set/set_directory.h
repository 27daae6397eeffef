// Directories of the sets of this user on the host: ${XDG_RUNTIME_DIR or /tmp}/vestra-set-UID/NAME, beside each a lock
// file NAME.lock that is held for as long as the set runs and contains the launcher's process id.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "set/fd.h"

namespace vestra_set {

// Where the set NAME keeps its state on the host.
std::string set_directory(const std::string &name);

struct RunningSet {
    std::string name;
    pid_t launcher;
};

// The sets of this user that run now, by name.
std::vector<RunningSet> running_sets();

// A set's directory, empty at first, held for one launcher and removed with this object.
class ClaimedDirectory {
  public:
    // What a killed set has left under this name is removed. Null with `*error` set when the name is taken, or the
    // directory cannot be made or is not safe to use.
    static std::unique_ptr<ClaimedDirectory> claim(const std::string &name, std::string *error);
    ~ClaimedDirectory();
    ClaimedDirectory(const ClaimedDirectory &) = delete;
    ClaimedDirectory &operator=(const ClaimedDirectory &) = delete;

    const std::string &path() const { return path_; }

  private:
    ClaimedDirectory(std::string path, UniqueFd lock) : path_(std::move(path)), lock_(std::move(lock)) {}
    std::string path_;
    UniqueFd lock_;
};

}  // namespace vestra_set
