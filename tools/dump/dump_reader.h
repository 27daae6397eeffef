// dump_reader.h -- reads a dump from its first byte to its last and calls a visitor for what is in it.
//
//   class Counter : public DumpVisitor { void on_frame(const Frame &frame) override { ... } };
//   FileSource source = ...;
//   Counter counter;
//   const DumpTotals totals = read_dump(source, counter);
//
// Memory is bounded, whatever the dump's size and content, and the source may be a pipe. To get vitals and percentages
// instead of messages, visit with an Analysis (analysis.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/dump/messages.h"
#include "tools/dump/source.h"
#include "tools/dump/stretch.h"
#include "tools/dump/trailer.h"

namespace vestra_dump {

struct Frame {
    uint64_t offset;  // of its length field in the file
    uint64_t bytes;   // of the record, length field included
    int type, core;
    bool whole;          // false: the messages before the fault of a damaged frame
    size_t messages;     // number of messages; their calls follow
    int64_t first_ns;    // times of the first and last of them; 0 without messages
    int64_t last_ns;     //
    const uint8_t *raw;  // type, core and those messages, as they are in the file
    size_t raw_size;
};

struct DamagedSpan {
    uint64_t offset;
    uint64_t bytes;
    Reason reason;
    size_t messages;  // read from it anyway
};

struct DumpTotals {
    uint64_t bytes = 0;              // of the file
    uint64_t payload_bytes = 0;      // without the trailer: frames, empty records and damaged spans
    std::map<int, uint64_t> frames;  // number of frames by type, without damaged ones
    uint64_t frame_bytes = 0;        // of those, length fields included
    uint64_t messages = 0;           // those in damaged spans included
    uint64_t empty_records = 0;      // four bytes each
    uint64_t damaged_spans = 0;
    uint64_t damaged_bytes = 0;
    std::optional<Trailer> trailer;
    std::string error;  // why the file could not be read to its end; empty: it could

    uint64_t frames_of(int type) const { return frames.count(type) > 0 ? frames.at(type) : 0; }
    uint64_t all_frames() const;

    // Whether anything in it belongs to a dump.
    bool is_dump() const { return !frames.empty() || messages > 0 || empty_records > 0 || trailer.has_value(); }
    bool is_clean() const { return damaged_spans == 0 && trailer.has_value() && error.empty(); }
};

// Arguments are valid until the call returns. Calls come in the order of the file, a frame before its messages. A
// damaged span comes after the messages that were read from it.
class DumpVisitor {
  public:
    virtual ~DumpVisitor() = default;
    virtual void on_frame(const Frame & /*frame*/) {}
    virtual void on_switch(const SwitchSample & /*sample*/) {}
    virtual void on_memory(const MemorySample & /*sample*/) {}
    virtual void on_empty_record(uint64_t /*offset*/) {}
    virtual void on_damage(const DamagedSpan & /*span*/) {}
    virtual void on_end(const DumpTotals & /*totals*/) {}
};

// Reads the whole source. `searching`: it begins anywhere in a dump; start at the first frame.
DumpTotals read_dump(ByteSource &source, DumpVisitor &visitor, bool searching = false);

}  // namespace vestra_dump
