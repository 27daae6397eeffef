// frame_writer.h -- the one writer of trace frames: for the simulated module, tests and benchmarks. The layout is in
// docs/trace-format.md.
//
//   FrameWriter writer(buffer, sizeof buffer);        or FrameWriter writer(&vector), which appends
//   writer.begin_frame(kSwitchFrame, core);
//   while (more && writer.add(message)) ...           false: no room, nothing was written
//   writer.end_block();
//   writer.size();
//
// The length of a frame is right after every call; there is nothing to close. With a fixed buffer nothing is allocated
// and nothing throws; with a vector, a call may throw what growing it throws. Nobody else may append to the vector
// while the writer is in use.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "trace/trace_format.h"

namespace trace {

// Counters since the set was started, 250 a second on each core.
struct CoreTimes {
    uint64_t user = 0;
    uint64_t system = 0;
    uint64_t idle = 0;
    uint64_t temperature = 0;  // degrees Celsius; below zero: two's complement
    uint64_t iowait = 0;
};

// One message of a switch frame: elements 0 to 11 in order, then the cores. docs/trace-format.md says what the
// simulated module puts in; the writer takes every value.
struct SwitchMessage {
    uint64_t type = 1;      // message type; readers take 1 and 2
    uint64_t time_ns = 0;   // 0
    uint64_t element1 = 0;  // 1
    uint64_t pid = 0;       // 2
    std::string_view name;  // 3: a view of the caller's bytes; readers refuse an empty one
    uint64_t element4 = 0;
    uint64_t element5 = 0;
    uint64_t cpu_a = 0;  // 6: clock ticks of the process
    uint64_t cpu_b = 0;  // 7
    uint64_t rss = 0;    // 8: KiB
    uint64_t swap = 0;   // 9: KiB
    uint64_t element10 = 0;
    uint64_t element11 = 0;
    std::array<CoreTimes, kCoreCount> cores{};
};

// An integer part, and the digits after the point as a number. Digits that begin with 0 cannot be expressed.
struct Decimal {
    uint64_t integer = 0;
    uint64_t fraction = 0;
};

// One digit after the point can always be expressed: 365 tenths are 36.5.
constexpr Decimal tenths(uint64_t value) {
    return {value / 10, value % 10};
}

// One message of a CPU and memory frame: eighteen elements in order.
struct MeminfoMessage {
    uint64_t type = 1;
    uint64_t time_ns = 0;  // 0
    uint64_t element1 = 0;
    uint64_t element2 = 0;
    std::string_view name;             // 3
    std::array<Decimal, 3> decimal{};  // 4 and 5, 6 and 7, 8 and 9
    uint64_t element10 = 0;
    uint64_t element11 = 0;
    uint64_t element12 = 0;
    uint64_t figure13 = 0;
    uint64_t element14 = 0;
    uint64_t element15 = 0;
    uint64_t figure16 = 0;
    uint64_t figure17 = 0;
};

// Bytes of a value as a varint, 1 to 10.
size_t varint_size(uint64_t value);

// Bytes of a message in a frame, its type included.
size_t message_size(const SwitchMessage &message);
size_t message_size(const MeminfoMessage &message);

// Every operation that writes returns false, with nothing written, when the bytes do not fit into the buffer or would
// make the frame longer than kFrameMax. One thread.
class FrameWriter {
  public:
    FrameWriter(uint8_t *buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}
    explicit FrameWriter(std::vector<uint8_t> *out) : vector_(out), capacity_(SIZE_MAX) {}

    size_t size() const { return size_; }  // bytes written by this writer
    size_t room() const { return capacity_ - size_; }

    // Ends the frame before. A frame without a message is well-formed.
    bool begin_frame(int type, int core);

    // Adds to the frame that was begun last; false, too, when there is none.
    bool add(const SwitchMessage &message);
    bool add(const MeminfoMessage &message);

    // Writes the empty record that ends a block.
    bool end_block();

    // For frames that are malformed on purpose.
    bool add_varint(uint64_t value);                      // adds to the frame
    bool add_long_varint(uint64_t value, size_t length);  // in `length` bytes: padded with empty groups, or truncated
    bool add_bytes(const void *bytes, size_t count);      // adds to the frame
    bool put_bytes(const void *bytes, size_t count);      // after the frame, and part of none
    bool begin_record(uint32_t stated_length);  // a length field alone; whatever is added to the frame corrects it

  private:
    uint8_t *take(size_t count);
    uint8_t *take_in_frame(size_t count);
    uint8_t *frame_start() { return start() + frame_; }
    uint8_t *start();
    void store_length(uint32_t length);

    static constexpr size_t kNoFrame = SIZE_MAX;

    uint8_t *buffer_ = nullptr;
    std::vector<uint8_t> *vector_ = nullptr;
    size_t capacity_ = 0;
    size_t size_ = 0;
    size_t frame_ = kNoFrame;  // offset of the length field of the frame that messages go into
};

}  // namespace trace
