// Shared by the decoder's tests: its log lines with their functions, frames, and the memory list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/daemon_env.h"
#include "trace/frame_writer.h"

namespace decoder_test {

using namespace vestra_test;

using Bytes = std::vector<uint8_t>;

constexpr int64_t kSecond = 1'000'000'000;

// The log lines since the last call, each "PRIORITY FUNCTION TEXT". '$' stands for a line end in the text.
std::string log_text(std::string_view kinds = "3456");

class DecoderTest : public DaemonTest {
  protected:
    DecoderTest() { reset_decoder(); }

    // Ring, history, list and log as at program start, debug lines on.
    static void reset_decoder();
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
Bytes block(const std::vector<Bytes> &frames);
// decode_file on a block.
int decode_block(const Bytes &block);
int decode(const std::vector<Bytes> &frames);
void decode(const trace::SwitchMessage &message);

// A sample at `seconds` of a process that is accounted for.
trace::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name);

// Checks the links and the size of the memory list, and returns its samples, newest first: time, process, name and memory
// figures as a text, and the CPU percentage.
struct ListEntry {
    std::string text;
    double cpu;
};
std::vector<ListEntry> list();

}  // namespace decoder_test
