// A dump with folded processes means the same to the daemon's decoder as the one that it was made from.

#include "made_up_set.h"
#include "tools/dump/cutter.h"
#include "tools/dump/folder.h"

using namespace decoder_test;

namespace {

const std::vector<std::string> kShown = {"proc-7-of-many", "proc-12-of-many", "proc-301-of-many"};

// What a cut without a range writes.
template <class Sink, class... First>
std::string cut(const std::string &bytes, First &...first) {
    std::string error;
    const auto out = vestra_dump::Output::open("/tmp/cut", &error);
    vestra_dump::MemorySource source(bytes);
    Sink sink(first..., *out);
    auto timeline = vestra_dump::survey(source).timeline;
    sink.end(analyse(source, &timeline, {}, 0, sink).totals);
    EXPECT_TRUE(out->close(&error)) << error;
    return read_file("/tmp/cut");
}

// Has the daemon, as it starts, decode the blocks, which end with empty records.
void decode_blocks(const std::string &bytes) {
    Bytes block;
    for (size_t at = 0; at < bytes.size();) {
        const auto *record = reinterpret_cast<const uint8_t *>(bytes.data()) + at;
        const size_t size = trace::kLengthField + trace::get_frame_len(record);
        block.insert(block.end(), record, record + size);
        at += size;
        if (size > trace::kEmptyRecord) continue;
        EXPECT_LE(block.size(), trace::kBlockMax);
        EXPECT_NE(decode_block(block), -1);
        block.clear();
    }
    EXPECT_TRUE(block.empty());
}

// Each slot of the ring of vitals, and its head.
std::vector<std::vector<double>> ring() {
    std::vector<std::vector<double>> slots;
    for (const _SYSDATA_ &slot : collectedData) {
        slots.push_back({static_cast<double>(slot.flags), static_cast<double>(slot.timestamp)});
        for (unsigned type = 0; type < kVitalCount; ++type) slots.back().push_back(vital(slot, type));
    }
    slots.push_back({static_cast<double>(last_index), static_cast<double>(maxTimeValue)});
    return slots;
}

// The newest samples in the memory list of processes that are shown.
std::vector<std::string> shown_samples() {
    std::vector<std::string> samples;
    for (const ListEntry &entry : list()) {
        for (const std::string &name : kShown) {
            const bool is_it = entry.text.find(" " + name.substr(0, 14) + " ") != std::string::npos;
            if (is_it && samples.size() < 10) samples.push_back(entry.text + text(" %.9g", entry.cpu));
        }
    }
    return samples;
}

class DumpFolder : public DecoderTest {};

TEST_F(DumpFolder, DaemonDerivesTheSameFromAFoldedDump) {
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        SCOPED_TRACE(seed);
        const bool late = seed % 2 == 1;
        MadeUpSet made_up(seed, late ? kSecond / 2 : 0);
        std::string made;
        for (int64_t second = 600; second < 900; ++second) {
            if (!late && second / 7 == 100) continue;
            const Bytes block = made_up.decode_second(second, [](const auto &) {});
            made.append(block.begin(), block.end());
        }
        const std::string whole = cut<vestra_dump::Cutter>(made);  // without what the dump tool does not believe
        reset_decoder();
        decode_blocks(whole);
        const auto vitals = ring();
        const auto samples = shown_samples();
        EXPECT_EQ(samples.size(), 10U);
        vestra_dump::NameFilter filter(true, kShown);
        const vestra_dump::TimeRange all;
        const std::string folded = cut<vestra_dump::Folder>(whole, filter, all);
        EXPECT_LT(folded.size(), whole.size() / 3);
        reset_decoder();
        decode_blocks(folded);
        EXPECT_EQ(ring(), vitals);
        EXPECT_EQ(shown_samples(), samples);
    }
}

}  // namespace
