// Recorded dumps: found again what was recorded, whatever is damaged; and replayed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "set/trace/stream_stats.h"
#include "set/trace/synthetic_source.h"
#include "trace_reader.h"

namespace vestra_set {
namespace {

using vestra_test::read_block;
using Bytes = std::vector<uint8_t>;

const std::string kTrailer = std::string("T-RX-1107.2/24_TVX\n") + '\x13';

class Dump : public testing::Test {
  protected:
    void SetUp() override {
        path_ = (std::filesystem::temp_directory_path() / ("vestra-dump-test-" + std::to_string(getpid()))).string();
    }
    void TearDown() override { std::filesystem::remove(path_); }

    void write(const Bytes &payload, const std::string &trailer) {
        std::ofstream file(path_, std::ios::binary);
        file.write(reinterpret_cast<const char *>(payload.data()), static_cast<std::streamsize>(payload.size()));
        file << trailer;
    }

    DumpReport inspect() {
        DumpReport report;
        std::string error;
        EXPECT_TRUE(inspect_dump(path_, &report, &error)) << error;
        return report;
    }

    std::unique_ptr<TraceSource> replay(uint32_t block_size, bool loop = false) {
        SourceOptions options;
        options.kind = "replay";
        options.file = path_;
        options.block_size = block_size;
        options.loop = loop;
        std::string error;
        auto source = make_source(options, &error);
        EXPECT_NE(source, nullptr) << error;
        return source;
    }

    std::string path_;
};

// `count` blocks of a seed, and the number of messages in them.
std::vector<Bytes> recorded(const char *profile, int count, size_t *messages = nullptr) {
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
        if (messages != nullptr) *messages += read_block(block).messages.size();
        blocks.push_back(block);
    }
    return blocks;
}

Bytes joined(const std::vector<Bytes> &blocks) {
    Bytes all;
    for (const Bytes &block : blocks) all.insert(all.end(), block.begin(), block.end());
    return all;
}

TEST_F(Dump, ReportCountsWhatWasWritten) {
    size_t messages = 0;
    const Bytes payload = joined(recorded("steady", 60, &messages));  // more than the reader holds at a time
    write(payload, kTrailer);
    const DumpReport report = inspect();
    EXPECT_EQ(report.payload_bytes, payload.size());
    EXPECT_EQ(report.messages, messages);
    EXPECT_EQ(report.empty_records, 60U);
    EXPECT_EQ(report.frame_bytes + 60 * kEndMark, payload.size());
    EXPECT_EQ(report.damaged_spans + report.refused_frames, 0U);
    EXPECT_EQ(report.first_ns, 600'000'000'000);
    EXPECT_GT(report.last_ns, 658'000'000'000);
    ASSERT_TRUE(report.trailer);
    EXPECT_EQ(report.trailer->build, "T-RX-1107.2");
    EXPECT_EQ(report.trailer->model, "24_TVX");
    EXPECT_FALSE(report.trailer->lite_mode);
}

TEST_F(Dump, FrameCutAtABlocksEndCostsNothingOfTheNextBlock) {
    auto blocks = recorded("steady", 3);
    const size_t frames =
        read_block(blocks[0]).frames.size() + read_block(blocks[1]).frames.size() + read_block(blocks[2]).frames.size();
    const size_t last = read_block(blocks[1]).frames.back();
    blocks[1].resize(last + 50);  // in the middle of its last frame
    write(joined(blocks), kTrailer);
    const DumpReport report = inspect();
    EXPECT_EQ(report.frames.at(7) + report.frames.at(8), frames - 1);
    ASSERT_EQ(report.damaged_spans, 1U);
    EXPECT_EQ(report.first_damaged[0].offset, blocks[0].size() + last);
    EXPECT_EQ(report.first_damaged[0].size, 50U);
}

TEST_F(Dump, EveryPrefixIsAReportThatCoversAllItsBytes) {
    Bytes whole = joined(recorded("hostile", 1));
    whole.insert(whole.end(), kTrailer.begin(), kTrailer.end());
    for (size_t size = 0; size <= whole.size(); size += size < 300 || size + 40 > whole.size() ? 1 : 97) {
        write(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)), "");
        const DumpReport report = inspect();
        EXPECT_EQ(report.frame_bytes + report.refused_bytes + report.damaged_bytes + 4 * report.empty_records,
                  report.payload_bytes);
        EXPECT_EQ(report.trailer.has_value(), size == whole.size()) << size;
    }
}

TEST_F(Dump, ReplayHandsOutTheSameBlocks) {
    const auto blocks = recorded("steady", 5);
    write(joined(blocks), kTrailer);
    const auto source = replay(0, true);
    for (int round = 0; round < 2; ++round) {
        for (const Bytes &block : blocks) {
            Bytes again(kMaxBlock);
            again.resize(source->next_block(again.data(), again.size()));
            EXPECT_EQ(again, block);
        }
    }
}

TEST_F(Dump, ReplayInOtherBlocksHasTheSameMessages) {
    for (const char *profile : {"steady", "hostile"}) {
        size_t messages = 0;
        write(joined(recorded(profile, 20, &messages)), kTrailer);
        size_t most = 0;
        for (const uint32_t block_size : {2000U, 16384U, 131072U}) {
            const auto source = replay(block_size);
            Bytes block(block_size);
            size_t again = 0;
            for (size_t size; (size = source->next_block(block.data(), block_size)) > 0;) {
                ASSERT_LE(size, block_size);
                again += read_block(Bytes(block.begin(), block.begin() + static_cast<long>(size))).messages.size();
            }
            EXPECT_GE(again, messages) << profile
                                       << ": behind damage that ends a block, more is found than was read first";
            if (profile == std::string("steady")) {
                EXPECT_EQ(again, messages);
            }
            EXPECT_EQ(source->next_block(block.data(), block_size), 0U);
            if (most != 0) {
                EXPECT_EQ(again, most) << profile << ", " << block_size;
            }
            most = again;
        }
    }
}

TEST_F(Dump, ReplayOfWhatFitsIntoNoBlockPassesEveryByte) {
    Bytes payload = joined(recorded("steady", 1));
    payload.resize(payload.size() - 2);  // damage at the end
    write(payload, "");
    const auto source = replay(0);
    Bytes again;
    Bytes block(40);
    for (size_t size; (size = source->next_block(block.data(), block.size())) > 0;) {
        again.insert(again.end(), block.begin(), block.begin() + static_cast<long>(size));
    }
    EXPECT_EQ(again, payload);
}

}  // namespace
}  // namespace vestra_set
