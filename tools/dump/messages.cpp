#include "tools/dump/messages.h"

#include <cstring>

namespace vestra_dump {
namespace {

using trace::FrameWalk;

int64_t to_signed(uint64_t value) {
    return static_cast<int64_t>(value);
}

void fill(const FrameWalk &walk, uint8_t core, SwitchSample *filled) {
    SwitchSample &sample = *filled;
    sample.time_ns = to_signed(walk.value(trace::kSwitchTime));
    sample.parent = static_cast<int32_t>(walk.value(trace::kSwitchElement1));
    sample.pid = static_cast<int32_t>(walk.value(trace::kSwitchPid));
    const std::string_view name = walk.name().substr(0, kNameShown);
    sample.name = name.substr(0, strnlen(name.data(), name.size()));
    sample.read_kib = walk.value(trace::kSwitchElement4);
    sample.written_kib = walk.value(trace::kSwitchElement5);
    sample.cpu_user = to_signed(walk.value(trace::kSwitchCpuA));
    sample.cpu_system = to_signed(walk.value(trace::kSwitchCpuB));
    sample.rss = walk.value(trace::kSwitchRss);
    sample.swap = walk.value(trace::kSwitchSwap);
    sample.context_switches = trace::plain_figure(walk.value(trace::kSwitchElement10));
    sample.running = trace::plain_figure(walk.value(trace::kSwitchElement11));
    for (int i = 0; i < trace::kCoreCount; ++i) {
        sample.cores[static_cast<size_t>(i)] = {
            to_signed(walk.core(i, trace::kCoreUser)), to_signed(walk.core(i, trace::kCoreSystem)),
            to_signed(walk.core(i, trace::kCoreIdle)), to_signed(walk.core(i, trace::kCoreTemperature)),
            to_signed(walk.core(i, trace::kCoreIowait))};
    }
    sample.core = core;
    sample.accounted = walk.value(trace::kSwitchPid) != 0 && sample.rss != 0 && sample.swap != 0;
    if (sample.swap == 1) sample.swap = 0;
}

MemorySample memory_sample(const FrameWalk &walk) {
    return {
        to_signed(walk.value(trace::kMeminfoTime)),
        {trace::decimal_figure(walk.values(trace::kMeminfoDecimal0)),
         trace::decimal_figure(walk.values(trace::kMeminfoDecimal1)),
         trace::decimal_figure(walk.values(trace::kMeminfoDecimal2)),
         trace::plain_figure(walk.value(trace::kMeminfoPlain3)), trace::plain_figure(walk.value(trace::kMeminfoPlain4)),
         trace::plain_figure(walk.value(trace::kMeminfoPlain5))}};
}

}  // namespace

trace::FrameFault FrameMessages::read(const uint8_t *frame, size_t size, int type) {
    clear();
    const bool is_switch = type == trace::kSwitchFrame;
    FrameWalk walk(frame, size, type);
    while (figures_ ? walk.next() : walk.next_time()) {
        stamps.push_back({to_signed(walk.value(is_switch ? int{trace::kSwitchTime} : int{trace::kMeminfoTime})),
                          static_cast<uint32_t>(walk.offset()), true});
        if (!figures_) continue;
        if (is_switch) {
            fill(walk, frame[1], &switches.emplace_back());
        } else {
            memories.push_back(memory_sample(walk));
        }
    }
    return walk.fault();
}

void FrameMessages::clear() {
    stamps.clear();
    switches.clear();
    memories.clear();
}

void FrameMessages::keep_up_to(size_t offset) {
    while (!stamps.empty() && stamps.back().end > offset) stamps.pop_back();
    if (switches.size() > stamps.size()) switches.resize(stamps.size());
    if (memories.size() > stamps.size()) memories.resize(stamps.size());
}

}  // namespace vestra_dump
