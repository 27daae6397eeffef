#include "set/trace/replay_source.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "set/trace/dump_file.h"
#include "set/trace/pace.h"
#include "trace/frame_writer.h"

namespace vestra_set {
namespace {

class ReplaySource : public TraceSource {
  public:
    ReplaySource(std::unique_ptr<DumpFile> file, const SourceOptions &options)
        : file_(std::move(file)),
          block_size_(options.block_size > 0 ? options.block_size : kBlockMax),
          as_recorded_(options.block_size == 0),
          loop_(options.loop),
          pace_(options.rate) {}

    size_t next_block(uint8_t *out, size_t capacity) override try {
        if (!tracing_ || pace_.take() == 0) return 0;
        if (offset_ >= file_->payload_size() && loop_) offset_ = 0;
        return fill(out, std::min(capacity, block_size_));
    } catch (const std::exception &) {
        return 0;
    }

    void apply(const ModuleControl &control) override { tracing_ = control.tracing; }

  private:
    size_t fill(uint8_t *out, size_t limit) {
        uint64_t end = offset_;  // of what goes into this block
        DumpRecord::Kind last = DumpRecord::kEnd;
        while (last == DumpRecord::kEnd || last == DumpRecord::kFrame ||
               (last == DumpRecord::kEmpty && !as_recorded_)) {
            const DumpRecord record = file_->record(end);
            // Room for the mark is kept behind everything but a mark.
            const size_t mark = record.kind == DumpRecord::kEmpty ? 0 : kEmptyRecord;
            if (record.kind == DumpRecord::kEnd || record.size + mark > limit - (end - offset_)) break;
            end += record.size;
            last = record.kind;
        }
        if (end == offset_) {
            // At the payload's end nothing is copied. One record that is longer than a block is handed out in pieces:
            // to the reader that is damage, and to the recording it is what it was.
            const size_t size = file_->copy(offset_, out, limit);
            offset_ += size;
            return size;
        }
        const size_t size = file_->copy(offset_, out, static_cast<size_t>(end - offset_));
        offset_ = end;
        if (last != DumpRecord::kFrame) return size;
        FrameWriter mark(out + size, limit - size);
        mark.end_block();
        return size + mark.size();
    }

    std::unique_ptr<DumpFile> file_;
    const size_t block_size_;
    const bool as_recorded_;
    const bool loop_;
    Pace pace_;
    bool tracing_ = true;
    uint64_t offset_ = 0;
};

}  // namespace

std::unique_ptr<TraceSource> make_replay_source(const SourceOptions &options, std::string *error) {
    auto file = DumpFile::open(options.file, error);
    if (file == nullptr) return nullptr;
    if (file->payload_size() == 0) {
        *error = options.file + ": holds no trace data";
        return nullptr;
    }
    return std::make_unique<ReplaySource>(std::move(file), options);
}

}  // namespace vestra_set
