#include "tools/dump/stretch.h"

#include <algorithm>

namespace vestra_dump {
namespace {

// A run of zeros of this many bytes is damage, as a crash or a worn stick leaves it. A shorter one is empty records.
constexpr size_t kZeroRun = 128;

using trace::FrameFault;
using trace::kLengthField;

// Damage up to the next beginning of a frame at or after `from`.
Stretch damage_from(const View &view, size_t from, Reason reason) {
    const size_t to = view.last ? view.size : view.size - trace::kRecordMax;
    const size_t found = trace::find_frame(view.at, view.size, from, to);
    return {Stretch::kDamaged, reason, found == to && !view.last, found};
}

bool is_zero_run(const View &view) {
    return view.size >= kZeroRun && std::all_of(view.at, view.at + kZeroRun, [](uint8_t byte) { return byte == 0; });
}

Reason reason_of(FrameFault fault) {
    switch (fault) {
        case FrameFault::kShort:
            return Reason::kOneByte;
        case FrameFault::kCore:
            return Reason::kCore;
        case FrameFault::kMessageType:
            return Reason::kMessageType;
        case FrameFault::kElement:
            return Reason::kElement;
        default:
            return Reason::kNone;
    }
}

// A record with a possible length; `there` bytes of its frame are in the payload.
Stretch read_frame(const View &view, size_t length, size_t there, FrameMessages *messages, RereadBudget *budget) {
    const uint8_t *frame = view.at + kLengthField;
    const bool cut = there < length;
    const bool known = there > 0 && trace::is_known_type(frame[0]);
    FrameFault fault = FrameFault::kNone;
    if (known) {
        fault = messages->read(frame, there);
    } else if (length < trace::kFrameHeader) {
        fault = FrameFault::kShort;
    }
    const size_t end = kLengthField + there;
    if (known && !cut && fault == FrameFault::kNone) return {Stretch::kFrame, Reason::kNone, false, end};
    const size_t next = budget->allowed() ? trace::find_frame(view.at, view.size, 1, end) : end;
    if (next < end) {
        if (known) budget->reread(end - next);
        messages->keep_up_to(next < kLengthField ? 0 : next - kLengthField);
        return {Stretch::kDamaged, Reason::kNextInside, false, next};
    }
    if (cut) return {Stretch::kDamaged, Reason::kPayloadEnds, false, view.size};
    if (fault == FrameFault::kNone) return {Stretch::kFrame, Reason::kNone, false, end};
    return {Stretch::kDamaged, reason_of(fault), false, end};
}

}  // namespace

const char *describe(Reason reason) {
    switch (reason) {
        case Reason::kLength:
            return "an impossible length";
        case Reason::kPayloadEnds:
            return "the payload ends inside the frame";
        case Reason::kNextInside:
            return "the next frame begins inside";
        case Reason::kZeros:
            return "nothing but zeros";
        case Reason::kOneByte:
            return "a frame of one byte";
        case Reason::kCore:
            return "an invalid core id";
        case Reason::kMessageType:
            return "an invalid message type";
        case Reason::kElement:
            return "a truncated, oversized or empty element";
        default:
            return "";
    }
}

Stretch read_stretch(const View &view, bool searching, FrameMessages *messages, RereadBudget *budget) {
    messages->clear();
    if (searching) {
        const Stretch damage = damage_from(view, 0, Reason::kNone);
        if (damage.size > 0) return damage;
    }
    if (view.size < kLengthField) return {Stretch::kDamaged, Reason::kPayloadEnds, false, view.size};
    const uint32_t length = trace::get_frame_len(view.at);
    if (length == 0) {
        if (is_zero_run(view)) return damage_from(view, kZeroRun - kLengthField, Reason::kZeros);
        return {Stretch::kEmpty, Reason::kNone, false, kLengthField};
    }
    if (length > trace::kFrameMax) return damage_from(view, 1, Reason::kLength);
    return read_frame(view, length, std::min<size_t>(length, view.size - kLengthField), messages, budget);
}

}  // namespace vestra_dump
