// The frame writer against the documents' own bytes, and recorded dumps: found again what was recorded, whatever is
// damaged.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "set/trace/dump_file.h"
#include "set/trace/stream_stats.h"
#include "set/trace/synthetic_source.h"
#include "trace/frame_writer.h"
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

TEST(TraceDocument, ExamplesAreWhatIsWrittenAndRead) {
    SwitchMessage tuner;
    tuner.time_ns = 601'500'000'000;
    tuner.element1 = 1;
    tuner.pid = 312;
    tuner.name = "tuner";
    tuner.element5 = 64;
    tuner.cpu_a = 1000;
    tuner.cpu_b = 250;
    tuner.rss = 20480;
    tuner.swap = 1;
    tuner.element10 = 420;
    tuner.element11 = 2;
    tuner.cores = {
        {{30000, 9000, 110000, 47, 200}, {30010, 9005, 109985, 48, 200}, {0, 0, 0, 49, 0}, {127, 128, 16384, 50, 1}}};
    const Bytes trace = bytes_of_document("trace-format.md", "trace");
    Bytes written;
    FrameWriter writer(&written);
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 1) && writer.add(tuner));
    ASSERT_LT(written.size(), trace.size());
    EXPECT_EQ(Bytes(trace.begin(), trace.begin() + static_cast<long>(written.size())), written);
    const auto block = read_block(trace);
    ASSERT_EQ(block.messages.size(), 2U);
    EXPECT_EQ(block.end, 127U) << "the mark is left over";
    EXPECT_EQ(block.messages[0].core_figure(3, 2), 16384U);
    const std::vector<uint64_t> info = {1,   601'500'000'000, 24,     2,  52,     5,     0,     7,      1,
                                        123, 1572864,         524288, 96, 204800, 20000, 60000, 300000, 747110};
    EXPECT_EQ(block.messages[1].numbers, info);
    const Bytes dump = bytes_of_document("dump-format.md", "dump");
    const auto trailer = find_trailer({reinterpret_cast<const char *>(dump.data()), dump.size()});
    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->build + " " + trailer->model, "T-RX-1107.2/eu 24_TVX");
    EXPECT_EQ(trailer->lite_mode, 1);
    EXPECT_EQ(trailer->size, dump.size() - kEmptyRecord);
}

// What inspect_dump says of damage is compared with the dump tool's own reader in dump_reader_test.cpp.
TEST(Replay, HandsOutWhatWasRecorded) {
    const std::string path = testing::TempDir() + "dump";
    SourceOptions options;
    options.processes = 50;
    options.block_size = 20000;
    std::string error;
    const auto recorder = SyntheticSource::make(options, &error);
    std::ofstream file(path, std::ios::binary);
    std::vector<Bytes> blocks;
    size_t messages = 0;
    for (int i = 0; i < 60; ++i) {  // more than the reader holds at a time
        Bytes block(kBlockMax);
        block.resize(recorder->next_block(block.data(), block.size()));
        file.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(block.size()));
        messages += read_block(block).messages.size();
        blocks.push_back(block);
    }
    file << "T-RX-1107.2/24_TVX\n\x13" << std::flush;
    DumpReport report;
    ASSERT_TRUE(inspect_dump(path, &report, &error)) << error;
    EXPECT_EQ(report.messages, messages);
    EXPECT_EQ(report.first_ns, 600'000'000'000);
    EXPECT_GT(report.last_ns, 658'000'000'000);
    for (const uint32_t block_size : {0U, 2000U}) {
        options.kind = "replay";
        options.file = path;
        options.block_size = block_size;
        const auto source = make_source(options, &error);
        std::vector<Bytes> again;
        size_t messages_again = 0;
        Bytes block(kBlockMax);
        for (size_t size; (size = source->next_block(block.data(), kBlockMax)) > 0;) {
            again.emplace_back(block.begin(), block.begin() + static_cast<long>(size));
            messages_again += read_block(again.back()).messages.size();
        }
        EXPECT_EQ(messages_again, messages);
        EXPECT_EQ(again == blocks, block_size == 0) << "the same blocks";
    }
}

}  // namespace
}  // namespace vestra_set
