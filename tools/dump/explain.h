// explain.h -- what went wrong in the minutes before a moment, as ranked findings.
//
// Compares what came last with what was usual before: a finding needs a change, except for a process that takes a whole
// core all the time. Quantiles and medians, so that single seconds do not matter.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/dump/finding.h"
#include "tools/dump/history.h"

namespace vestra_dump {

// `path`: of the dump, for commands. `first_ns`: its oldest sample, which times in sentences count from. Best first.
std::vector<Finding> explain(const History &history, const std::string &path, int64_t first_ns);

nlohmann::ordered_json to_json(const std::vector<Finding> &findings);

}  // namespace vestra_dump
