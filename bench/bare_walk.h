// The least that any reader of a trace must do: read every varint of every frame and add it up, without storing or
// checking anything. It has its own loop because the checked one of trace/ takes 12 % longer. Only for the streams of
// trace_stream.h.
#pragma once

#include <cstdint>

#include "trace/trace_format.h"

namespace vestra_bench {

inline const uint8_t *add_varints(const uint8_t *at, int count, uint64_t *last, uint64_t *sum) {
    for (; count > 0; --count) {
        uint64_t number = 0;
        unsigned shift = 0;
        while (*at >= 0x80) {
            number |= uint64_t{*at++ & 0x7fU} << shift;
            shift += 7;
        }
        *last = number | uint64_t{*at++} << shift;
        *sum += *last;
    }
    return at;
}

// A message: type, four elements (the last is a string's length), the string, eight elements, twenty core counters.
inline uint64_t bare_walk(const uint8_t *at, const uint8_t *end) {
    constexpr int kUpToName = 1 + trace::kSwitchName + 1;  // message type, elements, length of the name
    constexpr int kAfterName =
        trace::kSwitchElements - trace::kSwitchName - 1 + trace::kCoreCount * int{trace::kCoreElements};
    uint64_t sum = 0;
    while (at < end) {
        const uint32_t size = trace::get_frame_len(at);
        at += trace::kLengthField;
        if (size == 0) continue;  // the end of a block
        const uint8_t *frame_end = at + size;
        at += trace::kFrameHeader;
        while (at < frame_end) {
            uint64_t last = 0;
            at = add_varints(at, kUpToName, &last, &sum) + last;
            at = add_varints(at, kAfterName, &last, &sum);
        }
    }
    return sum;
}

}  // namespace vestra_bench
