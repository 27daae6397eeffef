#include "set/trace/frame_check.h"

#include <algorithm>

#include "trace/frame_writer.h"

namespace vestra_set {
namespace {

constexpr size_t kLongestVarint = 10;
constexpr int kSwitchNumbers = 11 + 4 * 5;  // behind the message type: varints, not counting the name's length
constexpr int kInfoNumbers = 17;
constexpr int kNumbersBeforeName = 3;  // in either
constexpr uint64_t kAnchorMessages = 4;

// Takes fields off the front. A field that is not all there makes it fail, for good.
class Fields {
  public:
    Fields(const uint8_t *bytes, size_t size) : at_(bytes), left_(size) {}

    bool ok() const { return ok_; }
    bool empty() const { return left_ == 0; }

    uint64_t number() {
        uint64_t value = 0;
        for (size_t i = 0; ok_ && i < kLongestVarint && i < left_; ++i) {
            value |= static_cast<uint64_t>(at_[i] & 0x7f) << (7 * i);
            if ((at_[i] & 0x80) != 0) continue;
            skip(i + 1);
            return value;
        }
        ok_ = false;
        return 0;
    }

    void text() {
        const uint64_t size = number();
        if (size == 0 || size > left_) ok_ = false;
        if (ok_) skip(static_cast<size_t>(size));
    }

  private:
    void skip(size_t count) {
        at_ += count;
        left_ -= count;
    }

    const uint8_t *at_;
    size_t left_;
    bool ok_ = true;
};

}  // namespace

FrameCheck check_frame(const uint8_t *frame, size_t size, uint64_t limit) {
    FrameCheck result;
    if (size > 0) result.type = frame[0];
    if (size < kFrameHeader) return result;
    const bool known = frame[0] == kSwitchFrame || frame[0] == kMeminfoFrame;
    if (known && frame[1] >= kCoreCount) return result;
    result.verdict = FrameCheck::kGood;
    if (!known) return result;
    const int numbers = frame[0] == kSwitchFrame ? kSwitchNumbers : kInfoNumbers;
    Fields fields(frame + kFrameHeader, size - kFrameHeader);
    while (!fields.empty() && result.messages < limit) {
        const uint64_t message_type = fields.number();
        uint64_t time = 0;
        for (int i = 0; i < numbers; ++i) {
            const uint64_t value = fields.number();
            if (i == 0) time = value;
            if (i == kNumbersBeforeName - 1) fields.text();
        }
        if (!fields.ok() || message_type < 1 || message_type > 2) {
            result.verdict = FrameCheck::kBadMessage;
            return result;
        }
        const auto stamp = static_cast<int64_t>(time);
        result.first_ns = result.timed ? std::min(result.first_ns, stamp) : stamp;
        result.last_ns = result.timed ? std::max(result.last_ns, stamp) : stamp;
        result.timed = true;
        ++result.messages;
    }
    return result;
}

bool is_anchor(const uint8_t *bytes, size_t available) {
    if (available < kLengthField + kFrameHeader + 1) return false;
    const uint8_t *frame = bytes + kLengthField;
    const size_t length = get_frame_len(bytes);
    // Cheap looks first: this is asked at every byte of a damaged stretch.
    if (length > kFrameMax || length <= kFrameHeader || length > available - kLengthField) return false;
    if ((frame[0] != kSwitchFrame && frame[0] != kMeminfoFrame) || frame[1] >= kCoreCount) return false;
    const FrameCheck check = check_frame(frame, length, kAnchorMessages);
    return check.verdict == FrameCheck::kGood && check.messages > 0;
}

}  // namespace vestra_set
