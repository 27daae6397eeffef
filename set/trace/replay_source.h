// Hands out a recorded dump again: the payload's bytes as they are, without the trailer, cut into blocks where one
// frame record ends and the next begins. A reader loses what stands behind damage in a block, so a block ends where a
// damaged stretch does.
#pragma once

#include <memory>
#include <string>

#include "set/trace/source.h"

namespace vestra_set {

// Null with the reason in *error.
std::unique_ptr<TraceSource> make_replay_source(const SourceOptions &options, std::string *error);

}  // namespace vestra_set
