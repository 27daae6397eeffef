// Hands out a recorded dump again: the payload's bytes as they are, without the trailer, in blocks that end where a
// record ends. The daemon drops what follows damage in a block, so a block ends after damage. Damage at the payload's
// end is handed out together with the trailer, unless both are so short that they look like a trailer.
#pragma once

#include <memory>
#include <string>

#include "set/trace/source.h"

namespace vestra_set {

// Null with the reason in *error.
std::unique_ptr<TraceSource> make_replay_source(const SourceOptions &options, std::string *error);

}  // namespace vestra_set
