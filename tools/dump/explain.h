// explain.h -- what went wrong in the minutes before a moment, as ranked findings.
//
// Compares what came last with what was usual before: a finding needs a change, except for a process that takes a whole
// core all the time. Quantiles and medians, so that single seconds do not matter.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/dump/history.h"

namespace vestra_dump {

struct Finding {
    const char *kind;            // "memory-growth", "cpu-hog", "process-storm", "memory-pressure", "io-wait",
                                 // "overheating", "vanished" or "gap"
    std::optional<int32_t> pid;  // of the process meant, if one is; of a storm the parent
    std::string name;            // of it, printable; empty: not known
    int64_t from_ns, to_ns;      // stream time
    double score;                // 0 to 1
    std::string text;            // one sentence
    std::string command;         // that shows it
    std::vector<std::pair<const char *, double>> numbers;
};

// `path`: of the dump, for commands. `first_ns`: its oldest sample, which times in sentences count from. Best first.
std::vector<Finding> explain(const History &history, const std::string &path, int64_t first_ns);

nlohmann::ordered_json to_json(const std::vector<Finding> &findings);

}  // namespace vestra_dump
