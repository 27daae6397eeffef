#include "decoder_support.h"

#include <cmath>

namespace decoder_test {

std::string log_text(std::string_view kinds) {
    std::string all = seen_text(kinds);
    begin_transcript();
    return all;
}

void DecoderTest::reset_decoder() {
    start_afresh();
    world().log_functions = true;
}

Bytes block(const std::vector<Bytes> &frames) {
    Bytes block;
    trace::FrameWriter writer(&block);
    for (const Bytes &frame : frames) {
        writer.begin_record(0);
        writer.add_bytes(frame.data(), frame.size());
    }
    writer.end_block();
    return block;
}

int decode_block(const Bytes &block) {
    Bytes given = block;
    const int type = decode_file(given.data(), static_cast<unsigned>(given.size()));
    EXPECT_EQ(given, block) << "the caller's block is only read";
    return type;
}

int decode(const std::vector<Bytes> &frames) {
    return decode_block(block(frames));
}

void decode(const trace::SwitchMessage &message) {
    decode({frame(trace::kSwitchFrame, message)});
}

trace::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name) {
    trace::SwitchMessage message;
    message.time_ns = static_cast<uint64_t>(std::llround(seconds * 1e9));
    message.pid = pid;
    message.name = name;
    message.rss = 1000;
    message.swap = 10;
    return message;
}

std::vector<ListEntry> list() {
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
