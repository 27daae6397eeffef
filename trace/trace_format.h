// trace_format.h -- the wire format of trace blocks: the contract between the kernel module, which writes them, and the
// daemon and the tools, which read them. Read this first; docs/trace-format.md documents every byte, with an example.
//
//   block    record record record ... and, at the end, an empty record
//   record   frame_len (4 bytes, little-endian, 0 to kFrameMax) | frame
//   frame    type | core (below kCoreCount) | message message ... up to the frame's end
//   message  type (varint, 1 or 2) | the elements of the frame's type | in a switch frame, the per-core block
//
// The module answers one read of its control node with one block. A reader does not decode a record that ends exactly
// at the block's last byte, so the module ends a block with an empty record.
//
// frame_walk.h reads messages, frame_writer.h writes them, percentages.h computes with their counters.
//
// No state, no log, nothing to link; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace trace {

/* ------------------------------ Sizes ------------------------------ */

constexpr size_t kBlockMax = 0x20000;    // bytes that one read of the control node asks for
constexpr uint32_t kFrameMax = 0x20000;  // bytes of a frame, its type and core included
constexpr uint32_t kLengthField = 4;     // bytes before a frame
constexpr uint32_t kRecordMax = kLengthField + kFrameMax;
constexpr int kFrameHeader = 1 + 1;              // type, core
constexpr uint32_t kEmptyRecord = kLengthField;  // bytes of the record that ends a block: a length of 0 and no frame
constexpr int kVarintMax = 10;                   // bytes
constexpr int kCoreCount = 4;
// Bytes of the longest trailer after a dump's blocks: build and model text, "QXLiteMode=-2147483648", two lengths.
constexpr size_t kTrailerMax = 121 + 32 + 22 + 2;
constexpr size_t kNameKept = 14;  // bytes of a process name that the daemon keeps

/* ------------------------------ Element tables ------------------------------ */

constexpr int kSwitchFrame = 7;  // frame types; a reader skips a frame of any other type by its length
constexpr int kMeminfoFrame = 8;

enum ElementKind : uint8_t { kVarint, kString };  // a string is a varint N, at least 1, and N bytes

// One switch message: twelve elements, then the per-core block.
enum SwitchElement {
    kSwitchTime,      // ns
    kSwitchElement1,  // carried into the vitals sample
    kSwitchPid,       // 0: no process is accounted for
    kSwitchName,
    kSwitchElement4,  // not used
    kSwitchElement5,  // not used
    kSwitchCpuA,      // ticks
    kSwitchCpuB,
    kSwitchRss,  // a process is accounted for only if both memory figures are not 0
    kSwitchSwap,
    kSwitchElement10,
    kSwitchElement11,
    kSwitchElements
};

// The per-core block: these five varints for core 0, then for core 1, 2 and 3.
enum CoreElement { kCoreUser, kCoreSystem, kCoreIdle, kCoreTemperature, kCoreIowait, kCoreElements };

// One CPU and memory message: eighteen elements. A decimal figure is two elements: its integer part and its digits.
enum MeminfoElement {
    kMeminfoTime,  // ns; 1 and 2 are not used
    kMeminfoName = 3,
    kMeminfoDecimal0 = 4,
    kMeminfoDecimal1 = 6,
    kMeminfoDecimal2 = 8,  // 10, 11 and 12 are not used
    kMeminfoPlain3 = 13,   // 14 and 15 are not used
    kMeminfoPlain4 = 16,
    kMeminfoPlain5 = 17,
    kMeminfoElements
};

constexpr ElementKind kSwitchKinds[kSwitchElements] = {kVarint, kVarint, kVarint, kString, kVarint, kVarint,
                                                       kVarint, kVarint, kVarint, kVarint, kVarint, kVarint};
constexpr ElementKind kMeminfoKinds[kMeminfoElements] = {kVarint, kVarint, kVarint, kString, kVarint, kVarint,
                                                         kVarint, kVarint, kVarint, kVarint, kVarint, kVarint,
                                                         kVarint, kVarint, kVarint, kVarint, kVarint, kVarint};
static_assert(kSwitchKinds[kSwitchName] == kString && kMeminfoKinds[kMeminfoName] == kString, "the one string of each");

// Both types have the same layout.
constexpr bool is_message_type(uint64_t type) {
    return type == 1 || type == 2;
}

/* ------------------------------ Readers ------------------------------ */
// None reads at or beyond `end`.

// Four bytes at `p`, little-endian.
inline uint32_t get_frame_len(const unsigned char *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

inline void put_frame_len(uint32_t size, unsigned char *p) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(size >> (8 * i));
}

// `next` points past the varint, or is null if it is truncated or longer than ten bytes. Bits beyond 64 are lost.
struct Varint {
    const unsigned char *next;
    uint64_t value;
};

// The varint at `at`. Not inlined, so that take_varint, the short way for most numbers, can be.
[[gnu::noinline]] inline Varint take_any_varint(const unsigned char *at, const unsigned char *end) {
    uint64_t number = 0;
    for (int shift = 0; at < end && shift < 7 * kVarintMax; shift += 7, ++at) {
        number |= uint64_t{*at & 0x7fU} << shift;
        if (*at < 0x80) return {at + 1, number};
    }
    return {nullptr, 0};
}

inline Varint take_varint(const unsigned char *at, const unsigned char *end) {
    if (end - at < kVarintMax) return take_any_varint(at, end);
    // The constants take the top bits of all bytes but the last off the sum again.
    if (at[0] < 0x80) return {at + 1, at[0]};
    if (at[1] < 0x80) return {at + 2, at[0] + (uint32_t{at[1]} << 7) - 0x80};
    if (at[2] < 0x80) return {at + 3, at[0] + (uint32_t{at[1]} << 7) + (uint32_t{at[2]} << 14) - 0x4080};
    return take_any_varint(at, end);
}

// One element at `at`: a number goes into *value, a string into *text, as a view of the frame. Returns the place after
// the element, or null if the element is malformed or truncated.
template <ElementKind kind>
inline const unsigned char *take_element(const unsigned char *at, const unsigned char *end, uint64_t *value,
                                         std::string_view *text) {
    const Varint number = take_varint(at, end);
    if (number.next == nullptr) return nullptr;
    if (kind == kVarint) return *value = number.value, number.next;
    if (number.value == 0 || number.value > static_cast<uint64_t>(end - number.next)) return nullptr;
    *text = std::string_view(reinterpret_cast<const char *>(number.next), static_cast<size_t>(number.value));
    return number.next + number.value;
}

/* ------------------------------ Figures ------------------------------ */

// `integer` with the decimal digits of `fraction` after the point: (36, 25) is 36.25. 36.05 cannot be expressed. A
// fraction below 1 adds nothing.
inline double covert_intfrac_double(int integer, int fraction) {
    if (fraction <= 0) return integer;
    int64_t scale = 1;  // ten to the number of the fraction's digits
    while (scale <= fraction) scale *= 10;
    return integer + static_cast<double>(fraction) / static_cast<double>(scale);
}

// A varint as a signed number.
inline double plain_figure(uint64_t value) {
    return static_cast<double>(static_cast<int64_t>(value));
}

// Two varints as integer part and digits.
inline double decimal_figure(const uint64_t *pair) {
    return covert_intfrac_double(static_cast<int32_t>(pair[0]), static_cast<int32_t>(pair[1]));
}

}  // namespace trace
