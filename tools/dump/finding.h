// finding.h -- one thing that went wrong in a recording.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vestra_dump {

struct Finding {
    const char *kind;            // "memory-growth", "cpu-hog", "process-storm", "memory-pressure", "io-wait",
                                 // "overheating", "vanished" or "gap"
    std::optional<int32_t> pid;  // of the process meant, if one is; of a storm the parent
    std::string name;            // of it, printable; empty: not known
    int64_t from_ns, to_ns;      // stream time
    double score;                // 0 to 1
    std::string text;            // one sentence, without its full stop
    std::string command;         // that shows it
    std::vector<std::pair<const char *, double>> numbers;
};

}  // namespace vestra_dump
