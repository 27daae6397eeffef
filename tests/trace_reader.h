// Reads a trace block with the walk of trace/, by the rules that docs/trace-format.md gives for a block.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace/frame_walk.h"

namespace vestra_test {

struct ReadMessage {
    int frame_type;
    uint64_t time, pid;  // 0 in a CPU and memory frame
    std::string name;
    trace::FrameWalk walk;  // as it was with this message; the block must outlive it

    uint64_t element(int i) const { return walk.value(i); }
};

inline std::vector<ReadMessage> read_block(const std::vector<uint8_t> &block) {
    std::vector<ReadMessage> messages;
    const uint8_t *const end = block.data() + block.size();
    trace::Record record = trace::take_record(block.data(), end);
    // A record that ends exactly with the block is not read.
    for (; record.next != nullptr && record.next != end; record = trace::take_record(record.next, end)) {
        if (record.size == 0 || !trace::is_known_type(record.frame[0])) continue;
        trace::FrameWalk walk(record.frame, record.size);
        while (walk.next()) {
            const bool is_switch = record.frame[0] == trace::kSwitchFrame;
            messages.push_back({record.frame[0], walk.value(trace::kSwitchTime),
                                is_switch ? walk.value(trace::kSwitchPid) : 0, std::string(walk.name()), walk});
        }
    }
    return messages;
}

}  // namespace vestra_test
