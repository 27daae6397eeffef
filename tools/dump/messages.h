// messages.h -- the messages of one frame, as figures.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "trace/frame_walk.h"

namespace vestra_dump {

// Counters of one core: ticks since the set was started, 250 a second; degrees Celsius.
struct CoreFigures {
    int64_t user, system, idle, temperature, iowait;
};

constexpr size_t kNameShown = 64;  // bytes of a process name

// A message of a switch frame: one process, and all cores at that moment. The daemon leaves some meanings open; the
// names here are those of the simulated module (docs/trace-format.md).
struct SwitchSample {
    int64_t time_ns;
    int32_t parent;
    int32_t pid;
    std::string_view name;           // up to its first zero byte, at most kNameShown bytes; a view of the frame
    uint64_t read_kib, written_kib;  // since the process was started; 0 where the module does not trace it
    int64_t cpu_user, cpu_system;    // ticks of the process, in all
    uint64_t rss, swap;              // KiB; 1 KiB of swap, which modules send for none, is 0 here
    double context_switches, running;
    std::array<CoreFigures, trace::kCoreCount> cores;
    uint8_t core;    // of the frame
    bool accounted;  // the daemon puts it into its memory list: process id and both memory figures are not 0
};

// A message of a CPU and memory frame.
struct MemorySample {
    int64_t time_ns;
    std::array<double, 6> figures;  // vitals 11 to 16
};

// What all messages have.
struct Stamp {
    int64_t time_ns;
    uint32_t end;          // of the message: offset in the frame
    bool believed = true;  // false: set by an analysis for a sample that does not belong to the recording
};

// The messages of a frame, up to its first fault. One object is used for frame after frame: it keeps its memory, which
// is bounded by the longest frame.
class FrameMessages {
  public:
    // Without figures, only stamps are read, which is faster.
    explicit FrameMessages(bool figures) : figures_(figures) {}

    // Reads a frame as one of `type`, a known one, and returns its fault. Names are views of the frame.
    trace::FrameFault read(const uint8_t *frame, size_t size, int type);

    void clear();

    size_t count() const { return stamps.size(); }

    // Keeps only the messages that end at or before that offset in the frame.
    void keep_up_to(size_t offset);

    // Offset in the frame past the last message, or past type and core if there is none.
    size_t end() const { return stamps.empty() ? size_t{trace::kFrameHeader} : stamps.back().end; }

    std::vector<Stamp> stamps;           // of all messages
    std::vector<SwitchSample> switches;  // one of these two is empty
    std::vector<MemorySample> memories;

  private:
    const bool figures_;
};

}  // namespace vestra_dump
