// sparkline.h -- figures over time as a line of characters.
#pragma once

#include <string>
#include <vector>

#include "tools/stat/history.h"

namespace vestra_stat {

// A character for each figure, on a scale from the smallest to the greatest; a blank for one that is not finite. UTF-8
// blocks, or ASCII.
std::string sparkline(const std::vector<double> &figures, bool utf8);

// The last 180 s of a vital in `width` characters, the newest on the right. Each is the average of the known figures of
// its seconds.
std::string sparkline(const std::vector<Second> &seconds, size_t type, int width, bool utf8);

}  // namespace vestra_stat
