// The frame writer against the documents' own bytes, and recorded dumps: found again what was recorded, whatever is
// damaged.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "set/trace/dump_file.h"
#include "set/trace/frame_writer.h"
#include "set/trace/stream_stats.h"
#include "set/trace/synthetic_source.h"
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
    EXPECT_EQ(trailer->size, dump.size() - kEndMark);
}

class Dump : public testing::Test {
  protected:
    // A dump of the first `blocks` blocks of a seed.
    std::vector<Bytes> record(const char *profile, int count) {
        SourceOptions options;
        options.profile = profile;
        options.seed = 9;
        options.processes = 50;
        options.block_size = 20000;
        std::string error;
        const auto source = SyntheticSource::make(options, &error);
        std::vector<Bytes> blocks;
        for (int i = 0; i < count; ++i) {
            Bytes block(kMaxBlock);
            block.resize(source->next_block(block.data(), block.size()));
            bytes_.append(block.begin(), block.end());
            blocks.push_back(block);
        }
        bytes_ += "T-RX-1107.2/24_TVX\n\x13";
        return blocks;
    }
    DumpReport inspect(const std::string &bytes) const {
        std::ofstream(path_, std::ios::binary) << bytes;
        DumpReport report;
        std::string error;
        EXPECT_TRUE(inspect_dump(path_, &report, &error)) << error;
        EXPECT_EQ(report.frame_bytes + report.refused_bytes + report.damaged_bytes + 4 * report.empty_records,
                  report.payload_bytes);
        return report;
    }

    const std::string path_ = testing::TempDir() + "dump";
    std::string bytes_;
};

TEST_F(Dump, EveryPrefixIsAReportThatCoversAllItsBytes) {
    record("hostile", 1);
    const size_t whole = bytes_.size();
    for (size_t size = 0; size <= whole; size += size < 300 || size + 40 > whole ? 1 : 97) {
        EXPECT_EQ(inspect(bytes_.substr(0, size)).trailer.has_value(), size == whole) << size;
    }
}

TEST_F(Dump, IsReportedAndReplayedAsItWasRecorded) {
    const auto blocks = record("steady", 60);  // more than the reader holds at a time
    size_t messages = 0;
    for (const Bytes &block : blocks) messages += read_block(block).messages.size();
    const DumpReport report = inspect(bytes_);
    EXPECT_EQ(report.messages, messages);
    EXPECT_EQ(report.empty_records, 60U);
    EXPECT_EQ(report.first_ns, 600'000'000'000);
    EXPECT_GT(report.last_ns, 658'000'000'000);
    const size_t cut = read_block(blocks[0]).frames.back();  // a hole in a frame costs that frame alone
    const DumpReport damaged = inspect(std::string(bytes_).erase(cut + 50, blocks[0].size() - cut - 50));
    EXPECT_EQ(damaged.frames.at(7) + damaged.frames.at(8), report.frames.at(7) + report.frames.at(8) - 1);
    ASSERT_EQ(damaged.damaged_spans, 1U);
    EXPECT_EQ(damaged.first_damaged[0].offset, cut);
    EXPECT_EQ(damaged.first_damaged[0].size, 50U);
    inspect(bytes_);
    for (const uint32_t block_size : {0U, 2000U}) {
        SourceOptions options;
        options.kind = "replay";
        options.file = path_;
        options.block_size = block_size;
        std::string error;
        const auto source = make_source(options, &error);
        std::vector<Bytes> again;
        size_t messages_again = 0;
        Bytes block(kMaxBlock);
        for (size_t size; (size = source->next_block(block.data(), kMaxBlock)) > 0;) {
            again.emplace_back(block.begin(), block.begin() + static_cast<long>(size));
            messages_again += read_block(again.back()).messages.size();
        }
        EXPECT_EQ(messages_again, messages);
        EXPECT_EQ(again == blocks, block_size == 0) << "the same blocks";
    }
}

}  // namespace
}  // namespace vestra_set
