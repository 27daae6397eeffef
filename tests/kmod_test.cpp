// The parts of the kernel module that are plain C: it must take the same commands as the simulated module and write the
// same bytes as the repository's own writer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "set/user_data.h"
#include "trace/frame_writer.h"

extern "C" {
#include "kmod/command.h"
#include "kmod/frame.h"
}

namespace {

using namespace std::string_literals;

static_assert(VESTRA_CORES == trace::kCoreCount && VESTRA_BLOCK_MAX == trace::kBlockMax);
static_assert(VESTRA_LENGTH_FIELD == trace::kLengthField && VESTRA_FRAME_HEADER == trace::kFrameHeader);
static_assert(VESTRA_SWITCH_FRAME == trace::kSwitchFrame && VESTRA_MEMINFO_FRAME == trace::kMeminfoFrame);

// Kind, number, name and ids, as both parsers see them.
std::string in_words(const vestra_command &command) {
    std::string text = std::to_string(command.kind) + " " + std::to_string(command.value) + " " + command.name;
    for (int i = 0; i < command.count; ++i) text += " " + std::to_string(command.pids[i]);
    return text;
}

std::string in_words(const vestra_set::NodeCommand &command) {
    const bool tracing = command.kind == vestra_set::NodeCommand::kTracing;
    std::string text = std::to_string(tracing ? VESTRA_TRACING : command.number) + " " +
                       std::to_string(tracing ? command.number : command.value) + " " +
                       command.name.substr(0, VESTRA_NAME_MAX);
    for (const int id : command.pids) text += " " + std::to_string(id);
    return text;
}

void expect_the_same(const std::string &text) {
    // A copy of exactly that size, so that a sanitizer sees a read beyond it.
    const std::vector<char> exact(text.begin(), text.end());
    const auto expected = vestra_set::parse_node_command(text);
    vestra_command command;
    ASSERT_EQ(vestra_parse_command(exact.data(), exact.size(), &command), expected.has_value()) << text;
    if (!expected) return;
    EXPECT_EQ(in_words(command), in_words(*expected)) << text;
}

TEST(KernelModule, TakesTheSameCommandsAsTheSimulatedOne) {
    for (const std::string &text :
         {"0"s, "1\n"s, "c-0-4-57"s, "c-0-4--2147483648"s, "c-0-4-2147483648"s, "c-0-4--0"s, "c-1-4-1"s, "c-4-4-4"s,
          "c-5-10-1|0|37|0|5"s, "c-5-9-0|0|0|0|0"s, "c-6-5-tuner"s, "c-6-16-name-of-16-bytes"s, "c-6-2-\xc3\xa4"s,
          "c-6-247-" + std::string(247, 'n'), "c-6-248-" + std::string(248, 'n'), "c-99999999999999999999-4-1"s}) {
        expect_the_same(text);
        for (size_t i = 0; i < text.size(); ++i) {
            expect_the_same(text.substr(0, i));
            for (const char byte : "-|0129\n\x7f\xff"s + '\0') {
                std::string changed = text;
                changed[i] = byte;
                expect_the_same(changed);
                expect_the_same(text.substr(0, i) + byte + text.substr(i));
            }
        }
    }
}

TEST(KernelModule, FilterHasTheNewestFiveNamesAndTheLastIds) {
    vestra_filter filter{};
    vestra_command command;
    const auto reports = [&](int pid, const char *name) { return vestra_filter_reports(&filter, pid, name); };
    EXPECT_TRUE(reports(1, "anything"));
    for (const std::string &text : {"c-6-1-a"s, "c-6-1-b"s, "c-6-1-c"s, "c-6-1-a"s, "c-6-1-d"s, "c-6-1-e"s, "c-6-1-f"s,
                                    "c-5-9-7|0|0|0|0"s, "c-5-9-8|0|0|0|0"s}) {
        ASSERT_TRUE(vestra_parse_command(text.data(), text.size(), &command)) << text;
        vestra_filter_apply(&filter, &command);
    }
    std::string reported;
    for (const char *name : {"a", "b", "c", "d", "e", "f"}) reported += reports(1, name) ? name : "-";
    EXPECT_EQ(reported, "a-cdef");
    EXPECT_TRUE(reports(8, "x"));
    EXPECT_FALSE(reports(7, "x"));
}

// A frame of one message, its figures all `number`, by the project's own writer.
std::vector<uint8_t> expected_frame(int type, uint64_t number, int temperature, const char *name) {
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    writer.begin_frame(type, 3);
    if (type == VESTRA_SWITCH_FRAME) {
        trace::SwitchMessage message;
        message.time_ns = message.element4 = message.element5 = message.cpu_a = message.cpu_b = number;
        message.element1 = message.pid = static_cast<uint32_t>(number);
        message.rss = message.element10 = message.element11 = number;
        message.swap = number;
        message.name = name;
        for (auto &core : message.cores) {
            core = {number, number, number, static_cast<uint64_t>(int64_t{temperature}), number};
        }
        writer.add(message);
    } else {
        trace::MeminfoMessage message;
        message.time_ns = message.element1 = message.element2 = message.element10 = message.element11 = number;
        message.element12 = message.figure13 = message.element14 = message.element15 = number;
        message.figure16 = message.figure17 = number;
        message.name = "meminfo";
        // All of the memory is available, all of the swap space in use.
        message.decimal = {trace::tenths(0), trace::tenths(number > 0 ? 1000 : 0), trace::tenths(number)};
        writer.add(message);
    }
    return bytes;
}

std::vector<uint8_t> module_frame(int type, uint64_t number, int temperature, const char *name) {
    vestra_machine machine{number, number, number, {}};
    for (auto &core : machine.cores) core = {number, number, number, temperature, number};
    const auto id = static_cast<uint32_t>(number);
    vestra_process process{id, id, {}, number, number, number, number, number, number};
    std::string(name).copy(process.name, sizeof process.name);
    const vestra_memory memory{number, number, number, number, number, number, number, number, number, number, number};
    vestra_frame frame;
    vestra_frame_begin(&frame, static_cast<uint8_t>(type), 3);
    if (type == VESTRA_SWITCH_FRAME) {
        vestra_frame_add_process(&frame, &machine, &process);
    } else {
        vestra_frame_add_memory(&frame, &machine, &memory);
    }
    EXPECT_LE(frame.size, size_t{VESTRA_MESSAGE_MAX});
    EXPECT_EQ(vestra_record_size(frame.bytes), frame.size);
    return {frame.bytes, frame.bytes + frame.size};
}

TEST(KernelModule, WritesTheBytesOfTheRepositorysOwnWriter) {
    for (const int type : {VESTRA_SWITCH_FRAME, VESTRA_MEMINFO_FRAME}) {
        for (const uint64_t number : {uint64_t{0}, uint64_t{0x7f}, uint64_t{0x80}, uint64_t{1} << 40}) {
            EXPECT_EQ(module_frame(type, number, -7, "tuner"), expected_frame(type, number, -7, "tuner")) << number;
        }
    }
    const uint64_t most = UINT64_MAX;
    EXPECT_EQ(module_frame(VESTRA_SWITCH_FRAME, most, INT32_MIN, "sixteen\xff\n-bytes!"),
              expected_frame(VESTRA_SWITCH_FRAME, most, INT32_MIN, "sixteen\xff\n-bytes!"));
}

TEST(KernelModule, SendsAProcessWithoutNameOrSwapAsReadersNeedIt) {
    vestra_frame frame;
    const vestra_machine machine{};
    vestra_process process{};
    process.rss = 5;
    vestra_frame_begin(&frame, VESTRA_SWITCH_FRAME, 0);
    vestra_frame_add_process(&frame, &machine, &process);
    const std::vector<uint8_t> elements(frame.bytes + 6, frame.bytes + 20);
    EXPECT_EQ(elements, (std::vector<uint8_t>{1, 0, 0, 0, 1, '?', 0, 0, 0, 0, 5, 1, 0, 0}));
}

}  // namespace
