#include "trace/frame_walk.h"

#include <utility>

namespace trace {
namespace {

// Reads the elements of a table. Returns the place after them, or null. The compiler unrolls it.
template <const ElementKind *kinds, size_t... i>
const uint8_t *take_elements(const uint8_t *at, const uint8_t *end, uint64_t *values, std::string_view *name,
                             std::index_sequence<i...> /*all*/) {
    const bool taken = (((at = take_element<kinds[i]>(at, end, &values[i], name)) != nullptr) && ...);
    return taken ? at : nullptr;
}

}  // namespace

FrameWalk::FrameWalk(const uint8_t *frame, size_t size, int type)
    : frame_(frame), at_(frame), end_(frame + size), type_(type) {
    if (size < kFrameHeader) {
        fault_ = FrameFault::kShort;
        return;
    }
    if (frame[1] >= kCoreCount) fault_ = FrameFault::kCore;
    at_ += kFrameHeader;
}

// The elements of one message. Returns the place after them, or null.
const uint8_t *FrameWalk::take_body(const uint8_t *at) {
    if (type_ == kMeminfoFrame) {
        return take_elements<kMeminfoKinds>(at, end_, values_, &name_, std::make_index_sequence<kMeminfoElements>());
    }
    at = take_elements<kSwitchKinds>(at, end_, values_, &name_, std::make_index_sequence<kSwitchElements>());
    for (auto &core : cores_) {
        for (uint64_t &figure : core) {
            if (at == nullptr) return nullptr;
            at = take_element<kVarint>(at, end_, &figure, &name_);
        }
    }
    return at;
}

// Skips that many varints, as take_varint would one after the other. Returns the place after them, or null.
static const uint8_t *skip_varints(const uint8_t *at, const uint8_t *end, int count) {
    constexpr uint64_t kTopBits = 0x8080808080808080;
    int length = 0;  // bytes of the varint at `at` that were passed
    while (end - at >= 8) {
        const uint64_t bytes = get_frame_len(at) | uint64_t{get_frame_len(at + 4)} << 32;
        uint64_t ends = ~bytes & kTopBits;  // the last byte of each varint
        if (ends == 0 || length + __builtin_ctzll(ends) / 8 >= kVarintMax) break;
        const auto there = static_cast<int>((ends >> 7) * 0x0101010101010101 >> 56);  // adds the bits up
        if (there >= count) {
            for (; count > 1; --count) ends &= ends - 1;
            return at + __builtin_ctzll(ends) / 8 + 1;
        }
        count -= there;
        length = __builtin_clzll(ends) / 8;
        at += 8;
    }
    for (at -= length; count > 0 && at != nullptr; --count) at = take_varint(at, end).next;
    return at;
}

const uint8_t *FrameWalk::skip_body(const uint8_t *at) {
    static_assert(kSwitchTime == 0 && kMeminfoTime == 0 && kSwitchName == 3 && kMeminfoName == 3);
    const Varint time = take_varint(at, end_);
    values_[0] = time.value;
    if (time.next == nullptr) return nullptr;
    at = skip_varints(time.next, end_, 2);
    if (at == nullptr) return nullptr;
    uint64_t ignored = 0;
    at = take_element<kString>(at, end_, &ignored, &name_);
    if (at == nullptr) return nullptr;
    return skip_varints(at, end_,
                        type_ == kMeminfoFrame ? kMeminfoElements - kMeminfoName - 1
                                               : kSwitchElements - kSwitchName - 1 + kCoreCount * kCoreElements);
}

bool FrameWalk::next(bool time_only) {
    if (fault_ != FrameFault::kNone || at_ == end_) return false;
    const Varint type = take_varint(at_, end_);
    if (type.next != nullptr && !is_message_type(type.value)) {
        fault_ = FrameFault::kMessageType;
        return false;
    }
    const uint8_t *after = type.next == nullptr ? nullptr : time_only ? skip_body(type.next) : take_body(type.next);
    if (after == nullptr) {
        fault_ = FrameFault::kElement;
        return false;
    }
    at_ = after;
    return true;
}

bool begins_frame(const uint8_t *at, size_t size) {
    constexpr int kBelieved = 8;  // messages
    constexpr size_t kLeast = kLengthField + kFrameHeader + 1;
    static_assert(kFrameMax < 1U << 24, "the last byte of a length is 0");
    if (size < kLeast || at[3] != 0 || !is_known_type(at[kLengthField])) return false;  // most places end here
    const Record record = take_record(at, at + size);
    if (record.next == nullptr || record.size <= kFrameHeader) return false;
    FrameWalk walk(record.frame, record.size);
    int messages = 0;
    while (messages < kBelieved && walk.next_time()) ++messages;
    return messages > 0 && walk.fault() == FrameFault::kNone;
}

}  // namespace trace
