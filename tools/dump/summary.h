// summary.h -- a dump at a glance, as text and as JSON.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/dump/analysis.h"
#include "tools/dump/wall_clock.h"

namespace vestra_dump {

// A dump as a command has read it.
struct Overview {
    std::string path;
    DumpTime time;
    Summary summary;
};

// For people: "5 bytes are damaged, in 1 place", "no trailer: ...". Empty for a clean dump.
std::vector<std::string> verdicts(const Summary &summary);

nlohmann::ordered_json to_json(const Overview &overview);
void print(const Overview &overview, std::ostream &out);

}  // namespace vestra_dump
