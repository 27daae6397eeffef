// The dump reader: it reads everything that is well-formed, reports the rest, and finds every trailer that the daemon can
// write.

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "dump_support.h"
#include "vestra-daemon/vestra_xml.h"
#include "vestra-daemon/vestrad.h"

using namespace dump_test;
using vestra_dump::MemorySource;
using vestra_dump::Reason;

namespace {

const struct TrailerRow {
    const char *name;
    std::string ini;  // the version file
    std::string build, model;
    bool build_cut = false, model_cut = false;
} kTrailers[] = {
    {"CrLf", "Model=24_TVX\r\nBuild=T-RX-1107.2/eu\r\n", "T-RX-1107.2/eu", "24_TVX"},
    {"LfOnly", "Model=24_TVX\nBuild=T-RX-1107.2\n", "T-RX-1107.", "24_TVX", true},
    {"BuildEmpty", "Model=24_TVX\nBuild=\n", "", "24_TVX"},
    {"BuildEmptyCrLf", "Model=24_TVX\r\nBuild=\r\n", "", "24_TVX"},
    {"BuildBeforeModel", "Build=B1\r\nModel=24_TVX\r\n", "B1", ""},
    {"BuildWithoutLineEnd", "Model=A\r\nBuild=abcd", "ab", "A"},
    {"ModelOfOneLetter", "Model=A\nBuild=\n", "", "A"},
    {"ModelOfALineEndAlone", "Model=\nBuild=\n", "", ""},
    {"ModelCut", "Model=" + std::string(50, 'm') + "\r\nBuild=b\r\n", "b", std::string(32, 'm'), false, true},
    {"Model32WithLineEnd", "Model=" + std::string(30, 'm') + "\r\nBuild=b\r\n", "b", std::string(30, 'm')},
    {"BuildCut", "Model=x\r\nBuild=" + std::string(300, 'b') + "\r\n", std::string(120, 'b'), "x"},
    {"LastLineIsTaken", "Model=24_TVX", "24_T", "24_TVX"},
    {"OtherLineIsTaken", "Region=eu\r\n", "=eu", ""},
    {"NotAscii", "Model=\xc3\xbc\xff\r\nBuild=\xc3\xbc\r\n", "\xc3\xbc", "\xc3\xbc\xff"},
    {"NothingAtAll", "", "", ""},
    {"KeysAreAtTheLineStart", "MODEL=A\n Build=2\r\nBuild=1\r\n", "1", ""},
    {"BuildOnLine19", std::string(18, '\n') + "Build=1\r\n", "1", ""},
    {"NoBuildIn20LinesTakesThe20th", std::string(19, '\n') + "Twentieth\r\nBuild=1\r\n", "eth", ""},
    {"LongLineIsReadIn128s", "Model=M\r\n" + std::string(128, 'x') + "Build=1\r\n", "1", "M"},
};

std::string written_trailer(const std::string &ini, int lite_mode) {
    std::ofstream("/etc/prd_info.ini") << ini;
    g_vestra_config.vestra_litemode_on = lite_mode;
    const int fd = open("/tmp/trailer", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_EQ(append_image_version(fd), 0);
    std::string bytes(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    close(fd);
    return bytes;
}

TEST(DumpReader, EveryTrailerOfTheDaemonIsFound) {
    for (const TrailerRow &row : kTrailers) {
        for (const int lite : {0, 1, INT32_MIN}) {
            for (const int blocks : {0, 1, 60}) {  // an empty chain; less, and more, than the reader has in view
                SCOPED_TRACE(row.name + std::to_string(lite) + " " + std::to_string(blocks));
                const std::string trailer = written_trailer(row.ini, lite);
                const auto totals = record(synthetic("steady", 9, 15000, blocks) + trailer, 100000).totals;
                ASSERT_TRUE(totals.trailer);
                EXPECT_EQ(totals.trailer->bytes, trailer);
                EXPECT_EQ(totals.trailer->build, row.build);
                EXPECT_EQ(totals.trailer->model, row.model);
                EXPECT_EQ(totals.trailer->build_cut, row.build_cut);
                EXPECT_EQ(totals.trailer->model_cut, row.model_cut);
                EXPECT_EQ(totals.trailer->lite_mode.value_or(0), lite);
                EXPECT_TRUE(totals.is_clean());
            }
        }
    }
}

TEST(DumpReader, TrailerIsFoundAfterDamage) {
    const std::string blocks = synthetic("steady", 9, 2000, 3);
    for (const std::string &payload :
         {blocks.substr(0, blocks.size() - 40), blocks + std::string(5000, '\0'), std::string(300000, '\xee')}) {
        for (const std::string &trailer : {kTrailer, kLiteTrailer}) {
            EXPECT_EQ(record(payload + trailer).totals.trailer.value_or(vestra_dump::Trailer{}).bytes, trailer);
        }
    }
}

TEST(DumpReader, EveryTruncationKeepsTheFramesBeforeIt) {
    const std::string payload = synthetic("steady", 4, 600, 6), whole = payload + kLiteTrailer;
    const auto all = record(whole).frames;
    for (size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        const Recorder seen = record(std::string_view(whole).substr(0, size));
        auto expected = all;
        while (!expected.empty() && expected.back().first + expected.back().second > size) expected.pop_back();
        EXPECT_EQ(seen.frames, expected);
        const bool trailer = size == whole.size() || size == payload.size() + kTrailer.size();
        EXPECT_EQ(seen.totals.trailer.has_value(), trailer);
    }
}

TEST(DumpReader, OneWrongByteAnywhereCostsAtMostItsFrame) {
    const std::string whole = synthetic("steady", 4, 600, 4) + kTrailer;
    const auto all = record(whole).frames;
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const int change : {0x01, 0x07, 0x80, 0xff}) {
            SCOPED_TRACE(std::to_string(at) + " " + std::to_string(change));
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ change);
            const auto seen = record(damaged).frames;
            for (const Place &frame : all) {
                if (std::binary_search(seen.begin(), seen.end(), frame)) continue;
                EXPECT_TRUE(at >= frame.first && at < frame.first + frame.second) << frame.first;
            }
        }
    }
}

// A switch frame of five messages.
std::string frame() {
    std::vector<uint8_t> bytes;
    trace::FrameWriter writer(&bytes);
    writer.begin_frame(trace::kSwitchFrame, 1);
    trace::SwitchMessage message;
    message.name = "tuner";
    for (int i = 0; i < 5; ++i) writer.add(message);
    return {bytes.begin(), bytes.end()};
}

TEST(DumpReader, DamageIsOneSpanWithItsReason) {
    const struct {
        std::string between;  // of two whole blocks
        Reason reason;
        size_t messages = 0;  // read from it anyway
        size_t early = 0;     // bytes of the block before it that look the same
    } kDamages[] = {
        {std::string("\x01\x00\x02\x00", 4) + std::string(500, 'x'), Reason::kLength},
        {std::string(3'000'000, '\xff'), Reason::kLength},
        {frame().replace(3, 1, "\x01"), Reason::kLength, 5},
        {frame().replace(0, 1, "\x50"), Reason::kWrongLength, 5},
        {frame().replace(4, 1, "\x05"), Reason::kType, 5},
        {std::string("\x06\x00\x00\x00\x09\x00----", 10), Reason::kType},
        {frame().substr(0, 150), Reason::kNextInside, 3},
        {std::string(4096, '\0'), Reason::kZeros, 0, 4},
        {std::string("\x01\x00\x00\x00\x07", 5), Reason::kOneByte},
        {frame().replace(5, 1, "\x04"), Reason::kCore},
        {std::string("\x03\x00\x00\x00\x07\x00\x03", 7), Reason::kMessageType},
        {std::string("\x04\x00\x00\x00\x08\x00\x01\xff", 8), Reason::kElement},
    };
    const std::string block = synthetic("steady", 4, 2000, 1);
    for (const auto &row : kDamages) {
        SCOPED_TRACE(describe(row.reason));
        const Recorder seen = record(block + row.between + block + kTrailer, 5000);
        EXPECT_EQ(seen.frames.size(), 2 * record(block).frames.size());
        ASSERT_EQ(seen.damage.size(), 1U);
        EXPECT_EQ(seen.damage[0].offset, block.size() - row.early);
        EXPECT_EQ(seen.damage[0].bytes, row.between.size() + row.early);
        EXPECT_EQ(seen.damage[0].reason, row.reason);
        EXPECT_EQ(seen.damage[0].messages, row.messages);
    }
}

TEST(DumpReader, FramesOfANewerModuleAreNoDamageIfThereAreSome) {
    const std::string block = synthetic("steady", 4, 2000, 1), unknown("\x06\x00\x00\x00\x09\x01----", 10);
    const Recorder seen = record(block + unknown + unknown + unknown + block + kTrailer);
    EXPECT_TRUE(seen.totals.is_clean());
    EXPECT_EQ(seen.totals.frames_of(9), 3U);
}

TEST(DumpReader, BadSectorCostsTheFramesThatItTouches) {
    struct BadSector : MemorySource {
        using MemorySource::MemorySource;
        uint64_t begin = 0, end = 0;
        int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override {
            if (offset < end && offset + count > begin) return errno = EIO, -1;
            return MemorySource::read_at(offset, out, count);
        }
    };
    const std::string whole = synthetic("steady", 9, 15000, 40) + kTrailer;
    const auto all = record(whole).frames;
    for (const auto &[begin, end] : {Place{0, 512}, {51200, 51712}, {102400, 204800}}) {
        BadSector source(whole);
        source.begin = begin;
        source.end = end;
        Recorder seen;
        seen.totals = read_dump(source, seen);
        EXPECT_EQ(seen.totals.error, "");
        EXPECT_TRUE(seen.totals.trailer);
        EXPECT_FALSE(seen.damage.empty());
        for (const auto &span : seen.damage) EXPECT_EQ(span.reason, Reason::kUnreadable);
        for (const Place &frame : all) {
            const bool touched = frame.first < end && frame.first + frame.second > begin;
            EXPECT_NE(std::binary_search(seen.frames.begin(), seen.frames.end(), frame), touched) << frame.first;
        }
    }
}

// Repeats a period that is valid messages from each of its three names on, and each name is the beginning of a long frame.
// A fault now and then damages every one of them.
std::string nested_beginnings(size_t size) {
    const std::string head("\x7f\x7f\x01\x00\x07\x00", 6);  // a length of 98175, a switch frame
    const std::string part = "\x01\x01\x01\x01\x06" + head, period = part + part + part + "\x01\x01\x01\x01\x06\x01";
    std::string bytes;
    while (bytes.size() < size) {
        bytes += period;
        if (bytes.size() % 98000 < period.size()) bytes.append(40, '\xff');
    }
    return bytes;
}

TEST(DumpReader, HostileLayoutIsReadAgainAtMostOnce) {
    const std::string bytes = nested_beginnings(3'000'000);
    vestra_dump::StretchReader stretches;
    vestra_dump::FrameMessages messages(true);
    for (size_t at = 0; at < bytes.size();) {
        const vestra_dump::View view{reinterpret_cast<const uint8_t *>(bytes.data()) + at, bytes.size() - at, true};
        at += stretches.read(view, &messages).size;
    }
    EXPECT_EQ(stretches.bytes_passed(), bytes.size());
    EXPECT_GT(stretches.bytes_reread(), vestra_dump::StretchReader::kFreeRereads) << "the budget ends it";
    EXPECT_LE(stretches.bytes_reread(), bytes.size() + vestra_dump::StretchReader::kFreeRereads + trace::kRecordMax);
}

TEST(DumpReader, HostileStreamIsReadAsItsSourcePlannedIt) {
    using Samples = std::vector<std::pair<int64_t, int32_t>>;  // time and process
    struct Seen : vestra_dump::DumpVisitor {
        std::map<uint64_t, Samples> frames;  // by offset
        void on_frame(const vestra_dump::Frame &seen, vestra_dump::FrameMessages &messages) override {
            Samples &frame = frames[seen.offset];
            for (const auto &sample : messages.switches) frame.emplace_back(sample.time_ns, sample.pid);
            for (const auto &sample : messages.memories) frame.emplace_back(sample.time_ns, 0);
        }
    };
    for (const uint64_t seed : {1U, 2U, 3U}) {
        std::string dump, error;
        std::map<uint64_t, Samples> sound, damaged;
        const auto source = vestra_set::SyntheticSource::make(source_options("hostile", 50, 20000, seed), &error);
        source->keep_plan(true);
        for (int block = 0; block < 60; ++block) {
            const size_t begin = dump.size();
            append_block(*source, &dump);
            for (const vestra_set::PlannedFrame &frame : source->plan().frames) {
                const bool is_sound =
                    frame.damage == vestra_set::Damage::kNone || frame.damage == vestra_set::Damage::kExtremes;
                Samples &samples = (is_sound ? sound : damaged)[begin + frame.offset];
                for (const auto &message : frame.switches) samples.emplace_back(message.time_ns, message.pid);
                for (const auto &message : frame.infos) samples.emplace_back(message.time_ns, 0);
            }
        }
        MemorySource bytes(dump);
        Seen seen;
        const auto totals = read_dump(bytes, seen);
        EXPECT_GT(totals.damaged_spans, 100U);
        size_t found = 0;
        for (const auto &[offset, samples] : seen.frames) {
            SCOPED_TRACE(offset);
            const bool is_sound = sound.count(offset) > 0;
            found += is_sound ? 1 : 0;
            // What a damaged frame holds before its fault counts.
            EXPECT_EQ(samples, is_sound ? sound[offset] : damaged[offset]);
        }
        EXPECT_EQ(found, sound.size());
    }
}

}  // namespace
