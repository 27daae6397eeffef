// What the tests of the decoder share: its log lines (redirected by the linker), its globals as at start, and frames.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "set/trace/frame_writer.h"
#include "vestra-daemon/decoder.h"

namespace decoder_test {

using Bytes = std::vector<uint8_t>;

constexpr int kDebug = 3, kInfo = 4, kWarning = 5, kError = 6;
constexpr int64_t kSecond = 1'000'000'000;

// A line of the daemon's, without its prefix but with its line end.
struct LogLine {
    int priority;
    std::string function;
    std::string text;
};
// The lines since the last call, of `least` or a higher priority. Any thread.
std::vector<LogLine> take_log(int least = kDebug);
// Whether such a line came since the last take_log, which this is too.
bool take_line(const LogLine &line);
// The lines as a text, each "PRIORITY FUNCTION TEXT"; '$' stands before a line end that is the daemon's own.
std::string log_text(int least = kDebug);

// printf into a string.
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Ring, history, list and log as at program start, debug lines on.
void reset_decoder();
class DecoderTest : public ::testing::Test {
  protected:
    DecoderTest() { reset_decoder(); }
    ~DecoderTest() override;
};

// A frame with its messages, without the length in front.
template <class... Messages>
Bytes frame(uint8_t type, const Messages &...messages) {
    Bytes bytes;
    vestra_set::FrameWriter writer(&bytes);
    writer.begin_frame(type, 0);
    (writer.add(messages), ...);
    bytes.erase(bytes.begin(), bytes.begin() + vestra_set::kLengthField);
    return bytes;
}

// A block of frames, ended as the module ends it.
Bytes block(const std::vector<Bytes> &frames);
// decode_file on a block.
int decode_block(const Bytes &block);
int decode(const std::vector<Bytes> &frames);
void decode(const vestra_set::SwitchMessage &message);

// A process's sample that is accounted, at `seconds`.
vestra_set::SwitchMessage sample(double seconds, uint64_t pid, std::string_view name);

// The list's samples, newest first, once its links and its size are found right: time, process, its name and memory
// figures as a text; the CPU percentage apart.
struct ListEntry {
    std::string text;
    double cpu;
};
std::vector<ListEntry> list();

}  // namespace decoder_test
