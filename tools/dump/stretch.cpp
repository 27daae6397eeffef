#include "tools/dump/stretch.h"

#include <algorithm>

namespace vestra_dump {
namespace {

// A run of zeros of this many bytes is damage, as a crash or a worn stick leaves it. A shorter one is empty records.
constexpr size_t kZeroRun = 128;
// Frames of unknown types in a row that are taken for those of a newer module.
constexpr int kUnknownRun = 3;

using trace::FrameFault;
using trace::kFrameMax;
using trace::kLengthField;

bool is_zeros(const View &view, size_t from, size_t count) {
    return view.size >= from + count &&
           std::all_of(view.at + from, view.at + from + count, [](uint8_t byte) { return byte == 0; });
}

// Whether a record can end at that place: a frame or the payload's end follows, after empty records or at once.
bool can_end_at(const View &view, size_t place) {
    for (size_t zeros = 0; zeros < kZeroRun && is_zeros(view, place, kLengthField); zeros += kLengthField) {
        place += kLengthField;
    }
    return (place == view.size && view.last) ||
           (place < view.size && trace::begins_frame(view.at + place, view.size - place));
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

}  // namespace

const char *describe(Reason reason) {
    switch (reason) {
        case Reason::kLength:
            return "an impossible length";
        case Reason::kWrongLength:
            return "a wrong length";
        case Reason::kPayloadEnds:
            return "the payload ends inside the frame";
        case Reason::kNextInside:
            return "the next frame begins inside";
        case Reason::kZeros:
            return "nothing but zeros";
        case Reason::kType:
            return "an unknown frame type";
        case Reason::kOneByte:
            return "a frame of one byte";
        case Reason::kCore:
            return "an invalid core id";
        case Reason::kMessageType:
            return "an invalid message type";
        case Reason::kElement:
            return "a truncated, oversized or empty element";
        case Reason::kUnreadable:
            return "cannot be read";
        case Reason::kAstray:
            return "time stamps of another recording";
        case Reason::kCounters:
            return "more clock ticks than there can be";
        default:
            return "";
    }
}

// Damage up to the next beginning of a frame at or after `from`.
Stretch StretchReader::damage_from(const View &view, size_t from, Reason reason) {
    const size_t to = view.last ? view.size : view.size - trace::kRecordMax;
    const size_t found = trace::find_frame(view.at, view.size, from, to);
    searching_ = found == to && !view.last;
    return {Stretch::kDamaged, reason, found};
}

FrameFault StretchReader::read_messages(const uint8_t *frame, size_t size, int type, FrameMessages *messages) {
    const FrameFault fault = messages->read(frame, size, type);
    walked_ += fault == FrameFault::kNone ? size : messages->end();
    return fault;
}

// Reads the messages as those of the type that the frame says, or if that is unknown, of the type that gives more.
void StretchReader::read_as_likely(const uint8_t *frame, size_t size, FrameMessages *messages) {
    if (trace::is_known_type(frame[0])) {
        read_messages(frame, size, frame[0], messages);
        return;
    }
    read_messages(frame, size, trace::kMeminfoFrame, messages);
    const size_t end = messages->end();
    read_messages(frame, size, trace::kSwitchFrame, messages);
    if (messages->end() < end) read_messages(frame, size, trace::kMeminfoFrame, messages);
}

// Whether the frame belongs to a number of frames of unknown types, one after the other and well-formed as far as one can
// tell.
bool StretchReader::is_of_unknown_run(const View &view) const {
    const uint8_t *at = view.at, *const end = view.at + view.size;
    for (int frames = unknown_run_ ? kUnknownRun - 1 : 0; frames < kUnknownRun; ++frames) {
        const trace::Record record = trace::take_record(at, end);
        if (record.next == nullptr || record.size < trace::kFrameHeader || trace::is_known_type(record.frame[0]) ||
            record.frame[1] >= trace::kCoreCount) {
            return false;
        }
        at = record.next;
    }
    return true;
}

// A record with a fault.
Stretch StretchReader::read_damaged(const View &view, Reason reason, FrameMessages *messages) {
    const size_t length = trace::get_frame_len(view.at), left = view.size - kLengthField;
    const bool whole = length <= left && length <= kFrameMax;
    const size_t end = kLengthField + std::min(length, left);
    const auto skipped = [&]() -> Stretch {
        if (length > kFrameMax) return damage_from(view, 1, reason);
        return {Stretch::kDamaged, reason, whole ? end : view.size};
    };
    if (reread_ > kFreeRereads + passed_) return skipped();
    const uint8_t *frame = view.at + kLengthField;
    const size_t extent = std::min<size_t>(left, kFrameMax);
    messages->clear();
    if (extent >= trace::kFrameHeader && frame[1] < trace::kCoreCount) read_as_likely(frame, extent, messages);
    // The length may be what is wrong. Then the messages end where the next record begins.
    const size_t messages_end = kLengthField + messages->end();
    const bool goes_on = messages->count() > 0 && messages_end != end && can_end_at(view, messages_end);
    const size_t next = trace::find_frame(view.at, view.size, 1, goes_on ? messages_end : end);
    if (goes_on && next == messages_end) {
        const bool inside = messages_end < end && whole;
        return {Stretch::kDamaged, inside ? Reason::kNextInside : whole ? Reason::kWrongLength : reason, messages_end};
    }
    if (length <= kFrameMax && next < end) {
        messages->keep_up_to(next < kLengthField ? 0 : next - kLengthField);
        return {Stretch::kDamaged, Reason::kNextInside, next};
    }
    messages->keep_up_to(length > kFrameMax ? 0 : end - kLengthField);
    return skipped();
}

Stretch StretchReader::read_record(const View &view, FrameMessages *messages) {
    const size_t length = trace::get_frame_len(view.at), left = view.size - kLengthField;
    if (length > kFrameMax) return read_damaged(view, Reason::kLength, messages);
    if (length > left) return read_damaged(view, Reason::kPayloadEnds, messages);
    const uint8_t *frame = view.at + kLengthField;
    const size_t end = kLengthField + length;
    Reason reason = Reason::kOneByte;
    if (trace::is_known_type(frame[0])) {
        const FrameFault fault = read_messages(frame, length, frame[0], messages);
        if (fault == FrameFault::kNone) return {Stretch::kFrame, Reason::kNone, end};
        reason = reason_of(fault);
    } else if (length >= trace::kFrameHeader) {
        read_as_likely(frame, length, messages);
        reason = Reason::kType;
        if (messages->count() > 0 && messages->end() == length) return {Stretch::kDamaged, reason, end};
        if (is_of_unknown_run(view)) {
            messages->clear();
            return {Stretch::kFrame, Reason::kNone, end};
        }
    }
    return read_damaged(view, reason, messages);
}

Stretch StretchReader::read_any(const View &view, FrameMessages *messages) {
    messages->clear();
    if (searching_) {
        const Stretch damage = damage_from(view, 0, Reason::kNone);
        if (damage.size > 0) return damage;
    }
    if (view.size < kLengthField) return {Stretch::kDamaged, Reason::kPayloadEnds, view.size};
    if (trace::get_frame_len(view.at) != 0) return read_record(view, messages);
    if (is_zeros(view, 0, kZeroRun)) return damage_from(view, kZeroRun - kLengthField, Reason::kZeros);
    return {Stretch::kEmpty, Reason::kNone, kLengthField};
}

Stretch StretchReader::read(const View &view, FrameMessages *messages) {
    walked_ = 0;
    const Stretch stretch = read_any(view, messages);
    reread_ += walked_ - std::min<uint64_t>(walked_, stretch.size);
    unknown_run_ =
        stretch.kind == Stretch::kFrame && messages->count() == 0 && !trace::is_known_type(view.at[kLengthField]);
    passed_ += stretch.size;
    return stretch;
}

}  // namespace vestra_dump
