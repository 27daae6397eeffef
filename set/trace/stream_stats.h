// What a recorded dump holds, found out without the daemon: a second opinion on what was written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "set/trace/dump_file.h"

namespace vestra_set {

struct DumpReport {
    struct Span {
        uint64_t offset;
        uint64_t size;  // bytes
    };

    uint64_t file_bytes = 0;
    uint64_t payload_bytes = 0;      // without the trailer
    std::map<int, uint64_t> frames;  // well-formed frames by type
    uint64_t frame_bytes = 0;        // of those, length fields included
    uint64_t messages = 0;           // well-formed ones, those in front of the fault of a refused frame included
    uint64_t empty_records = 0;      // our recordings end each block with one
    uint64_t refused_frames = 0;     // frames that a reader refuses, as a whole or from some message on
    uint64_t refused_bytes = 0;      // of those, length fields included
    uint64_t damaged_spans = 0;      // stretches that belong to no frame record
    uint64_t damaged_bytes = 0;
    std::vector<Span> first_damaged;  // the first kSpansKept of them
    bool timed = false;               // there was a message; then the range of time stamps, ns
    int64_t first_ns = 0;
    int64_t last_ns = 0;
    std::optional<DumpTrailer> trailer;

    static constexpr size_t kSpansKept = 16;
};

// Walks the dump in `path`. False with the reason in *error when it cannot be read; whatever a readable file holds is a
// report. Never throws but for want of memory; memory used does not grow with the file.
bool inspect_dump(const std::string &path, DumpReport *report, std::string *error);

// The report for a person, in lines.
std::string describe(const DumpReport &report);

}  // namespace vestra_set
