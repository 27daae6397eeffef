#include "tools/dump/cutter.h"

namespace vestra_dump {
void Cutter::on_frame(const Frame &frame) {
    if (frame.messages > 0) inside_ = frame.last_ns >= range_.from && frame.first_ns <= range_.to;
    const bool all = range_.from == INT64_MIN && range_.to == INT64_MAX;
    if (!inside_ && !all) return;
    const size_t size = trace::kLengthField + frame.raw_size;
    if (block_ > 0 && block_ + size + trace::kEmptyRecord > trace::kBlockMax) end_block();
    write_length(frame.raw_size);
    out_.write({reinterpret_cast<const char *>(frame.raw), frame.raw_size});
    block_ += size;
    ++frames_;
}

void Cutter::on_empty_record(uint64_t /*offset*/) {
    if (block_ > 0) end_block();
}

void Cutter::on_end(const DumpTotals &totals) {
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
