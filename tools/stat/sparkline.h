// sparkline.h -- figures over time as a line of characters.
#pragma once

#include <string>
#include <vector>

namespace vestra_stat {

// A character for each figure, on a scale from the smallest to the greatest; a blank for one that is not finite. UTF-8
// blocks, or ASCII.
std::string sparkline(const std::vector<double> &figures, bool utf8);

}  // namespace vestra_stat
