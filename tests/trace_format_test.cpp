// The frame writer, against a reader that shares nothing with it and against the documents' own bytes.

#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <sstream>

#include "set/trace/dump_file.h"
#include "set/trace/frame_check.h"
#include "set/trace/frame_writer.h"
#include "trace_reader.h"

namespace vestra_set {
namespace {

using vestra_test::read_block;
using Bytes = std::vector<uint8_t>;

// The labelled bytes of a document's fenced block of that kind.
Bytes bytes_of_document(const std::string &name, const std::string &kind) {
    std::ifstream file(std::string(VESTRA_DOCS_DIR) + "/" + name);
    Bytes bytes;
    bool inside = false;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("```", 0) == 0) inside = line == "```" + kind;
        if (!inside || line.rfind("```", 0) == 0) continue;
        std::istringstream words(line.substr(0, line.find("  ")));
        for (std::string word; words >> word;) bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
    }
    return bytes;
}

SwitchMessage example_switch() {
    SwitchMessage m;
    m.time_ns = 601'500'000'000;
    m.element1 = 1;
    m.pid = 312;
    m.name = "tuner";
    m.element5 = 64;
    m.cpu_a = 1000;
    m.cpu_b = 250;
    m.rss = 20480;
    m.swap = 1;
    m.element10 = 420;
    m.element11 = 2;
    m.cores = {
        {{30000, 9000, 110000, 47, 200}, {30010, 9005, 109985, 48, 200}, {0, 0, 0, 49, 0}, {127, 128, 16384, 50, 1}}};
    return m;
}

InfoMessage example_info() {
    InfoMessage m;
    m.time_ns = 601'500'000'000;
    m.element1 = 24;
    m.element2 = 2;
    m.name = "meminfo";
    m.decimal = {Decimal{52, 5}, Decimal{0, 7}, Decimal{1, 123}};
    m.element10 = 1572864;
    m.element11 = 524288;
    m.element12 = 96;
    m.figure13 = 204800;
    m.element14 = 20000;
    m.element15 = 60000;
    m.figure16 = 300000;
    m.figure17 = 747110;
    return m;
}

TEST(TraceDocument, ExampleIsWhatTheWriterWrites) {
    Bytes written;
    FrameWriter writer(&written);
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 1) && writer.add(example_switch()));
    ASSERT_TRUE(writer.begin_frame(kInfoFrame, 0) && writer.add(example_info()));
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 0) && writer.end_block());
    EXPECT_EQ(bytes_of_document("trace-format.md", "trace"), written);
}

TEST(TraceDocument, ExampleReadsAsItSays) {
    const auto block = read_block(bytes_of_document("trace-format.md", "trace"));
    ASSERT_EQ(block.messages.size(), 2U);
    EXPECT_EQ(block.frames.size(), 3U);
    EXPECT_EQ(block.refused, 0U);
    EXPECT_EQ(block.end, 127U) << "the mark is left over";
    EXPECT_EQ(block.messages[0].name, "tuner");
    EXPECT_EQ(block.messages[0].core_figure(3, 2), 16384U);
    EXPECT_EQ(block.messages[1].name, "meminfo");
    EXPECT_EQ(block.messages[1].numbers.back(), 747110U);
}

TEST(DumpDocument, ExampleTrailerReadsAsItSays) {
    const Bytes bytes = bytes_of_document("dump-format.md", "dump");
    const auto trailer = find_trailer({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->build, "T-RX-1107.2/eu");
    EXPECT_EQ(trailer->model, "24_TVX");
    EXPECT_EQ(trailer->lite_mode, 1);
    EXPECT_EQ(trailer->size, bytes.size() - kEndMark);
}

struct VarintCase {
    const char *name;
    uint64_t value;
    Bytes bytes;
};
void PrintTo(const VarintCase &row, std::ostream *out) {
    *out << row.name;
}
const VarintCase kVarints[] = {
    {"Zero", 0, {0x00}},
    {"GreatestOfOneByte", 127, {0x7f}},
    {"SmallestOfTwo", 128, {0x80, 0x01}},
    {"SmallestOfThree", 16384, {0x80, 0x80, 0x01}},
    {"AllOf32Bits", UINT32_MAX, {0xff, 0xff, 0xff, 0xff, 0x0f}},
    {"SmallestOfTen", 1ULL << 63, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
    {"AllOf64Bits", UINT64_MAX, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}},
};
class Varint : public testing::TestWithParam<VarintCase> {};
TEST_P(Varint, IsWritten) {
    Bytes out;
    FrameWriter writer(&out);
    writer.begin_frame(0, 0);
    ASSERT_TRUE(writer.add_varint(GetParam().value));
    EXPECT_EQ(Bytes(out.begin() + 6, out.end()), GetParam().bytes);
    EXPECT_EQ(varint_size(GetParam().value), GetParam().bytes.size());
}
INSTANTIATE_TEST_SUITE_P(All, Varint, testing::ValuesIn(kVarints), [](const auto &row) { return row.param.name; });

TEST(FrameWriter, EveryElementComesBackInItsPlace) {
    SwitchMessage m;
    m.name = std::string_view("a\0b", 3);
    uint64_t *const fields[] = {&m.type,  &m.time_ns, &m.element1, &m.pid,  &m.element4,  &m.element5,
                                &m.cpu_a, &m.cpu_b,   &m.rss,      &m.swap, &m.element10, &m.element11};
    std::vector<uint64_t> expected = {2};
    m.type = 2;
    for (size_t i = 1; i < std::size(fields); ++i) expected.push_back(*fields[i] = UINT64_MAX / i);
    for (CoreTimes &core : m.cores) {
        for (uint64_t *figure : {&core.user, &core.system, &core.idle, &core.temperature, &core.iowait}) {
            *figure = 100 * expected.size();
            expected.push_back(*figure);
        }
    }
    Bytes out = {0xee};  // what is there already stays
    FrameWriter writer(&out);
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 3) && writer.add(m) && writer.add(m) && writer.end_block());
    EXPECT_EQ(out[0], 0xee);
    const auto block = read_block(Bytes(out.begin() + 1, out.end()));
    ASSERT_EQ(block.messages.size(), 2U);
    EXPECT_EQ(block.messages[1].core, 3);
    EXPECT_EQ(block.messages[1].numbers, expected);
    EXPECT_EQ(block.messages[1].name, std::string("a\0b", 3));
}

TEST(FrameWriter, MessageThatDoesNotFitLeavesNoTrace) {
    const SwitchMessage message = example_switch();
    const size_t whole = kLengthField + kFrameHeader + message_size(message);
    for (size_t capacity = 0; capacity <= whole; ++capacity) {
        Bytes out(capacity, 0xee);
        FrameWriter writer(out.data(), capacity);
        const bool begun = writer.begin_frame(kSwitchFrame, 0);
        EXPECT_EQ(begun, capacity >= 6);
        EXPECT_EQ(writer.add(message), capacity == whole) << capacity;
        EXPECT_EQ(writer.size(), capacity == whole ? whole : begun ? 6 : 0);
        if (begun && capacity < whole) {
            EXPECT_EQ(load_length(out.data()), 2U);
        }
    }
}

TEST(FrameWriter, FrameGrowsToItsLimitAndNoFurther) {
    Bytes out;
    FrameWriter writer(&out);
    EXPECT_FALSE(writer.add(example_switch())) << "no frame was begun";
    writer.begin_frame(kSwitchFrame, 0);
    while (writer.add(example_switch())) {
    }
    EXPECT_GT(load_length(out.data()) + message_size(example_switch()), kMaxFrame);
    const Bytes rest(kMaxFrame - load_length(out.data()), 0);
    EXPECT_TRUE(writer.add_bytes(rest.data(), rest.size()));
    EXPECT_FALSE(writer.add_varint(0));
    EXPECT_EQ(load_length(out.data()), kMaxFrame);
}

TEST(FrameWriter, EveryCutMessageIsRefused) {
    Bytes whole;
    FrameWriter(&whole).put_bytes("\0\0\0\0\7\1", 6);
    FrameWriter one(&whole);
    one.begin_frame(kSwitchFrame, 0);
    one.add(example_switch());
    for (size_t size = 3; size < one.size() - 4; ++size) {
        EXPECT_EQ(check_frame(whole.data() + 10, size).verdict, FrameCheck::kBadMessage) << size;
    }
    EXPECT_EQ(check_frame(whole.data() + 10, one.size() - 4).verdict, FrameCheck::kGood);
}

}  // namespace
}  // namespace vestra_set
