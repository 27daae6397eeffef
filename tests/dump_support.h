// Makes small dumps and records what read_dump finds in them.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "set/trace/synthetic_source.h"
#include "support/files.h"
#include "tools/dump/dump_reader.h"

namespace dump_test {

using Place = std::pair<uint64_t, uint64_t>;  // offset in the file, bytes

struct Recorder : vestra_dump::DumpVisitor {
    std::vector<Place> frames, stretches;  // whole frames; everything that the payload consists of
    std::vector<vestra_dump::DamagedSpan> damage;
    vestra_dump::DumpTotals totals;

    void on_frame(const vestra_dump::Frame &frame, vestra_dump::FrameMessages & /*messages*/) override {
        if (!frame.whole) return;
        frames.emplace_back(frame.offset, frame.bytes);
        stretches.push_back(frames.back());
    }
    void on_empty_record(uint64_t offset) override { stretches.emplace_back(offset, 4); }
    void on_damage(const vestra_dump::DamagedSpan &span) override {
        damage.push_back(span);
        stretches.emplace_back(span.offset, span.bytes);
    }
};

// Reads the bytes, `piece` at a time, and checks that the stretches follow each other and cover the payload.
inline Recorder record(std::string_view bytes, size_t piece = SIZE_MAX) {
    struct Trickle : vestra_dump::MemorySource {
        size_t piece;
        Trickle(std::string_view all, size_t most) : MemorySource(all), piece(most) {}
        int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override {
            return MemorySource::read_at(offset, out, std::min(count, piece));
        }
    } source(bytes, piece);
    Recorder seen;
    seen.totals = read_dump(source, seen);
    uint64_t end = 0;
    for (const auto &[offset, size] : seen.stretches) {
        EXPECT_EQ(offset, end);
        end += size;
    }
    const auto &totals = seen.totals;
    EXPECT_EQ(end, totals.payload_bytes);
    EXPECT_EQ(end, totals.frame_bytes + totals.damaged_bytes + 4 * totals.empty_records);
    EXPECT_EQ(end + (totals.trailer ? totals.trailer->bytes.size() : 0), bytes.size());
    return seen;
}

inline vestra_set::SourceOptions source_options(const char *profile, uint32_t processes, uint32_t block_size,
                                                uint64_t seed) {
    vestra_set::SourceOptions options;
    options.profile = profile;
    options.processes = processes;
    options.block_size = block_size;
    options.seed = seed;
    return options;
}

inline void append_block(vestra_set::TraceSource &source, std::string *to) {
    std::vector<uint8_t> block(trace::kBlockMax);
    const size_t size = source.next_block(block.data(), block.size());
    to->append(reinterpret_cast<const char *>(block.data()), size);
}

// Blocks of the simulated module.
inline std::string synthetic(const char *profile, uint32_t processes, uint32_t block_size, int blocks,
                             uint64_t seed = 5) {
    std::string error, all;
    const auto source = make_source(source_options(profile, processes, block_size, seed), &error);
    for (; blocks > 0; --blocks) append_block(*source, &all);
    return all;
}

inline std::string put(const std::string &path, const std::string &bytes) {
    vestra_test::write_file(path, bytes);
    return path;
}

// Of a version file with CR LF at its line ends: no truncation of it looks like another trailer.
const std::string kTrailer = "T-RX-1107.2/eu/24_TVX\r\n\x17", kLiteTrailer = kTrailer + "QXLiteMode=1\x0c";

}  // namespace dump_test
