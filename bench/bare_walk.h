// The least that any reader of a trace must do: read every varint of every frame and add it up, without storing or
// checking anything. Only for the streams of trace_stream.h.
#pragma once

#include <cstdint>
#include <cstring>

namespace vestra_bench {

inline const uint8_t *skip_varint(const uint8_t *at, uint64_t *value) {
    uint64_t number = 0;
    unsigned shift = 0;
    while (*at >= 0x80) {
        number |= uint64_t{*at++ & 0x7fU} << shift;
        shift += 7;
    }
    *value = number | uint64_t{*at++} << shift;
    return at;
}

// A message: type, four elements (the last is a string's length), the string, eight elements, twenty core counters.
inline uint64_t bare_walk(const uint8_t *at, const uint8_t *end) {
    uint64_t sum = 0;
    while (at < end) {
        uint32_t length = 0;
        std::memcpy(&length, at, sizeof length);
        at += sizeof length;
        if (length == 0) continue;  // the end of a block
        const uint8_t *frame_end = at + length;
        at += 2;
        while (at < frame_end) {
            uint64_t value = 0;
            for (int i = 0; i < 5; ++i) {
                at = skip_varint(at, &value);
                sum += value;
            }
            at += value;
            for (int i = 0; i < 28; ++i) {
                at = skip_varint(at, &value);
                sum += value;
            }
        }
    }
    return sum;
}

}  // namespace vestra_bench
