// dump_reader.h -- reads a dump from its first byte to its last and calls a visitor for what is in it.
//
//   class Counter : public DumpVisitor { void on_frame(const Frame &frame, FrameMessages &) override { ... } };
//   FileSource source = ...;
//   Counter counter;
//   const DumpTotals totals = read_dump(source, counter);
//
// Memory is bounded, whatever the dump's size and content. To get vitals and percentages instead of messages, use
// analyse (analysis.h).
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
    bool whole;          // false: some of it is damaged; the messages are those that are not
    int64_t first_ns;    // the oldest and newest time of the messages; 0 without messages
    int64_t last_ns;     //
    const uint8_t *raw;  // type, core and messages, as they are in the file
    size_t raw_size;
};

struct DamagedSpan {
    uint64_t offset;
    uint64_t bytes;
    Reason reason;
    size_t messages;  // read from it anyway
    std::optional<int64_t> from_ns,
        to_ns;  // times of the samples around it, once they are known; nothing: there is none
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

    uint64_t last_block = 0;       // offset of the last block that has frames
    uint64_t last_damage_end = 0;  // offset

    // Whether the newest sample is that of the recording. A trailer of two bytes may be the beginning of a frame. One byte
    // is the trailer of a set without a version file.
    bool end_is_whole() const { return trailer && trailer->bytes.size() != 2 && last_damage_end <= last_block; }
};

// Where a reader is. One that begins here reads on as the first one did.
struct Place {
    uint64_t offset = 0;  // of the next byte in the file
    StretchReader stretches;
};

// Arguments are valid until the call returns. Calls come in the order of the file. A damaged span comes after the
// messages that were read from it.
class DumpVisitor {
  public:
    virtual ~DumpVisitor() = default;
    virtual void on_frame(const Frame & /*frame*/, FrameMessages & /*messages*/) {}
    virtual void on_empty_record(uint64_t /*offset*/) {}
    virtual void on_damage(const DamagedSpan & /*span*/) {}
    // After an empty record; nothing is left over from before it.
    virtual void on_block_end(const Place & /*next*/) {}
};

// Reads the whole source. Without `figures`, messages have only stamps, which is faster.
DumpTotals read_dump(ByteSource &source, DumpVisitor &visitor, bool figures = true);

// Reads from a place that on_block_end got up to the first frame at or after `stop`. `payload`: DumpTotals::payload_bytes.
// Returns DumpTotals::error.
std::string read_part(ByteSource &source, const Place &from, uint64_t stop, uint64_t payload, DumpVisitor &visitor);

}  // namespace vestra_dump
