#include "tools/dump/record.h"

#include <algorithm>

namespace vestra_dump {
namespace {

// Rows of empty records that are taken as such; longer ones are what a crash or a worn stick leaves behind.
constexpr size_t kZeroRow = 128;  // bytes

using trace::FrameFault;
using trace::kLengthField;

// Damage from here to where the next frame begins.
Record search(const View &view, size_t from, Reason reason) {
    const size_t to = view.last ? view.size : view.size - trace::kRecordMax;
    const size_t found = trace::find_frame(view.at, view.size, from, to);
    return {Record::kDamaged, reason, found == to && !view.last, found};
}

bool is_zero_row(const View &view) {
    return view.size >= kZeroRow && std::all_of(view.at, view.at + kZeroRow, [](uint8_t byte) { return byte == 0; });
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

// A record whose length can be one; `there` bytes of its frame are in the payload.
Record judge_frame(const View &view, size_t length, size_t there, FrameMessages *messages, Rework *rework) {
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
    if (known && !cut && fault == FrameFault::kNone) return {Record::kFrame, Reason::kNone, false, end};
    const size_t next = rework->allowed() ? trace::find_frame(view.at, view.size, 1, end) : end;
    if (next < end) {
        if (known) rework->again(end - next);
        messages->keep_up_to(next < kLengthField ? 0 : next - kLengthField);
        return {Record::kDamaged, Reason::kNextInside, false, next};
    }
    if (cut) return {Record::kDamaged, Reason::kPayloadEnds, false, view.size};
    if (fault == FrameFault::kNone) return {Record::kFrame, Reason::kNone, false, end};
    return {Record::kDamaged, reason_of(fault), false, end};
}

}  // namespace

const char *describe(Reason reason) {
    switch (reason) {
        case Reason::kLength:
            return "a length that no frame has";
        case Reason::kPayloadEnds:
            return "the payload ends inside the frame";
        case Reason::kNextInside:
            return "the next frame begins inside";
        case Reason::kZeros:
            return "nothing but zeros";
        case Reason::kOneByte:
            return "a frame of one byte";
        case Reason::kCore:
            return "a core that is none";
        case Reason::kMessageType:
            return "a message type that is none";
        case Reason::kElement:
            return "an element that is cut short, too long or empty";
        default:
            return "";
    }
}

Record judge_record(const View &view, bool searching, FrameMessages *messages, Rework *rework) {
    messages->clear();
    if (searching) {
        const Record damage = search(view, 0, Reason::kNone);
        if (damage.size > 0) return damage;
    }
    if (view.size < kLengthField) return {Record::kDamaged, Reason::kPayloadEnds, false, view.size};
    const uint32_t length = trace::get_frame_len(view.at);
    if (length == 0) {
        if (is_zero_row(view)) return search(view, kZeroRow - kLengthField, Reason::kZeros);
        return {Record::kEmpty, Reason::kNone, false, kLengthField};
    }
    if (length > trace::kFrameMax) return search(view, 1, Reason::kLength);
    return judge_frame(view, length, std::min<size_t>(length, view.size - kLengthField), messages, rework);
}

}  // namespace vestra_dump
