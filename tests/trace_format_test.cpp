// The frame writer, against a reader that shares nothing with it and against the documents' own bytes; and recorded
// dumps: found again what was recorded, whatever is damaged.

#include <gtest/gtest.h>

#include <filesystem>
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

// The document's example.
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

TEST(TraceDocument, ExamplesAreWhatIsWrittenAndRead) {
    InfoMessage info;
    uint64_t *const fields[] = {&info.time_ns,   &info.element1,  &info.element2, &info.element10,
                                &info.element11, &info.element12, &info.figure13, &info.element14,
                                &info.element15, &info.figure16,  &info.figure17};
    const uint64_t values[] = {601'500'000'000, 24, 2, 1572864, 524288, 96, 204800, 20000, 60000, 300000, 747110};
    for (size_t i = 0; i < std::size(fields); ++i) *fields[i] = values[i];
    info.name = "meminfo";
    info.decimal = {Decimal{52, 5}, Decimal{0, 7}, Decimal{1, 123}};
    const Bytes trace = bytes_of_document("trace-format.md", "trace");
    Bytes written;
    FrameWriter writer(&written);
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 1) && writer.add(example_switch()));
    ASSERT_TRUE(writer.begin_frame(kInfoFrame, 0) && writer.add(info));
    ASSERT_TRUE(writer.begin_frame(kSwitchFrame, 0) && writer.end_block());
    EXPECT_EQ(trace, written);
    const auto block = read_block(trace);
    ASSERT_EQ(block.messages.size(), 2U);
    EXPECT_EQ(block.end, 127U) << "the mark is left over";
    EXPECT_EQ(block.messages[0].name + block.messages[1].name, "tunermeminfo");
    EXPECT_EQ(block.messages[0].core_figure(3, 2), 16384U);
    EXPECT_EQ(block.messages[1].numbers.back(), 747110U);
    const Bytes dump = bytes_of_document("dump-format.md", "dump");
    const auto trailer = find_trailer({reinterpret_cast<const char *>(dump.data()), dump.size()});
    ASSERT_TRUE(trailer);
    EXPECT_EQ(trailer->build + " " + trailer->model, "T-RX-1107.2/eu 24_TVX");
    EXPECT_EQ(trailer->lite_mode, 1);
    EXPECT_EQ(trailer->size, dump.size() - kEndMark);
}

/* ------------------------------ Dumps ------------------------------ */

class Dump : public testing::Test {
  protected:
    // Writes a dump of the first `blocks` blocks of a seed.
    void record(const char *profile, int blocks) {
        SourceOptions options;
        options.profile = profile;
        options.seed = 9;
        options.processes = 50;
        options.block_size = 20000;
        std::string error;
        const auto source = SyntheticSource::make(options, &error);
        for (int i = 0; i < blocks; ++i) {
            Bytes block(kMaxBlock);
            block.resize(source->next_block(block.data(), block.size()));
            messages_ += read_block(block).messages.size();
            blocks_.push_back(block);
        }
        write();
    }
    Bytes payload() const {
        Bytes all;
        for (const Bytes &block : blocks_) all.insert(all.end(), block.begin(), block.end());
        return all;
    }
    void write(size_t size = SIZE_MAX) const {
        const Bytes all = payload();
        const std::string bytes = std::string(all.begin(), all.end()) + "T-RX-1107.2/24_TVX\n\x13";
        std::ofstream(path_, std::ios::binary) << bytes.substr(0, size);
    }
    DumpReport inspect() const {
        DumpReport report;
        std::string error;
        EXPECT_TRUE(inspect_dump(path_, &report, &error)) << error;
        return report;
    }
    // The blocks that replaying the dump hands out.
    std::vector<Bytes> replay(uint32_t block_size, size_t capacity = kMaxBlock) const {
        SourceOptions options;
        options.kind = "replay";
        options.file = path_;
        options.block_size = block_size;
        std::string error;
        const auto source = make_source(options, &error);
        std::vector<Bytes> blocks;
        Bytes block(capacity);
        for (size_t size; (size = source->next_block(block.data(), capacity)) > 0;) {
            EXPECT_LE(size, block_size > 0 ? block_size : capacity);
            blocks.emplace_back(block.begin(), block.begin() + static_cast<long>(size));
        }
        return blocks;
    }

    const std::string path_ = testing::TempDir() + "dump";
    std::vector<Bytes> blocks_;
    size_t messages_ = 0;
};

TEST_F(Dump, ReportCountsWhatWasWrittenAndWhatIsDamaged) {
    record("steady", 60);  // more than the reader holds at a time
    const DumpReport report = inspect();
    EXPECT_EQ(report.payload_bytes, payload().size());
    EXPECT_EQ(report.messages, messages_);
    EXPECT_EQ(report.frame_bytes + 60 * kEndMark, report.payload_bytes);
    EXPECT_EQ(report.first_ns, 600'000'000'000);
    EXPECT_GT(report.last_ns, 658'000'000'000);
    ASSERT_TRUE(report.trailer && !report.trailer->lite_mode);
    EXPECT_EQ(report.trailer->build + " " + report.trailer->model, "T-RX-1107.2 24_TVX");
    const size_t last = read_block(blocks_[1]).frames.back();
    blocks_[1].resize(last + 50);  // in the middle of its last frame, which costs nothing of the next block
    write();
    const DumpReport damaged = inspect();
    EXPECT_EQ(damaged.frames.at(7) + damaged.frames.at(8), report.frames.at(7) + report.frames.at(8) - 1);
    ASSERT_EQ(damaged.damaged_spans, 1U);
    EXPECT_EQ(damaged.first_damaged[0].offset, blocks_[0].size() + last);
    EXPECT_EQ(damaged.first_damaged[0].size, 50U);
}

TEST_F(Dump, EveryPrefixIsAReportThatCoversAllItsBytes) {
    record("hostile", 1);
    const size_t whole = payload().size() + 20;
    for (size_t size = 0; size <= whole; size += size < 300 || size + 40 > whole ? 1 : 97) {
        write(size);
        const DumpReport report = inspect();
        EXPECT_EQ(report.frame_bytes + report.refused_bytes + report.damaged_bytes + 4 * report.empty_records,
                  report.payload_bytes);
        EXPECT_EQ(report.trailer.has_value(), size == whole) << size;
    }
}

TEST_F(Dump, ReplayHandsOutTheSameBlocksOrTheSameMessagesInOthers) {
    record("steady", 20);
    EXPECT_EQ(replay(0), blocks_);
    for (const uint32_t block_size : {2000U, 131072U}) {
        size_t again = 0;
        for (const Bytes &block : replay(block_size)) again += read_block(block).messages.size();
        EXPECT_EQ(again, messages_) << block_size;
    }
    const Bytes before = payload();
    blocks_ = replay(0, 40);
    EXPECT_EQ(payload(), before) << "what fits into no block is handed out in pieces";
}

}  // namespace
}  // namespace vestra_set
