#include "set/trace/replay_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "set/fd.h"
#include "set/trace/pace.h"
#include "trace/frame_walk.h"
#include "trace/frame_writer.h"

namespace vestra_set {
namespace {

constexpr size_t kViewMax =
    kBlockMax + 2 * kRecordMax;  // bytes: a block, a record after it, and one that begins in that

struct Stretch {
    size_t size;  // bytes, above 0
    bool record;  // false: damage, up to where a frame begins
};

// Where in a frame, counted from its record's beginning, to look for the beginning of another one; `record.next` for a
// frame that is well-formed. A block may have ended inside the frame: then the next block begins in it, most likely in
// what looks like its last whole message.
const uint8_t *doubtful_part(const uint8_t *at, const Record &record) {
    if (!is_known_type(record.frame[0])) return at + 1;
    FrameWalk walk(record.frame, record.size);
    size_t last = 0;
    for (size_t begin = walk.offset(); walk.next(); begin = walk.offset()) last = begin;
    if (walk.fault() == FrameFault::kNone) return record.next;
    return std::max(at + 1, record.frame + last);
}

// What is at the beginning of the `size` bytes at `at`. `last`: the file ends with them.
Stretch take_stretch(const uint8_t *at, size_t size, bool last) {
    const Record record = take_record(at, at + size);
    if (record.next == nullptr) {
        const size_t searched = last ? size : size - kRecordMax;
        return {find_frame(at, size, 1, searched), false};
    }
    const auto end = static_cast<size_t>(record.next - at);
    if (record.size == 0) return {end, true};
    const size_t next = find_frame(at, size, static_cast<size_t>(doubtful_part(at, record) - at), end);
    return {next, next == end};
}

class ReplaySource : public TraceSource {
  public:
    ReplaySource(UniqueFd file, const SourceOptions &options)
        : file_(std::move(file)),
          block_size_(options.block_size > 0 ? options.block_size : kBlockMax),
          as_recorded_(options.block_size == 0),
          loop_(options.loop),
          pace_(options.rate),
          view_(kViewMax) {}

    size_t next_block(uint8_t *out, size_t capacity) override {
        if (!tracing_ || pace_.take() == 0) return 0;
        const size_t limit = std::min(capacity, block_size_);
        if (limit == 0) return 0;
        const size_t size = fill(out, limit);
        if (size > 0 || !loop_) return size;
        offset_ = 0;
        return fill(out, limit);
    }

    void apply(const ModuleControl &control) override { tracing_ = control.tracing; }

    bool holds_data() {
        read_view();
        return left_ > 0 && !is_trailer(take_stretch(view_.data(), left_, last_), left_);
    }

  private:
    // Up to `count` bytes of the file from offset_ on. A file that can no longer be read ends there.
    size_t read_file(uint8_t *out, size_t count) const {
        size_t size = 0;
        while (size < count) {
            const ssize_t got = pread(file_.get(), out + size, count - size, static_cast<off_t>(offset_ + size));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            size += static_cast<size_t>(got);
        }
        return size;
    }

    void read_view() {
        left_ = read_file(view_.data(), view_.size());
        last_ = left_ < view_.size();
    }

    // A short stretch of something else at the file's end is the trailer, which no reader takes for a record.
    bool is_trailer(const Stretch &stretch, size_t left) const {
        return last_ && !stretch.record && stretch.size == left && left <= kTrailerMax;
    }

    size_t fill(uint8_t *out, size_t limit) {
        if (rest_ > 0) {
            const size_t size = read_file(out, std::min(rest_, limit));
            rest_ = size > 0 ? rest_ - size : 0;
            offset_ += size;
            return size;
        }
        read_view();
        size_t size = 0;
        bool ended = false;  // the block ends with an empty record
        while (left_ > size) {
            const uint8_t *at = view_.data() + size;
            Stretch stretch = take_stretch(at, left_ - size, last_);
            const bool empty = stretch.record && stretch.size == kEmptyRecord;
            if (is_trailer(stretch, left_ - size) || (ended && as_recorded_ && !empty)) break;
            // After everything but an empty record there must be room for one.
            if (stretch.size + (empty ? 0 : kEmptyRecord) > limit - size) {
                if (size > 0) break;
                // Longer than a block: handed out in pieces. The daemon decodes none of them but records them all.
                rest_ = stretch.size - std::min(stretch.size, limit);
                stretch = {stretch.size - rest_, false};
            }
            std::memcpy(out + size, at, stretch.size);
            size += stretch.size;
            ended = empty;
            // The daemon drops what follows damage in a block.
            if (!stretch.record) {
                offset_ += size;
                return size;
            }
        }
        offset_ += size;
        if (size == 0 || ended) return size;
        FrameWriter writer(out + size, limit - size);
        writer.end_block();
        return size + writer.size();
    }

    const UniqueFd file_;
    const size_t block_size_;
    const bool as_recorded_;
    const bool loop_;
    Pace pace_;
    bool tracing_ = true;
    uint64_t offset_ = 0;        // in the file, of what is handed out next
    size_t rest_ = 0;            // bytes from there on that are the rest of a stretch longer than a block
    std::vector<uint8_t> view_;  // the file from there on
    size_t left_ = 0;            // bytes of it
    bool last_ = false;          // the file ends with them
};

}  // namespace

std::unique_ptr<TraceSource> make_replay_source(const SourceOptions &options, std::string *error) {
    // Without O_NONBLOCK opening a FIFO would wait for its other end.
    UniqueFd file(open(options.file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        *error = options.file + ": " + (file.valid() ? "not a regular file" : std::strerror(errno));
        return nullptr;
    }
    auto source = std::make_unique<ReplaySource>(std::move(file), options);
    if (source->holds_data()) return source;
    *error = options.file + ": holds no trace data";
    return nullptr;
}

}  // namespace vestra_set
