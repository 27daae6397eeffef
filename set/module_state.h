// State of the simulated kernel module: what it was told, and what it has handed out.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "set/trace/source.h"
#include "set/user_data.h"

namespace vestra_set {

// Every operation may be called from any thread; each takes the state's own lock.
class ModuleState {
  public:
    // The module was loaded anew: it is as it was at first, with tracing off and no filter. Counts stay.
    void reset();

    // One write into the node. 0, or EINVAL for what is no command; either is counted.
    int write(std::string_view text);

    // One read that was answered with `size` bytes of `block`, 0 included.
    void count_read(const uint8_t *block, size_t size);

    // One read that was answered with an error.
    void count_failed_read();

    ModuleControl control() const;

    // Grows with every change that control() shows.
    uint64_t control_version() const;

    // Everything, for people and tests:
    //   loads, tracing, disk_read, disk_write, temperature (null before the first), filter {names, pids},
    //   reads {total, empty, failed}, blocks, bytes, frames {TYPE: count}, damaged_blocks,
    //   writes, refused, last_refused, commands {NUMBER: {count, payload}}, recent [{time, command, count}], newest
    //   last; a command that repeats the one before it is counted there, with its own time
    nlohmann::json status() const;

  private:
    struct Tally {
        uint64_t count = 0;
        std::string payload;
    };
    struct Recent {
        double time;  // seconds since the epoch
        std::string text;
        uint64_t count;
    };

    void apply(const NodeCommand &command);

    mutable std::mutex mutex_;
    ModuleControl control_;
    bool temperature_known_ = false;
    uint64_t control_version_ = 1;
    uint64_t loads_ = 0;
    uint64_t reads_ = 0, empty_reads_ = 0, failed_reads_ = 0, blocks_ = 0, bytes_ = 0, damaged_blocks_ = 0;
    std::array<uint64_t, 256> frames_{};
    uint64_t writes_ = 0, refused_ = 0;
    std::string last_refused_;
    std::map<int, Tally> commands_;
    std::deque<Recent> recent_;  // the newest kRecentLimit
};

}  // namespace vestra_set
