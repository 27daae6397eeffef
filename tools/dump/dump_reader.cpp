#include "tools/dump/dump_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace vestra_dump {
namespace {

// The last bytes that were read are held back, because they may be the trailer.
constexpr size_t kHeldMin = kLookahead + trace::kTrailerMax;

// A view of the file that moves forward.
class Window {
  public:
    explicit Window(ByteSource &source) : source_(source), buffer_(kSizeFirst) {}

    const uint8_t *data() const { return buffer_.data() + begin_; }
    size_t size() const { return end_ - begin_; }
    bool ended() const { return ended_; }
    uint64_t bytes_read() const { return bytes_read_; }
    const std::string &error() const { return error_; }
    void advance(size_t count) { begin_ += count; }

    // Brings kHeldMin bytes into view, or the file's end.
    void fill() {
        if (ended_ || size() >= kHeldMin) return;
        std::memmove(buffer_.data(), data(), size());
        end_ = size();
        begin_ = 0;
        while (!ended_ && end_ < kSizeMax) {
            if (end_ == buffer_.size()) buffer_.resize(std::min(4 * end_, kSizeMax));
            const int64_t got = source_.read(buffer_.data() + end_, buffer_.size() - end_);
            if (got < 0) error_ = std::strerror(errno);
            if (got <= 0) {
                ended_ = true;
            } else {
                end_ += static_cast<size_t>(got);
                bytes_read_ += static_cast<uint64_t>(got);
            }
        }
    }

  private:
    // Bytes. Small dumps need little. At the largest size, few bytes are moved for each that is read.
    static constexpr size_t kSizeFirst = size_t{1} << 14, kSizeMax = size_t{1} << 20;
    static_assert(kSizeMax >= 2 * kHeldMin, "room to read on while the held bytes are in view");

    ByteSource &source_;
    std::vector<uint8_t> buffer_;
    size_t begin_ = 0, end_ = 0;
    uint64_t bytes_read_ = 0;
    bool ended_ = false;
    std::string error_;
};

class Reader {
  public:
    Reader(ByteSource &source, DumpVisitor &visitor, bool searching)
        : window_(source), visitor_(visitor), searching_(searching) {}

    DumpTotals run() {
        for (;;) {
            window_.fill();
            if (window_.ended() && !trailer_known_) find_trailer();
            const size_t left = window_.size() - (window_.ended() ? trailer_size() : trace::kTrailerMax);
            if (left == 0) break;
            take(read_stretch({window_.data(), left, window_.ended()}, searching_, &messages_, &budget_));
        }
        end_span();
        totals_.bytes = window_.bytes_read();
        totals_.payload_bytes = offset_;
        totals_.error = window_.error();
        visitor_.on_end(totals_);
        return totals_;
    }

  private:
    size_t trailer_size() const { return totals_.trailer ? totals_.trailer->bytes.size() : 0; }

    void take(const Stretch &stretch) {
        const bool continues_span = stretch.kind == Stretch::kDamaged && searching_ && stretch.reason == Reason::kNone;
        if (!continues_span) end_span();
        switch (stretch.kind) {
            case Stretch::kEmpty:
                ++totals_.empty_records;
                visitor_.on_empty_record(offset_);
                break;
            case Stretch::kFrame:
                ++totals_.frames[window_.data()[trace::kLengthField]];
                totals_.frame_bytes += stretch.size;
                hand_on_messages(stretch);
                break;
            default:
                if (messages_.count() > 0) hand_on_messages(stretch);
                if (span_.bytes == 0) span_ = {offset_, 0, stretch.reason, messages_.count()};
                span_.bytes += stretch.size;
        }
        searching_ = stretch.kind == Stretch::kDamaged && stretch.open;
        last_empty_ = stretch.kind == Stretch::kEmpty;
        offset_ += stretch.size;
        window_.advance(stretch.size);
        budget_.pass(stretch.size);
    }

    void hand_on_messages(const Stretch &stretch) {
        const uint8_t *frame_bytes = window_.data() + trace::kLengthField;
        Frame frame = {};
        frame.offset = offset_;
        frame.bytes = stretch.size;
        frame.type = frame_bytes[0];
        frame.core = frame_bytes[1];
        frame.whole = stretch.kind == Stretch::kFrame;
        frame.messages = messages_.count();
        const auto set_times = [&frame](const auto &samples) {
            if (samples.empty()) return;
            frame.first_ns = samples.front().time_ns;
            frame.last_ns = samples.back().time_ns;
        };
        set_times(messages_.switches);
        set_times(messages_.memories);
        frame.raw = frame_bytes;
        frame.raw_size = trace::is_known_type(frame_bytes[0]) ? messages_.end() : stretch.size - trace::kLengthField;
        visitor_.on_frame(frame);
        for (const SwitchSample &sample : messages_.switches) visitor_.on_switch(sample);
        for (const MemorySample &sample : messages_.memories) visitor_.on_memory(sample);
        totals_.messages += messages_.count();
    }

    void end_span() {
        if (span_.bytes == 0) return;
        ++totals_.damaged_spans;
        totals_.damaged_bytes += span_.bytes;
        visitor_.on_damage(span_);
        span_ = {};
    }

    // How the payload would end if the last `trailer` bytes in view were the trailer. Reads all of the view again, up to
    // three times a file.
    enum class Ending { kInDamage, kWithFrame, kWithEmptyRecord };
    Ending ending_without(size_t trailer) {
        size_t left = window_.size() - trailer;
        const uint8_t *at = window_.data();
        bool searching = searching_;
        RereadBudget budget;
        Ending ending = last_empty_ || offset_ == 0 ? Ending::kWithEmptyRecord : Ending::kWithFrame;
        if (searching) ending = Ending::kInDamage;
        while (left > 0) {
            const Stretch stretch = read_stretch({at, left, true}, searching, &messages_, &budget);
            ending = stretch.kind == Stretch::kDamaged ? Ending::kInDamage
                     : stretch.kind == Stretch::kEmpty ? Ending::kWithEmptyRecord
                                                       : Ending::kWithFrame;
            searching = stretch.kind == Stretch::kDamaged && stretch.open;
            budget.pass(stretch.size);
            at += stretch.size;
            left -= stretch.size;
        }
        return ending;
    }

    // The file's end is in view: decides whether it is a trailer.
    void find_trailer() {
        trailer_known_ = true;
        if (window_.size() == 0 || !window_.error().empty()) return;
        const size_t tail = std::min(window_.size(), trace::kTrailerMax);
        auto readings = read_trailer({reinterpret_cast<const char *>(window_.data() + window_.size() - tail), tail});
        if (readings.empty() || ending_without(0) != Ending::kInDamage) return;
        for (TrailerReading &reading : readings) {
            const Ending ending = ending_without(reading.trailer.bytes.size());
            // A version file without build and model gives a trailer of a single zero byte. After a frame it is rather
            // the first byte of an empty record that was cut.
            const bool zero = reading.trailer.bytes.size() == 1;
            if (ending == Ending::kWithEmptyRecord || (ending == Ending::kWithFrame && !zero) ||
                (ending == Ending::kInDamage && reading.sure && !in_text(reading.trailer.bytes.size()))) {
                totals_.trailer = std::move(reading.trailer);
                return;
            }
        }
    }

    // Whether a trailer of that size would begin in the middle of a text. Then the real one is truncated, and its last
    // byte is not a length.
    bool in_text(size_t trailer) const {
        const size_t before = std::min<size_t>(window_.size() - trailer, 4);
        const uint8_t *begin = window_.data() + window_.size() - trailer - before;
        return std::all_of(begin, begin + before, [](uint8_t byte) { return byte >= ' ' && byte <= '~'; });
    }

    Window window_;
    DumpVisitor &visitor_;
    bool searching_;
    bool last_empty_ = false;
    bool trailer_known_ = false;
    uint64_t offset_ = 0;  // in the file, of what is in view
    FrameMessages messages_;
    RereadBudget budget_;
    DamagedSpan span_ = {};  // the damage before this place; no bytes: there is none
    DumpTotals totals_;
};

}  // namespace

uint64_t DumpTotals::all_frames() const {
    uint64_t all = 0;
    for (const auto &[type, count] : frames) all += count;
    return all;
}

DumpTotals read_dump(ByteSource &source, DumpVisitor &visitor, bool searching) {
    return Reader(source, visitor, searching).run();
}

}  // namespace vestra_dump
