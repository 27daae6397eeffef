// What the tests of the decoder share beside support/daemon_env.h: its log lines with their functions, and frames.
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

// The log lines since the last call as a text, each "PRIORITY FUNCTION TEXT"; '$' stands for a line end that is the
// daemon's own.
std::string log_text(std::string_view kinds = "3456");

// printf into a string.
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));

class DecoderTest : public DaemonTest {
  protected:
    DecoderTest() { reset_decoder(); }
    ~DecoderTest() override;

    // Ring, history, list and log as at program start, debug lines on.
    static void reset_decoder();
};

// A frame with its messages, without the length in front.
template <class... Messages>
Bytes frame(uint8_t type, const Messages &...messages) {
    Bytes bytes;
    trace::FrameWriter writer(&bytes);
    writer.begin_frame(type, 0);
    (writer.add(messages), ...);
    bytes.erase(bytes.begin(), bytes.begin() + trace::kLengthField);
    return bytes;
}

// A block of frames, ended as the module ends it.
Bytes block(const std::vector<Bytes> &frames);
// decode_file on a block.
int decode_block(const Bytes &block);
int decode(const std::vector<Bytes> &frames);
void decode(const trace::SwitchMessage &message);

// A process's sample that is accounted, at `seconds`.
trace::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name);

// The list's samples, newest first, once its links and its size are found right: time, process, its name and memory
// figures as a text; the CPU percentage apart.
struct ListEntry {
    std::string text;
    double cpu;
};
std::vector<ListEntry> list();

}  // namespace decoder_test
