// The documents' own bytes, as the frame writer writes them and as the readers read them.

#include <fstream>
#include <sstream>

#include "dump_support.h"
#include "trace_reader.h"

using namespace trace;
using Bytes = std::vector<uint8_t>;

// The labelled bytes of a document's fenced block of that kind.
static Bytes bytes_of_document(const std::string &name, const std::string &kind) {
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

TEST(TraceDocument, WriterWritesTheExample) {
    // The figures in the order of the elements, after the message's type.
    SwitchMessage tuner = {1, 601'500'000'000, 1, 312, "tuner", 0, 64, 1000, 250, 20480, 1, 420, 2, {}};
    tuner.cores = {
        {{30000, 9000, 110000, 47, 200}, {30010, 9005, 109985, 48, 200}, {0, 0, 0, 49, 0}, {127, 128, 16384, 50, 1}}};
    const MeminfoMessage memory = {1,       tuner.time_ns, 24, 2,      "meminfo", {{{52, 5}, {0, 7}, {1, 123}}},
                                   1572864, 524288,        96, 204800, 20000,     60000,
                                   300000,  747110};
    Bytes written;
    FrameWriter writer(&written);
    EXPECT_TRUE(writer.begin_frame(kSwitchFrame, 1) && writer.add(tuner) && writer.begin_frame(kMeminfoFrame, 0) &&
                writer.add(memory) && writer.begin_frame(kSwitchFrame, 0) && writer.end_block());
    EXPECT_EQ(written, bytes_of_document("trace-format.md", "trace"));
}

TEST(TraceDocument, ReaderReadsTheExample) {
    const Bytes bytes = bytes_of_document("trace-format.md", "trace");
    const auto messages = vestra_test::read_block(bytes);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].pid, 312U);
    EXPECT_EQ(messages[0].name, "tuner");
    EXPECT_EQ(messages[0].element(kSwitchElement5), 64U);
    EXPECT_EQ(messages[0].walk.core(3, kCoreIdle), 16384U);
    EXPECT_EQ(messages[1].name, "meminfo");
    EXPECT_EQ(decimal_figure(messages[1].walk.values(kMeminfoDecimal2)), 1.123);
    EXPECT_EQ(messages[1].element(kMeminfoPlain5), 747110U);
}

TEST(DumpDocument, TrailerOfTheExampleIsFound) {
    const Bytes dump = bytes_of_document("dump-format.md", "dump");
    const auto totals = dump_test::record({reinterpret_cast<const char *>(dump.data()), dump.size()}).totals;
    ASSERT_TRUE(totals.trailer);
    EXPECT_EQ(totals.trailer->build + " " + totals.trailer->model, "T-RX-1107.2/eu 24_TVX");
    EXPECT_EQ(totals.trailer->lite_mode, 1);
    EXPECT_EQ(totals.payload_bytes, kEmptyRecord);
}
