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

FrameWalk::FrameWalk(const uint8_t *frame, size_t size) : frame_(frame), at_(frame), end_(frame + size) {
    if (size < kFrameHeader) {
        fault_ = FrameFault::kShort;
        return;
    }
    if (frame[1] >= kCoreCount) fault_ = FrameFault::kCore;
    at_ += kFrameHeader;
}

// The elements of one message. Returns the place after them, or null.
const uint8_t *FrameWalk::take_body(const uint8_t *at) {
    if (frame_[0] == kMeminfoFrame) {
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

bool FrameWalk::next() {
    if (fault_ != FrameFault::kNone || at_ == end_) return false;
    const Varint type = take_varint(at_, end_);
    if (type.next != nullptr && !is_message_type(type.value)) {
        fault_ = FrameFault::kMessageType;
        return false;
    }
    const uint8_t *after = type.next != nullptr ? take_body(type.next) : nullptr;
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
    while (messages < kBelieved && walk.next()) ++messages;
    return messages > 0 && walk.fault() == FrameFault::kNone;
}

}  // namespace trace
