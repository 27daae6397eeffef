// Shared by the decoder's tests: its log lines with their functions, frames, and the memory list.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "support/daemon_env.h"
#include "trace/frame_writer.h"

namespace decoder_test {

using namespace vestra_test;

using Bytes = std::vector<uint8_t>;

constexpr int64_t kSecond = 1'000'000'000;

// The log lines since the last call, each "PRIORITY FUNCTION TEXT". '$' is a line end in the text.
inline std::string log_text(std::string_view kinds = "3456") {
    std::string all = seen_text(kinds);
    begin_transcript();
    return all;
}

class DecoderTest : public DaemonTest {
  protected:
    DecoderTest() { reset_decoder(); }

    // Ring, history, list and log as at program start, debug lines on.
    static void reset_decoder() {
        start_afresh();
        world().log_functions = true;
    }
};

// A frame with its messages, without the length before it.
template <class... Messages>
Bytes frame(uint8_t type, const Messages &...messages) {
    Bytes bytes;
    trace::FrameWriter writer(&bytes);
    writer.begin_frame(type, 0);
    (writer.add(messages), ...);
    bytes.erase(bytes.begin(), bytes.begin() + trace::kLengthField);
    return bytes;
}

// A block of frames, with the empty record at its end.
inline Bytes block(const std::vector<Bytes> &frames) {
    Bytes block;
    trace::FrameWriter writer(&block);
    for (const Bytes &frame : frames) {
        writer.begin_record(0);
        writer.add_bytes(frame.data(), frame.size());
    }
    writer.end_block();
    return block;
}

// decode_file on a block.
inline int decode_block(const Bytes &block) {
    Bytes given = block;
    const int type = decode_file(given.data(), static_cast<unsigned>(given.size()));
    EXPECT_EQ(given, block) << "the caller's block is only read";
    return type;
}
inline int decode(const std::vector<Bytes> &frames) {
    return decode_block(block(frames));
}
inline void decode(const trace::SwitchMessage &message) {
    decode({frame(trace::kSwitchFrame, message)});
}

// A sample at `seconds` of a process that is accounted for.
inline trace::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name) {
    trace::SwitchMessage message;
    message.time_ns = static_cast<uint64_t>(std::llround(seconds * 1e9));
    message.pid = pid;
    message.name = name;
    message.rss = 1000;
    message.swap = 10;
    return message;
}

struct ListEntry {
    std::string text;  // time, process, name and memory figures
    double cpu;        // percent
};

// The samples of the memory list, newest first. Checks its links and its size.
inline std::vector<ListEntry> list() {
    std::vector<ListEntry> entries;
    const circ_buf_shm *newer = nullptr;
    size_t size = 0;
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; newer = node, node = node->next) {
        EXPECT_EQ(node->prev, newer);
        size += 20 + node->timestamp.size() + node->name.size();
        const std::string name = node->name;
        entries.push_back(
            {node->timestamp + text(" %d %s %d %d", node->pid, name.c_str(), node->rss, node->swap), node->cpu});
    }
    EXPECT_EQ(last_node, newer);
    EXPECT_EQ(shm_list_size, static_cast<int>(size));
    return entries;
}

}  // namespace decoder_test
