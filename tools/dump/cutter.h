// cutter.h -- writes a part of a dump as a smaller dump.
#pragma once

#include <cstddef>

#include "tools/dump/analysis.h"
#include "tools/dump/output.h"

namespace vestra_dump {

// Writes the frames that it gets, and at the end the trailer. The messages of a damaged frame that are intact and believed
// become a frame; all other damaged data is left out. A block ends where it did in the dump, and before it would be longer
// than one read of the control node.
class Cutter : public DumpSink {
  public:
    explicit Cutter(Output &out) : out_(out) {}

    void on_frame(const Frame &frame, const FrameMessages &messages) override;
    void on_empty_record(uint64_t offset) override;
    void end(const DumpTotals &totals);

    size_t frames() const { return frames_; }  // written

  private:
    void end_block();
    void write_length(size_t length);

    Output &out_;
    size_t block_ = 0;  // bytes since the last empty record
    size_t frames_ = 0;
    std::string frame_;  // the one that is being written
};

}  // namespace vestra_dump
