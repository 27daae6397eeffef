// cutter.h -- writes a part of a dump as a smaller dump.
#pragma once

#include <cstddef>

#include "tools/dump/analysis.h"
#include "tools/dump/output.h"

namespace vestra_dump {

// Writes the trailer and the frames that have a message in the range. A frame without messages goes with the frame
// before it. The complete messages of a damaged frame become a frame; all other damaged data is left out. A block ends
// where it did in the dump, and before it would be longer than one read of the control node.
class Cutter : public DumpVisitor {
  public:
    Cutter(const TimeRange &range, Output &out) : range_(range), out_(out) {}

    void on_frame(const Frame &frame) override;
    void on_empty_record(uint64_t offset) override;
    void on_end(const DumpTotals &totals) override;

    size_t frames() const { return frames_; }  // written

  private:
    void end_block();
    void write_length(size_t length);

    TimeRange range_;
    Output &out_;
    bool inside_ = false;  // the last frame with messages was in the range
    size_t block_ = 0;     // bytes since the last empty record
    size_t frames_ = 0;
};

}  // namespace vestra_dump
