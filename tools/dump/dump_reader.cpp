#include "tools/dump/dump_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

namespace vestra_dump {
namespace {

// The last bytes that were read are held back, because they may be the trailer.
constexpr size_t kHeldMin = kLookahead + trace::kTrailerMax;

// A view of the file that moves forward.
class Window {
  public:
    explicit Window(ByteSource &source) : source_(source), buffer_(kSizeFirst) {}

    // Of a part of the payload. `bytes` of it are read at once, if that is possible.
    Window(ByteSource &source, uint64_t begin, uint64_t bytes, uint64_t end)
        : source_(source),
          size_max_(static_cast<size_t>(std::clamp<uint64_t>(bytes + kHeldMin, 2 * kHeldMin, kSizeMax))),
          buffer_(size_max_),
          bytes_read_(begin),
          last_(end) {}

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
        while (!ended_ && end_ < size_max_) {
            if (end_ == buffer_.size()) buffer_.resize(std::min(4 * end_, size_max_));
            const uint64_t left = last_ - std::min(bytes_read_, last_);
            const auto count = static_cast<size_t>(std::min<uint64_t>(buffer_.size() - end_, left));
            const int64_t got = count > 0 ? read(buffer_.data() + end_, count) : 0;
            ended_ = got <= 0;
            end_ += static_cast<size_t>(std::max<int64_t>(got, 0));
            bytes_read_ += static_cast<uint64_t>(std::max<int64_t>(got, 0));
        }
    }

    // Whether the storage did not give some of these bytes. The offset of a call is never before that of the last call.
    bool is_unreadable(uint64_t offset, uint64_t bytes) {
        while (!unreadable_.empty() && unreadable_.front() + kSector <= offset) unreadable_.pop_front();
        return !unreadable_.empty() && unreadable_.front() < offset + bytes;
    }

  private:
    // Reads on. A sector that cannot be read is filled with bytes that are no part of any message.
    int64_t read(uint8_t *out, size_t count) {
        if (bytes_read_ >= careful_until_) {
            const int64_t got = source_.read_at(bytes_read_, out, count);
            if (got >= 0 || errno != EIO) return got < 0 ? fail(errno) : got;
            careful_until_ = bytes_read_ + count;
        }
        const size_t piece = std::min<size_t>(count, kSector - bytes_read_ % kSector);
        const int64_t got = source_.read_at(bytes_read_, out, piece);
        if (got >= 0 || errno != EIO) return got < 0 ? fail(errno) : got;
        std::memset(out, 0xff, piece);
        unreadable_.push_back(bytes_read_ / kSector * kSector);
        return static_cast<int64_t>(piece);
    }

    int64_t fail(int problem) {
        error_ = std::strerror(problem);
        return -1;
    }

    // Bytes. Small dumps need little. At the largest size, few bytes are moved for each that is read.
    static constexpr size_t kSizeFirst = size_t{1} << 14, kSizeMax = size_t{1} << 20;
    static_assert(kSizeMax >= 2 * kHeldMin, "room to read on while the held bytes are in view");
    static constexpr uint64_t kSector = 512;

    ByteSource &source_;
    size_t size_max_ = kSizeMax;
    std::vector<uint8_t> buffer_;
    size_t begin_ = 0, end_ = 0;
    uint64_t bytes_read_ = 0;          // offset in the file
    uint64_t last_ = UINT64_MAX;       // offset at which it ends
    uint64_t careful_until_ = 0;       // offset up to which sectors are read one by one
    std::deque<uint64_t> unreadable_;  // offsets of the sectors in view
    bool ended_ = false;
    std::string error_;
};

class Reader {
  public:
    Reader(ByteSource &source, DumpVisitor &visitor, bool figures)
        : window_(source), visitor_(visitor), messages_(figures) {}

    Reader(ByteSource &source, const Place &from, uint64_t stop, uint64_t payload, DumpVisitor &visitor)
        : window_(source, from.offset, stop - std::min(from.offset, stop), payload),
          visitor_(visitor),
          messages_(true),
          stretches_(from.stretches),
          trailer_known_(true),
          offset_(from.offset),
          stop_(stop) {}

    DumpTotals run() {
        while (offset_ < stop_) {
            window_.fill();
            if (window_.ended() && !trailer_known_) find_trailer();
            const size_t left = window_.size() - (window_.ended() ? trailer_size() : trace::kTrailerMax);
            if (left == 0) break;
            take(stretches_.read({window_.data(), left, window_.ended()}, &messages_));
        }
        end_span();
        totals_.bytes = window_.bytes_read();
        totals_.payload_bytes = offset_;
        totals_.error = window_.error();
        return totals_;
    }

  private:
    size_t trailer_size() const { return totals_.trailer ? totals_.trailer->bytes.size() : 0; }

    void take(Stretch stretch) {
        if (window_.is_unreadable(offset_, stretch.size)) {
            if (stretch.kind != Stretch::kDamaged) messages_.clear();
            stretch.kind = Stretch::kDamaged;
            if (stretch.reason != Reason::kNone || span_.bytes == 0) stretch.reason = Reason::kUnreadable;
        }
        if (stretch.kind != Stretch::kDamaged || stretch.reason != Reason::kNone) end_span();
        const bool block_ends = stretch.kind == Stretch::kEmpty;
        switch (stretch.kind) {
            case Stretch::kEmpty:
                ++totals_.empty_records;
                next_block_ = offset_ + stretch.size;
                visitor_.on_empty_record(offset_);
                break;
            case Stretch::kFrame:
                ++totals_.frames[window_.data()[trace::kLengthField]];
                totals_.frame_bytes += stretch.size;
                hand_on(stretch);
                break;
            default:
                totals_.last_damage_end = offset_ + stretch.size;
                if (messages_.count() > 0) hand_on(stretch);
                if (span_.bytes == 0) span_ = {offset_, 0, stretch.reason, messages_.count(), {}, {}};
                span_.bytes += stretch.size;
        }
        last_kind_ = stretch.kind;
        offset_ += stretch.size;
        window_.advance(stretch.size);
        if (block_ends) visitor_.on_block_end({offset_, stretches_});
    }

    void hand_on(const Stretch &stretch) {
        const uint8_t *frame_bytes = window_.data() + trace::kLengthField;
        Frame frame = {};
        frame.offset = offset_;
        frame.bytes = stretch.size;
        frame.type = frame_bytes[0];
        frame.core = frame_bytes[1];
        frame.whole = stretch.kind == Stretch::kFrame;
        frame.raw = frame_bytes;
        frame.raw_size = messages_.count() > 0 || trace::is_known_type(frame.type) ? messages_.end()
                                                                                   : stretch.size - trace::kLengthField;
        const auto [first, last] =
            std::minmax_element(messages_.stamps.begin(), messages_.stamps.end(),
                                [](const Stamp &a, const Stamp &b) { return a.time_ns < b.time_ns; });
        if (first != messages_.stamps.end()) {
            frame.first_ns = first->time_ns;
            frame.last_ns = last->time_ns;
        }
        totals_.messages += messages_.count();
        totals_.last_block = next_block_;
        visitor_.on_frame(frame, messages_);
    }

    void end_span() {
        if (span_.bytes == 0) return;
        ++totals_.damaged_spans;
        totals_.damaged_bytes += span_.bytes;
        visitor_.on_damage(span_);
        span_ = {};
    }

    // The last stretch of the payload if the last `trailer` bytes in view were the trailer. Reads all of the view again, up
    // to three times a file.
    Stretch::Kind last_without(size_t trailer) {
        StretchReader stretches = stretches_;
        Stretch::Kind last = offset_ == 0 ? Stretch::kEmpty : last_kind_;
        const uint8_t *at = window_.data();
        for (size_t left = window_.size() - trailer; left > 0;) {
            const Stretch stretch = stretches.read({at, left, true}, &messages_);
            last = stretch.kind;
            at += stretch.size;
            left -= stretch.size;
        }
        return last;
    }

    // The file's end is in view: decides whether it is a trailer.
    void find_trailer() {
        trailer_known_ = true;
        if (window_.size() == 0 || !window_.error().empty()) return;
        const size_t tail = std::min(window_.size(), trace::kTrailerMax);
        auto readings = read_trailer({reinterpret_cast<const char *>(window_.data() + window_.size() - tail), tail});
        if (readings.empty() || last_without(0) != Stretch::kDamaged) return;
        for (TrailerReading &reading : readings) {
            const size_t size = reading.trailer.bytes.size();
            const Stretch::Kind last = last_without(size);
            // A short text after a frame is rather the beginning of a record that was cut.
            if (last == Stretch::kEmpty || (reading.sure && (last == Stretch::kFrame || !in_text(size)))) {
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
    FrameMessages messages_;
    StretchReader stretches_;
    Stretch::Kind last_kind_ = Stretch::kEmpty;
    bool trailer_known_ = false;
    uint64_t offset_ = 0;      // in the file, of what is in view
    uint64_t next_block_ = 0;  // offset after the last empty record
    uint64_t stop_ = UINT64_MAX;
    DamagedSpan span_ = {};  // the damage before this place; no bytes: there is none
    DumpTotals totals_;
};

}  // namespace

uint64_t DumpTotals::all_frames() const {
    uint64_t all = 0;
    for (const auto &[type, count] : frames) all += count;
    return all;
}

DumpTotals read_dump(ByteSource &source, DumpVisitor &visitor, bool figures) {
    return Reader(source, visitor, figures).run();
}

std::string read_part(ByteSource &source, const Place &from, uint64_t stop, uint64_t payload, DumpVisitor &visitor) {
    const DumpTotals totals = Reader(source, from, stop, payload, visitor).run();
    return totals.error.empty() && totals.payload_bytes < stop ? "it has become shorter" : totals.error;
}

}  // namespace vestra_dump
