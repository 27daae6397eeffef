#include "tools/dump/messages.h"

#include <algorithm>
#include <cstring>

namespace vestra_dump {
namespace {

constexpr int kMostElements = trace::kMeminfoElements;
static_assert(int{trace::kSwitchElements} <= kMostElements);
constexpr size_t kSmallestMessage = 1 + trace::kMeminfoElements + 1;  // one byte each, and one of text
static_assert(kSmallestMessage < 1 + trace::kSwitchElements + 1 + trace::kCoreCount * int{trace::kCoreElements});

// Takes fields off a frame's messages. Each returns false, and the frame is at its fault, when it is not all there.
class Fields {
  public:
    Fields(const uint8_t *begin, const uint8_t *end) : at_(begin), end_(end) {}

    bool at_end() const { return at_ == end_; }
    const uint8_t *at() const { return at_; }

    bool number(uint64_t *value) {
        const trace::Varint number = trace::take_varint(at_, end_);
        if (number.next == nullptr) return false;
        *value = number.value;
        at_ = number.next;
        return true;
    }

    bool text(std::string_view *text) {
        uint64_t size = 0;
        if (!number(&size) || size == 0 || size > static_cast<uint64_t>(end_ - at_)) return false;
        *text = {reinterpret_cast<const char *>(at_), static_cast<size_t>(size)};
        at_ += size;
        return true;
    }

    template <size_t count>
    bool elements(const trace::ElementKind (&kinds)[count], uint64_t *value, std::string_view *name) {
        for (size_t i = 0; i < count; ++i) {
            if (kinds[i] == trace::kString ? !text(name) : !number(&value[i])) return false;
        }
        return true;
    }

  private:
    const uint8_t *at_;
    const uint8_t *end_;
};

int64_t to_signed(uint64_t value) {
    return static_cast<int64_t>(value);
}

bool read_switch(Fields *fields, SwitchSample *sample) {
    uint64_t value[kMostElements];
    std::string_view name;
    if (!fields->elements(trace::kSwitchKinds, value, &name)) return false;
    for (CoreFigures &core : sample->cores) {
        uint64_t figure[trace::kCoreElements];
        for (uint64_t &one : figure) {
            if (!fields->number(&one)) return false;
        }
        core.user = to_signed(figure[trace::kCoreUser]);
        core.system = to_signed(figure[trace::kCoreSystem]);
        core.idle = to_signed(figure[trace::kCoreIdle]);
        core.temperature = to_signed(figure[trace::kCoreTemperature]);
        core.iowait = to_signed(figure[trace::kCoreIowait]);
    }
    name = name.substr(0, kNameShown);
    sample->name = name.substr(0, strnlen(name.data(), name.size()));
    sample->time_ns = to_signed(value[trace::kSwitchTime]);
    sample->parent = static_cast<int32_t>(value[trace::kSwitchElement1]);
    sample->pid = static_cast<int32_t>(value[trace::kSwitchPid]);
    sample->read_kib = value[trace::kSwitchElement4];
    sample->written_kib = value[trace::kSwitchElement5];
    sample->cpu_user = to_signed(value[trace::kSwitchCpuA]);
    sample->cpu_system = to_signed(value[trace::kSwitchCpuB]);
    sample->rss = value[trace::kSwitchRss];
    sample->swap = value[trace::kSwitchSwap];
    sample->context_switches = trace::plain_figure(value[trace::kSwitchElement10]);
    sample->running = trace::plain_figure(value[trace::kSwitchElement11]);
    sample->accounted = value[trace::kSwitchPid] != 0 && sample->rss != 0 && sample->swap != 0;
    return true;
}

bool read_memory(Fields *fields, MemorySample *sample) {
    uint64_t value[kMostElements];
    std::string_view name;
    if (!fields->elements(trace::kMeminfoKinds, value, &name)) return false;
    sample->time_ns = to_signed(value[trace::kMeminfoTime]);
    sample->figures = {
        trace::decimal_figure(&value[trace::kMeminfoDecimal0]), trace::decimal_figure(&value[trace::kMeminfoDecimal1]),
        trace::decimal_figure(&value[trace::kMeminfoDecimal2]), trace::plain_figure(value[trace::kMeminfoPlain3]),
        trace::plain_figure(value[trace::kMeminfoPlain4]),      trace::plain_figure(value[trace::kMeminfoPlain5])};
    return true;
}

bool skip_message(bool is_switch, Fields *fields) {
    uint64_t value[kMostElements];
    std::string_view name;
    if (!is_switch) return fields->elements(trace::kMeminfoKinds, value, &name);
    if (!fields->elements(trace::kSwitchKinds, value, &name)) return false;
    for (int i = 0; i < trace::kCoreCount * int{trace::kCoreElements}; ++i) {
        if (!fields->number(value)) return false;
    }
    return true;
}

// What is wrong with a frame of known type before its first message.
Fault header_fault(const uint8_t *frame, size_t size) {
    if (size < static_cast<size_t>(trace::kFrameHeader)) return Fault::kOneByte;
    return frame[1] < trace::kCoreCount ? Fault::kNone : Fault::kCore;
}

// Walks the messages: `take` reads one body.
template <class Take>
Fault walk(const uint8_t *frame, size_t size, Take take) {
    const Fault fault = header_fault(frame, size);
    if (fault != Fault::kNone) return fault;
    Fields fields(frame + trace::kFrameHeader, frame + size);
    bool going = true;
    while (going && !fields.at_end()) {
        uint64_t type = 0;
        if (!fields.number(&type)) return Fault::kElement;
        if (!trace::is_message_type(type)) return Fault::kMessageType;
        if (!take(&fields, &going)) return Fault::kElement;
    }
    return Fault::kNone;
}

template <class Sample>
void keep(std::vector<Sample> *samples, size_t offset) {
    while (!samples->empty() && samples->back().behind > offset) samples->pop_back();
}

}  // namespace

bool is_known_type(uint8_t type) {
    return type == trace::kSwitchFrame || type == trace::kMeminfoFrame;
}

Fault FrameMessages::read(const uint8_t *frame, size_t size) {
    switches.clear();
    memories.clear();
    const auto behind = [frame](const Fields &fields) { return static_cast<uint32_t>(fields.at() - frame); };
    if (frame[0] == trace::kSwitchFrame) {
        return walk(frame, size, [&](Fields *fields, bool *) {
            SwitchSample &sample = switches.emplace_back();
            if (!read_switch(fields, &sample)) {
                switches.pop_back();
                return false;
            }
            sample.core = frame[1];
            sample.behind = behind(*fields);
            return true;
        });
    }
    return walk(frame, size, [&](Fields *fields, bool *) {
        MemorySample &sample = memories.emplace_back();
        if (!read_memory(fields, &sample)) {
            memories.pop_back();
            return false;
        }
        sample.behind = behind(*fields);
        return true;
    });
}

void FrameMessages::keep_up_to(size_t offset) {
    keep(&switches, offset);
    keep(&memories, offset);
}

size_t FrameMessages::end() const {
    if (!switches.empty()) return switches.back().behind;
    return memories.empty() ? static_cast<size_t>(trace::kFrameHeader) : memories.back().behind;
}

std::optional<size_t> well_formed(const uint8_t *frame, size_t size, size_t limit) {
    size_t messages = 0;
    const bool is_switch = frame[0] == trace::kSwitchFrame;
    const Fault fault = walk(frame, size, [&](Fields *fields, bool *going) {
        *going = ++messages < limit;
        return skip_message(is_switch, fields);
    });
    if (fault != Fault::kNone) return std::nullopt;
    return messages;
}

}  // namespace vestra_dump
