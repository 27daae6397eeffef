// State of the simulated kernel module: the commands it received and the blocks it handed out.
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

// Any thread may call any operation; each takes the state's lock.
class ModuleState {
  public:
    // The module was loaded again: tracing is off and there is no filter. Counts stay.
    void reset();

    // Handles a write to the node. Returns 0, or EINVAL for an unknown command, and counts either.
    int write(std::string_view text);

    // Counts a read that was answered with `size` bytes of `block`, which may be 0.
    void count_read(const uint8_t *block, size_t size);

    // Counts a read that was answered with an error.
    void count_failed_read();

    ModuleControl control() const;

    // Grows with every change of control().
    uint64_t control_version() const;

    // Everything, for people and tests:
    //   loads, tracing, disk_read, disk_write, temperature (null before the first), filter {names, pids},
    //   reads {total, empty, failed}, blocks, bytes, frames {TYPE: count}, damaged_blocks,
    //   writes, refused, last_refused, commands {NUMBER: {count, payload}},
    //   recent [{time, command, count}]: newest last; a repeated command is counted and gets the new time
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
