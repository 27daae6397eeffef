// A trace source that runs on the other side of a socket. Inside a set's pid namespace the machine's processes cannot
// be seen; a source that samples them runs in the launcher, and the node server asks it for blocks.
//
// Request, host byte order:  u32 capacity (0..kBlockMax), u32 length of the control, the control as JSON; a length of 0
// says
//                            that it is as it was
// Answer:                    u32 size (0..capacity), the block
#pragma once

#include <cstdint>
#include <memory>

#include "set/fd.h"
#include "set/trace/source.h"

namespace vestra_set {

// The two ends. False with errno set on failure.
bool source_pair(UniqueFd *outside, UniqueFd *inside);

// Answers requests on `socket` from `source` until the other side closes. Runs on a thread of its own.
void serve_source(int socket, TraceSource &source);

// The inside end: a source that asks the one outside. Owns `socket`. Hands out 0 bytes once the other side has gone.
std::unique_ptr<TraceSource> remote_source(UniqueFd socket);

}  // namespace vestra_set
