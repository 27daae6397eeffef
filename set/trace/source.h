// Where the simulated kernel module gets its trace blocks from. One read of the control node returns one block, in the
// format of docs/trace-format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "trace/trace_format.h"

namespace vestra_set {

using namespace trace;  // sources use little else

// What the module was told through its control node.
struct ModuleControl {
    bool tracing = false;
    bool disk_read = false;          // report what processes read from storage
    bool disk_write = false;         // report what they write to it
    int temperature = 0;             // of the SoC, degrees Celsius, as sent last; 0: not yet
    std::vector<std::string> names;  // process filter: if names or pids are given, only those processes are reported
    std::vector<int> pids;
};

// One thread at a time; the caller serialises.
class TraceSource {
  public:
    virtual ~TraceSource();

    // Writes the next block into `out` and returns its size, 0 to `capacity`. 0 if no block is due yet, at the end of the
    // source, or while tracing is off. Never throws and never waits. A block ends with an empty record, unless it ends
    // with damage. A frame that does not fit into a block is left out (host, synthetic) or handed out in pieces
    // (replay); kBlockMax is enough for every frame that fits into any block.
    virtual size_t next_block(uint8_t *out, size_t capacity) = 0;

    // Takes effect with the next block. Without a call, a source traces every process. Never throws.
    virtual void apply(const ModuleControl &control) = 0;
};

struct SourceOptions {
    std::string kind = "synthetic";  // "host", "synthetic" or "replay"
    std::string file;                // replay: the recorded dump

    // Rate, in wall-clock time.
    //   host       full samples per second, 0.01 to 100; 0: 2
    //   synthetic  blocks per second, 0.01 to 10000. A late reader gets one block for all the time since the last one, so
    //              with 1000 the stream follows the wall clock, however often it is read. 0: every read gets a block
    //              that covers step_ns of the stream, whatever the wall clock says
    //   replay     blocks per second, 0.01 to 10000; 0: every read gets a block
    double rate = 0;

    // Bytes of a block, 64 to kBlockMax.
    //   host       maximum; 0: kBlockMax
    //   synthetic  every block is filled up to this size; 0: every process once
    //   replay     as many records as fit; 0: the blocks of the recording
    uint32_t block_size = 0;

    bool every_process = false;  // host: report processes that did not run since the last sample, too

    std::string profile = "steady";    // synthetic: "steady", "burst", "stall", "hostile" or "everyday"
    uint32_t processes = 0;            // synthetic: number, up to 32000; 0: 24
    uint64_t seed = 0;                 // synthetic: equal options and capacities give equal bytes, on every machine
    uint64_t step_ns = 1'000'000'000;  // synthetic: stream time that a block covers, 100 us to 1 h
    std::vector<std::string> faults;   // synthetic: KIND[:PARAM]@SECOND each; docs/simulated-set.md has the kinds

    bool loop = false;  // replay: start again at the end
};

// A source of that kind. Null, with the reason in *error, for an unknown kind or profile, a number out of range, or a file
// that cannot be read. Starts no thread and no process, so the caller may still fork; the host source starts its
// sampling thread with the first block.
std::unique_ptr<TraceSource> make_source(const SourceOptions &options, std::string *error);

}  // namespace vestra_set
