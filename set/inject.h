// Faults that a test makes the simulated kernel module commit, from the file "module/inject" in the state directory.
//
// The file is text, one fault a line; other lines are ignored:
//   empty N         the next N reads return 0 bytes
//   error N [CODE]  the next N reads fail with errno CODE (a number; EIO by default)
//   stall           reads wait until the line, or the file, is gone
//   size N          blocks have at most N bytes
// Each read of the node looks at the file. When it has changed (replace it, rather than write into it), the counts
// start again. Without a file the module behaves.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace vestra_set {

class Injector {
  public:
    explicit Injector(std::string path) : path_(std::move(path)) {}

    struct Verdict {
        enum { kRead, kEmpty, kError, kStall } what = kRead;
        int error = 0;                 // kError: errno
        size_t size_limit = SIZE_MAX;  // kRead: bytes
    };

    // What happens to a read that comes now; takes one off the counts. After kStall, ask again. Any thread.
    Verdict next();

  private:
    void load();

    const std::string path_;
    std::mutex mutex_;       // guards all below
    struct stat loaded_ {};  // of the file when it was read
    uint32_t empty_ = 0;
    uint32_t errors_ = 0;
    int error_ = 0;
    bool stall_ = false;
    size_t size_limit_ = SIZE_MAX;
};

}  // namespace vestra_set
