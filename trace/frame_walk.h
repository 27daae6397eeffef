// frame_walk.h -- reads trace data record by record and message by message, for everyone but the daemon: its own walk
// (vestra-daemon/decoder.cpp) is made for speed and logs what is wrong with each field.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "trace/trace_format.h"

namespace trace {

// A frame record. `next` points past it, or is null if the record is truncated or its length is greater than kFrameMax.
struct Record {
    const uint8_t *next;
    const uint8_t *frame;
    uint32_t size;  // of the frame; 0: an empty record
};

// The record at `at`. Reads nothing at or beyond `end`.
inline Record take_record(const uint8_t *at, const uint8_t *end) {
    if (end - at < static_cast<ptrdiff_t>(kLengthField)) return {nullptr, nullptr, 0};
    const uint32_t size = get_frame_len(at);
    const uint8_t *frame = at + kLengthField;
    if (size > kFrameMax || size > static_cast<size_t>(end - frame)) return {nullptr, nullptr, 0};
    return {frame + size, frame, size};
}

inline bool is_known_type(int frame_type) {
    return frame_type == kSwitchFrame || frame_type == kMeminfoFrame;
}

enum class FrameFault : uint8_t {
    kNone,
    kShort,        // no room for type and core
    kCore,         // invalid core id
    kMessageType,  // neither 1 nor 2
    kElement       // truncated, a number of more than ten bytes, or an empty string
};

// The messages of one frame of a known type, up to its end or its first fault.
//
//   for (FrameWalk walk(frame, size); walk.next();) use(walk.value(kSwitchTime));
class FrameWalk {
  public:
    // `size` is above 0. The frame must outlive the walk. The second form takes the frame for one of `type`, a known one,
    // whatever it says.
    FrameWalk(const uint8_t *frame, size_t size) : FrameWalk(frame, size, frame[0]) {}
    FrameWalk(const uint8_t *frame, size_t size, int type);

    // Reads the next message. False at the frame's end, and from the first fault on.
    bool next() { return next(false); }

    // The same, but of the message's values only the time is read, which is faster.
    bool next_time() { return next(true); }

    // The message that was just read.
    uint64_t value(int element) const { return values_[element]; }           // SwitchElement or MeminfoElement
    const uint64_t *values(int element) const { return values_ + element; }  // that element and those after it
    std::string_view name() const { return name_; }                          // a view of the frame
    uint64_t core(int core, CoreElement element) const { return cores_[core][element]; }  // in a switch frame

    FrameFault fault() const { return fault_; }
    size_t offset() const { return static_cast<size_t>(at_ - frame_); }  // in the frame, past that message

  private:
    bool next(bool time_only);
    const uint8_t *take_body(const uint8_t *at);
    const uint8_t *skip_body(const uint8_t *at);

    const uint8_t *const frame_;
    const uint8_t *at_;
    const uint8_t *end_;
    const int type_;
    FrameFault fault_ = FrameFault::kNone;
    uint64_t values_[std::max<int>(kSwitchElements, kMeminfoElements)] = {};
    uint64_t cores_[kCoreCount][kCoreElements] = {};
    std::string_view name_;
};

// Whether the `size` bytes at `at` look so much like a frame record (a known type, well-formed messages) that a reader
// which has lost its place may go on from here. Looks at no more than eight messages, because bytes can be laid out so
// that nearly every one begins a long frame with a fault at its end.
bool begins_frame(const uint8_t *at, size_t size);

// The first place in [from, to) at which a frame begins, else `to`; all in the `size` bytes at `at`.
inline size_t find_frame(const uint8_t *at, size_t size, size_t from, size_t to) {
    while (from < to && !begins_frame(at + from, size - from)) ++from;
    return from;
}

}  // namespace trace
