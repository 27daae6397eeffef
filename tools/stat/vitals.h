// vitals.h -- selects vitals by words of the command line.
#pragma once

#include <string_view>
#include <vector>

#include "tools/vitals.h"

namespace vestra_stat {

using vestra_tools::kVitals;
using vestra_tools::Vital;

// The packet types that a word selects, in ascending order: a type's number, a vital's name, or the beginning of one or
// more names. Empty if there are none.
std::vector<int> vitals_selected(std::string_view word);

}  // namespace vestra_stat
