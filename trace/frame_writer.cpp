#include "trace/frame_writer.h"

#include <cstring>

namespace trace {
namespace {

constexpr size_t kGroupBits = 7;
constexpr uint8_t kMore = 0x80;  // another byte follows

uint8_t *put_varint(uint8_t *out, uint64_t value) {
    while (value >= kMore) {
        *out++ = static_cast<uint8_t>(value | kMore);
        value >>= kGroupBits;
    }
    *out++ = static_cast<uint8_t>(value);
    return out;
}

// Calls number(value) for the varints of a message and text(name) for its one string, in the order of the stream. Both
// the size and the bytes of a message come from here.
template <class Number, class Text>
void visit_elements(const SwitchMessage &m, Number number, Text text) {
    number(m.type);
    number(m.time_ns);
    number(m.element1);
    number(m.pid);
    text(m.name);
    number(m.element4);
    number(m.element5);
    number(m.cpu_a);
    number(m.cpu_b);
    number(m.rss);
    number(m.swap);
    number(m.element10);
    number(m.element11);
    for (const CoreTimes &core : m.cores) {
        number(core.user);
        number(core.system);
        number(core.idle);
        number(core.temperature);
        number(core.iowait);
    }
}

template <class Number, class Text>
void visit_elements(const MeminfoMessage &m, Number number, Text text) {
    number(m.type);
    number(m.time_ns);
    number(m.element1);
    number(m.element2);
    text(m.name);
    for (const Decimal &decimal : m.decimal) {
        number(decimal.integer);
        number(decimal.fraction);
    }
    number(m.element10);
    number(m.element11);
    number(m.element12);
    number(m.figure13);
    number(m.element14);
    number(m.element15);
    number(m.figure16);
    number(m.figure17);
}

template <class Message>
size_t size_of(const Message &message) {
    size_t size = 0;
    visit_elements(
        message, [&](uint64_t value) { size += varint_size(value); },
        [&](std::string_view text) { size += varint_size(text.size()) + text.size(); });
    return size;
}

template <class Message>
void encode(const Message &message, uint8_t *out) {
    visit_elements(
        message, [&](uint64_t value) { out = put_varint(out, value); },
        [&](std::string_view text) {
            out = put_varint(out, text.size());
            if (!text.empty()) std::memcpy(out, text.data(), text.size());
            out += text.size();
        });
}

}  // namespace

size_t varint_size(uint64_t value) {
    size_t size = 1;
    while (value >= kMore) {
        value >>= kGroupBits;
        ++size;
    }
    return size;
}

size_t message_size(const SwitchMessage &message) {
    return size_of(message);
}
size_t message_size(const MeminfoMessage &message) {
    return size_of(message);
}

uint8_t *FrameWriter::start() {
    return vector_ != nullptr ? vector_->data() + vector_->size() - size_ : buffer_;
}

uint8_t *FrameWriter::take(size_t count) {
    if (count > capacity_ - size_) return nullptr;
    if (vector_ != nullptr) vector_->resize(vector_->size() + count);
    size_ += count;
    return start() + size_ - count;
}

uint8_t *FrameWriter::take_in_frame(size_t count) {
    if (frame_ == kNoFrame) return nullptr;
    const size_t length = size_ - frame_ - kLengthField;
    if (count > kFrameMax - length) return nullptr;
    uint8_t *bytes = take(count);
    if (bytes != nullptr) store_length(static_cast<uint32_t>(length + count));
    return bytes;
}

void FrameWriter::store_length(uint32_t length) {
    put_frame_len(length, frame_start());
}

bool FrameWriter::begin_frame(int type, int core) {
    uint8_t *bytes = take(kLengthField + kFrameHeader);
    if (bytes == nullptr) return false;
    frame_ = size_ - kLengthField - kFrameHeader;
    store_length(kFrameHeader);
    bytes[kLengthField] = static_cast<uint8_t>(type);
    bytes[kLengthField + 1] = static_cast<uint8_t>(core);
    return true;
}

bool FrameWriter::add(const SwitchMessage &message) {
    uint8_t *bytes = take_in_frame(size_of(message));
    if (bytes != nullptr) encode(message, bytes);
    return bytes != nullptr;
}

bool FrameWriter::add(const MeminfoMessage &message) {
    uint8_t *bytes = take_in_frame(size_of(message));
    if (bytes != nullptr) encode(message, bytes);
    return bytes != nullptr;
}

bool FrameWriter::end_block() {
    if (!begin_record(0)) return false;
    frame_ = kNoFrame;
    return true;
}

bool FrameWriter::add_varint(uint64_t value) {
    return add_long_varint(value, varint_size(value));
}

bool FrameWriter::add_long_varint(uint64_t value, size_t length) {
    uint8_t *bytes = take_in_frame(length);
    if (bytes == nullptr) return false;
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>((value & (kMore - 1U)) | (i + 1 < length ? kMore : 0U));
        value >>= kGroupBits;
    }
    return true;
}

bool FrameWriter::add_bytes(const void *bytes, size_t count) {
    uint8_t *out = take_in_frame(count);
    if (out != nullptr && count > 0) std::memcpy(out, bytes, count);
    return out != nullptr;
}

bool FrameWriter::put_bytes(const void *bytes, size_t count) {
    uint8_t *out = take(count);
    if (out == nullptr && count > 0) return false;
    frame_ = kNoFrame;
    if (count > 0) std::memcpy(out, bytes, count);
    return true;
}

bool FrameWriter::begin_record(uint32_t stated_length) {
    if (take(kLengthField) == nullptr) return false;
    frame_ = size_ - kLengthField;
    store_length(stated_length);
    return true;
}

}  // namespace trace
