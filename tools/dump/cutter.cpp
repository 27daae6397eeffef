#include "tools/dump/cutter.h"

namespace vestra_dump {

void Cutter::on_frame(const Frame &frame, const FrameMessages &messages) {
    const std::string_view raw(reinterpret_cast<const char *>(frame.raw), frame.raw_size);
    frame_ = messages.count() > 0 ? raw.substr(0, trace::kFrameHeader) : raw;
    size_t begin = trace::kFrameHeader;
    for (const Stamp &stamp : messages.stamps) {
        if (stamp.believed) frame_.append(raw.substr(begin, stamp.end - begin));
        begin = stamp.end;
    }
    if (messages.count() > 0) {
        // The type of a damaged frame may be what is wrong.
        frame_[0] = static_cast<char>(messages.memories.empty() ? trace::kSwitchFrame : trace::kMeminfoFrame);
    }
    const size_t size = trace::kLengthField + frame_.size();
    if (block_ > 0 && block_ + size + trace::kEmptyRecord > trace::kBlockMax) end_block();
    write_length(frame_.size());
    out_.write(frame_);
    block_ += size;
    ++frames_;
}

void Cutter::on_empty_record(uint64_t /*offset*/) {
    if (block_ > 0) end_block();
}

void Cutter::end(const DumpTotals &totals) {
    if (block_ > 0) end_block();
    if (totals.trailer) out_.write(totals.trailer->bytes);
}

void Cutter::end_block() {
    write_length(0);
    block_ = 0;
}

void Cutter::write_length(size_t length) {
    uint8_t bytes[trace::kLengthField];
    trace::put_frame_len(static_cast<uint32_t>(length), bytes);
    out_.write({reinterpret_cast<const char *>(bytes), sizeof(bytes)});
}

}  // namespace vestra_dump
