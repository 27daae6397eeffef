// sparkline.h -- a vital's past as a line of characters.
#pragma once

#include <string>
#include <vector>

#include "tools/stat/history.h"

namespace vestra_stat {

// The last 180 s of a vital in `width` characters, the newest on the right. Each is the average of the known figures of
// its seconds, on a scale from the line's smallest to its greatest; a blank where none is known. UTF-8 blocks, or ASCII.
std::string sparkline(const std::vector<Second> &seconds, size_t type, int width, bool utf8);

}  // namespace vestra_stat
