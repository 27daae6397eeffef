// dump_reader.h -- reads a dump from its first byte to its last, and tells a visitor what is in it.
//
//   class Counter : public DumpVisitor { void on_frame(const Frame &frame) override { ... } };
//   FileSource source = ...;
//   Counter counter;
//   const DumpTotals totals = read_dump(source, counter);
//
// Memory is bounded whatever the dump's size and whatever is in it, and the source may be a pipe. Whoever wants vitals
// and percentages instead of messages visits with an Analysis (analysis.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/dump/messages.h"
#include "tools/dump/record.h"
#include "tools/dump/source.h"
#include "tools/dump/trailer.h"

namespace vestra_dump {

struct Frame {
    uint64_t offset;  // of its length field in the file
    uint64_t bytes;   // of the record, length field included
    int type, core;
    bool whole;          // false: some messages of a damaged one
    size_t messages;     // that follow
    int64_t first_ns;    // of the first and last of them; 0 without messages
    int64_t last_ns;     //
    const uint8_t *raw;  // type, core and those messages, as they are in the file
    size_t raw_size;
};

struct DamagedSpan {
    uint64_t offset;
    uint64_t bytes;
    Reason reason;
    size_t messages;  // that were read in it all the same
};

struct DumpTotals {
    uint64_t bytes = 0;              // of the file
    uint64_t payload_bytes = 0;      // without the trailer: frames, empty records and damaged spans
    std::map<int, uint64_t> frames;  // well-formed ones and those of unknown types, by type
    uint64_t frame_bytes = 0;        // of those, length fields included
    uint64_t messages = 0;           // those in damaged spans included
    uint64_t empty_records = 0;      // four bytes each
    uint64_t damaged_spans = 0;
    uint64_t damaged_bytes = 0;
    std::optional<Trailer> trailer;
    std::string error;  // why reading ended before the file did; empty when it did not

    // Whether there is anything of a dump in it.
    bool is_dump() const { return !frames.empty() || messages > 0 || empty_records > 0 || trailer.has_value(); }
    bool is_clean() const { return damaged_spans == 0 && trailer.has_value() && error.empty(); }
};

// What is passed on lives until the call returns. A frame comes before its messages, a damaged span behind those that
// were read in it; otherwise all is in the order of the file.
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

// Reads all of it. `searching`: the source begins anywhere in a dump, and the first frame is looked for.
DumpTotals read_dump(ByteSource &source, DumpVisitor &visitor, bool searching = false);

}  // namespace vestra_dump
