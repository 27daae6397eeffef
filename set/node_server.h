// The control node: a file system of two files, mounted where the set's /proc leads to it.
//
//   vesertra_info  exists while the kernel module is loaded. One read is one block of the trace source, 0 to 131072
//                  bytes; 0 while tracing is off. One write is one command (set/user_data.h); anything else is refused
//                  with EINVAL. A descriptor that is open while the module is unloaded fails with ENODEV.
//   status         what the module received and did, as JSON, as of the moment when it is opened
#pragma once

#include "set/set_options.h"

namespace vestra_set {

// Serves requests of the mounted file system on descriptor `fuse` until it is unmounted. Blocks come from a source made
// by `options`; for the host source this process leaves the set's mount namespace (show_host in set/layout.h). Returns
// an exit code.
int serve_node(int fuse, const SourceOptions &options);

}  // namespace vestra_set
