// A file with any content, read as a dump: summary, all tables, findings, a cut that hides processes, and a comparison.
//
// The first byte of an input selects the sizes in which the file is read. Rules: the reported spans cover
// the file without gap or overlap, and the totals are the sums of the spans, whatever the read sizes. The
// work is bounded by the file's size: the number of searches for the start of a frame, and the number of
// bytes that are read as messages.

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz/fuzz_env.h"
#include "tools/dump/comparison.h"
#include "tools/dump/explain.h"
#include "tools/dump/folder.h"
#include "tools/dump/row_text.h"
#include "tools/dump/summary.h"
#include "trace/percentages.h"

using namespace vestra_dump;

namespace {

// Work done by the reader.
uint64_t looks;       // checks for the start of a frame, each of at most eight messages
uint64_t bytes_read;  // bytes of frames whose messages were read, up to their first fault

class Trickle : public ByteSource {
  public:
    Trickle(std::string_view bytes, size_t piece) : source_(bytes), piece_(piece) {}
    int64_t read_at(uint64_t offset, uint8_t *out, size_t count) override {
        return source_.read_at(offset, out, std::min(count, piece_));
    }

  private:
    MemorySource source_;
    size_t piece_;
};

// Checks the spans.
class Checker : public DumpVisitor {
  public:
    void on_frame(const Frame &frame, FrameMessages & /*messages*/) override {
        FUZZ_RULE(frame.offset == end_, "a frame begins where the previous span ends");
        FUZZ_RULE(frame.raw_size + trace::kLengthField <= frame.bytes || !frame.whole, "a frame contains its messages");
        if (frame.whole) end_ += frame.bytes;
    }
    void on_empty_record(uint64_t offset) override {
        FUZZ_RULE(offset == end_, "an empty record begins where the previous span ends");
        end_ += trace::kLengthField;
    }
    void on_damage(const DamagedSpan &span) override {
        FUZZ_RULE(span.offset == end_, "a damaged span begins where the previous span ends");
        FUZZ_RULE(span.bytes > 0, "a damaged span is not empty");
        end_ += span.bytes;
    }
    uint64_t end() const { return end_; }

  private:
    uint64_t end_ = 0;
};

// Writes every row as CSV and as JSON.
class Tee : public RowSink {
  public:
    explicit Tee(const DumpTime &time) : json_(time, *out_) {
        for (const Table *table : {&kVitalsTable, &kProcessesTable, &kFramesTable, &kDamageTable}) {
            csv_.emplace_back(table, std::make_unique<CsvWriter>(*table, time, *out_));
        }
    }
    void add(const Table &table, const Row &row) override {
        for (const auto &[known, writer] : csv_) {
            if (known == &table) writer->add(table, row);
        }
        json_.add(table, row);
    }

  private:
    std::string error_;
    std::unique_ptr<Output> out_ = Output::open("/dev/null", &error_);
    std::vector<std::pair<const Table *, std::unique_ptr<CsvWriter>>> csv_;
    JsonWriter json_;
};

std::string totals_text(const DumpTotals &totals) {
    std::ostringstream text;
    text << totals.bytes << ' ' << totals.payload_bytes << ' ' << totals.frame_bytes << ' ' << totals.messages << ' '
         << totals.empty_records << ' ' << totals.damaged_spans << ' ' << totals.damaged_bytes << ' '
         << (totals.trailer ? totals.trailer->bytes : "none");
    for (const auto &[type, count] : totals.frames) text << ' ' << type << ':' << count;
    return text.str();
}

}  // namespace

// The reader's calls of these two functions come here.
bool real_begins_frame(const uint8_t *at, size_t size) asm("__real__ZN5trace12begins_frameEPKhm");
bool counted_begins_frame(const uint8_t *at, size_t size) asm("__wrap__ZN5trace12begins_frameEPKhm");
trace::FrameFault real_read(FrameMessages *self, const uint8_t *frame, size_t size,
                            int type) asm("__real__ZN11vestra_dump13FrameMessages4readEPKhmi");
trace::FrameFault counted_read(FrameMessages *self, const uint8_t *frame, size_t size,
                               int type) asm("__wrap__ZN11vestra_dump13FrameMessages4readEPKhmi");

bool counted_begins_frame(const uint8_t *at, size_t size) {
    ++looks;
    return real_begins_frame(at, size);
}

trace::FrameFault counted_read(FrameMessages *self, const uint8_t *frame, size_t size, int type) {
    const trace::FrameFault fault = real_read(self, frame, size, type);
    bytes_read += fault == trace::FrameFault::kNone ? size : self->end();
    return fault;
}

void vestra_fuzz::prepare() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static constexpr size_t kPieces[] = {SIZE_MAX, 1, 100, 4096};
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char *>(data + 1), size - 1);
    Checker checker;
    Trickle source(bytes, kPieces[data[0] % 4]);
    looks = bytes_read = 0;
    const DumpTotals totals = read_dump(source, checker);
    // One pass over the file, and up to three over its end for the trailer. In each pass, at most the file's size, the
    // free allowance and one record are read again.
    constexpr uint64_t kPasses = 4;
    const uint64_t most_of_a_pass = 2 * bytes.size() + StretchReader::kFreeRereads + trace::kRecordMax;
    FUZZ_RULE(looks <= 3 * kPasses * bytes.size(), "no offset is checked more than three times a pass");
    FUZZ_RULE(bytes_read <= kPasses * most_of_a_pass, "reading again is bounded by the file's size");
    const uint64_t trailer = totals.trailer ? totals.trailer->bytes.size() : 0;
    FUZZ_RULE(checker.end() == totals.payload_bytes, "the spans cover the payload");
    FUZZ_RULE(totals.payload_bytes + trailer == totals.bytes && totals.bytes == bytes.size(), "nothing is left out");
    FUZZ_RULE(totals.frame_bytes + totals.damaged_bytes + 4 * totals.empty_records == totals.payload_bytes,
              "the totals are the sums of the spans");

    Survey found = survey(source);
    Overview overview;
    overview.path = "DUMP";
    const bool known = (data[0] & 4) != 0;
    std::string error;
    FUZZ_RULE(resolve({known ? "1700000000" : "", "", ""}, "DUMP", found, &overview.time, &error), "times can be set");
    Tee tee(overview.time);
    RowMaker maker({true, true, true, true}, tee);
    overview.summary = analyse(source, &found.timeline, overview.time.range, 5, maker);
    const auto &span = found.timeline.span();
    FUZZ_RULE(
        overview.summary.first_ns.has_value() == span.has_value() &&
            (!span || (*overview.summary.first_ns == span->first_ns && *overview.summary.last_ns == span->newest_ns)),
        "the second pass believes what the first one does");
    FUZZ_RULE(overview.summary.samples_astray == found.timeline.astray(), "and leaves out the same");
    const int64_t first_ns = span ? span->first_ns : 0, newest_ns = span ? span->newest_ns : 0;
    History history(first_ns + (newest_ns - first_ns) / 16 * (data[0] / 16));
    analyse(source, &found.timeline, {}, 0, history);
    NameFilter filter((data[0] & 8) != 0, {"ui-shell", "tuner"});
    const auto cut = Output::open("/dev/null", &error);
    Folder folder(filter, {}, *cut);
    folder.end(analyse(source, &found.timeline, {}, 0, folder).totals);
    Profile profile(span);
    analyse(source, &found.timeline, {}, 0, profile);
    profile.end();
    std::ostringstream page;
    const Profile nothing(span);
    const auto differences = compare({overview, profile}, {overview, nothing}, 25);
    page << to_json({overview, profile}, {overview, nothing}, 25, differences).dump();
    print({overview, profile}, {overview, nothing}, 25, differences, page);
    FUZZ_RULE(compare({overview, profile}, {overview, profile}, 0).empty(), "a dump does not differ from itself");
    page << to_json(explain(history, "DUMP", first_ns)).dump();
    print(overview, page);
    page << to_json(overview).dump();
    FUZZ_RULE(page.good(), "a summary can be printed");

    MemorySource whole(bytes);
    DumpVisitor nobody;
    FUZZ_RULE(totals_text(read_dump(whole, nobody)) == totals_text(totals), "the read sizes make no difference");
    return 0;
}
