#include "set/trace/dump_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "trace/frame_writer.h"

namespace vestra_set {
namespace {

constexpr std::string_view kLiteKey = "QXLiteMode=";
constexpr size_t kWindow = size_t{512} * 1024;  // at least the longest record
static_assert(kWindow >= kLengthField + kFrameMax);

// Takes a text and its length byte off the end of `tail`. Nothing when the length is 0 or leads out of it.
std::optional<std::string_view> take_text(std::string_view *tail) {
    if (tail->empty()) return std::nullopt;
    const size_t length = static_cast<uint8_t>(tail->back());
    if (length == 0 || length >= tail->size()) return std::nullopt;
    const auto text = tail->substr(tail->size() - 1 - length, length);
    tail->remove_suffix(length + 1);
    return text;
}

bool is_text(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<uint8_t>(c);
        return byte >= 0x20 ? byte != 0x7f : byte == '\t' || byte == '\n' || byte == '\r';
    });
}

}  // namespace

std::optional<DumpTrailer> find_trailer(std::string_view tail) {
    const size_t size = tail.size();
    DumpTrailer trailer;
    auto text = take_text(&tail);
    if (text && text->substr(0, kLiteKey.size()) == kLiteKey) {
        int value = 0;
        const char *end = text->data() + text->size();
        const auto parsed = std::from_chars(text->data() + kLiteKey.size(), end, value);
        if (parsed.ec == std::errc() && parsed.ptr == end) {
            trailer.lite_mode = value;
            text = take_text(&tail);
        }
    }
    if (!text || !is_text(*text)) return std::nullopt;
    // A build text may hold slashes of its own, a model text has none: the last one is the one between them.
    const size_t slash = text->rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    trailer.build = text->substr(0, slash);
    trailer.model = text->substr(slash + 1);
    trailer.model.erase(trailer.model.find_last_not_of("\r\n") + 1);
    trailer.size = size - tail.size();
    return trailer;
}

std::unique_ptr<DumpFile> DumpFile::open(const std::string &path, std::string *error) {
    // Without O_NONBLOCK a FIFO would wait for its other end.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        *error = path + ": " + (fd < 0 ? std::strerror(errno) : "not a regular file");
        if (fd >= 0) ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<DumpFile>(new DumpFile(fd, static_cast<uint64_t>(status.st_size)));
}

DumpFile::DumpFile(int fd, uint64_t size) : fd_(fd), size_(size), payload_(size), window_(kWindow) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(size, kTrailerLimit));
    size_t available = 0;
    const uint8_t *tail = bytes(size - wanted, wanted, &available);
    if (available < wanted) return;
    trailer_ = find_trailer({reinterpret_cast<const char *>(tail), wanted});
    if (trailer_) payload_ -= trailer_->size;
}

DumpFile::~DumpFile() {
    ::close(fd_);
}

// `count` bytes (at most kWindow) of the payload, or as many as there are. Good until the next call.
const uint8_t *DumpFile::bytes(uint64_t offset, size_t count, size_t *available) {
    const uint64_t left = offset < payload_ ? payload_ - offset : 0;
    count = static_cast<size_t>(std::min<uint64_t>(count, left));
    if (offset < window_offset_ || offset - window_offset_ + count > window_size_) {
        window_offset_ = offset;
        window_size_ = 0;
        while (window_size_ < window_.size()) {
            const ssize_t got = pread(fd_, window_.data() + window_size_, window_.size() - window_size_,
                                      static_cast<off_t>(offset + window_size_));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            window_size_ += static_cast<size_t>(got);
        }
    }
    *available = std::min<size_t>(count, static_cast<size_t>(window_offset_ + window_size_ - offset));
    return window_.data() + (offset - window_offset_);
}

// Where in [from, to) a reader may go on, or `to`.
uint64_t DumpFile::find_anchor(uint64_t from, uint64_t to) {
    // What is known to hold none is not searched again: a long stretch may be asked about piece by piece.
    const bool known = from >= barren_begin_ && from < barren_end_;
    if (!known) barren_begin_ = from;
    uint64_t at = known ? std::min(barren_end_, to) : from;
    for (; at < to; ++at) {
        size_t available = 0;
        const uint8_t *look = bytes(at, kLengthField + kFrameHeader, &available);
        if (available < kLengthField + kFrameHeader) {
            at = to;
            break;
        }
        const uint32_t length = get_frame_len(look);
        if (length > kFrameMax || (look[kLengthField] != kSwitchFrame && look[kLengthField] != kMeminfoFrame)) continue;
        look = bytes(at, kLengthField + length, &available);
        if (is_anchor(look, available)) break;
    }
    barren_end_ = known ? std::max(barren_end_, at) : at;
    return at;
}

DumpRecord DumpFile::record(uint64_t offset) {
    DumpRecord result;
    result.offset = offset;
    size_t available = 0;
    const uint8_t *look = bytes(offset, kLengthField + kFrameMax, &available);
    if (available == 0) return result;
    const uint32_t length = available < kLengthField ? UINT32_MAX : get_frame_len(look);
    if (length == 0) {
        result.kind = DumpRecord::kEmpty;
        result.size = kLengthField;
        return result;
    }
    if (length <= kFrameMax && length <= available - kLengthField) {
        const uint64_t end = offset + kLengthField + length;
        result.kind = DumpRecord::kFrame;
        result.size = end - offset;
        result.frame = check_frame(look + kLengthField, length);
        const bool known = result.frame.type == kSwitchFrame || result.frame.type == kMeminfoFrame;
        if (result.frame.verdict == FrameCheck::kGood && known) return result;
        // A length that reaches over the start of another frame is no length.
        const uint64_t anchor = find_anchor(offset + 1, end);
        if (anchor == end) return result;
        result.size = anchor - offset;
    } else {
        result.size = find_anchor(offset + 1, payload_) - offset;
    }
    result.kind = DumpRecord::kDamaged;
    result.frame = FrameCheck{};
    return result;
}

size_t DumpFile::copy(uint64_t offset, uint8_t *out, size_t count) {
    size_t copied = 0;
    while (copied < count) {
        size_t available = 0;
        const uint8_t *from = bytes(offset + copied, std::min(count - copied, kWindow), &available);
        if (available == 0) break;
        std::memcpy(out + copied, from, available);
        copied += available;
    }
    return copied;
}

}  // namespace vestra_set
