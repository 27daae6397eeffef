// Where the simulated kernel module gets its trace blocks from. A block is what one read of the control node returns:
// frame records back to back, as docs/trace-format.md describes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "trace/trace_format.h"

namespace vestra_set {

using namespace trace;  // sources are about nothing else

// What the module has been told through its control node.
struct ModuleControl {
    bool tracing = false;
    bool disk_read = false;          // report what processes read from storage
    bool disk_write = false;         // and what they write to it
    int temperature = 0;             // of the SoC, degrees Celsius, as last sent; 0 before the first
    std::vector<std::string> names;  // process filter: with names or pids in it, no other process is reported
    std::vector<int> pids;
};

// One thread at a time; the caller serialises.
class TraceSource {
  public:
    virtual ~TraceSource();

    // Writes the next block into `out` and returns its size, 0..capacity. 0 when nothing is due yet, when the source
    // has come to its end, or while it has been told not to trace. Never throws, and never waits until something is
    // due. A block ends with an empty frame record, unless it ends with damage. Frames that do not fit into an empty
    // block are left out (host, synthetic) or handed out in pieces (replay); kBlockMax is enough for all that can fit
    // into any.
    virtual size_t next_block(uint8_t *out, size_t capacity) = 0;

    // Takes effect with the next block. A source that was never told anything traces every process. Never throws.
    virtual void apply(const ModuleControl &control) = 0;
};

struct SourceOptions {
    std::string kind = "synthetic";  // "host", "synthetic" or "replay"
    std::string file;                // replay: the recorded dump

    // How fast, in wall-clock time.
    //   host       full samples a second, 0.01 to 100; 0: 2
    //   synthetic  blocks a second, 0.01 to 10000; 0: every read gets a block that covers step_ns, and wall-clock time
    //              is not looked at. A reader that comes late gets one block that covers the time gone by: with 1000
    //              the stream follows the wall clock, however often it is read
    //   replay     blocks a second, 0.01 to 10000; 0: every read gets a block
    double rate = 0;

    // Bytes of a block, 64 to kBlockMax.
    //   host       at most so many; 0: kBlockMax
    //   synthetic  every block is filled up to here; 0: every process once
    //   replay     as many whole frame records as fit; 0: what the recording marks as one block
    uint32_t block_size = 0;

    bool every_process = false;  // host: each process in each sample, also one that did not run since the last

    std::string profile = "steady";    // synthetic: "steady", "burst", "stall" or "hostile"
    uint32_t processes = 0;            // synthetic: how many, up to 32000; 0: 24
    uint64_t seed = 0;                 // synthetic: equal options and capacities give equal bytes, on every machine
    uint64_t step_ns = 1'000'000'000;  // synthetic: stream time that a block covers, 100 us to 1 h

    bool loop = false;  // replay: begin again at the end, instead of empty reads
};

// A source of that kind, or null with the reason in *error (never null itself): an unknown kind or profile, a figure
// out of its range, a file that cannot be read. Starts no thread and no process; the host source starts its sampling
// thread with the first block, so the caller may still fork.
std::unique_ptr<TraceSource> make_source(const SourceOptions &options, std::string *error);

}  // namespace vestra_set
