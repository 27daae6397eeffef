// vitals.h -- what the seventeen vitals are called.
//
// The daemon works out types 2 to 4, 9 and 10 from the cores' counters and knows 5 to 8 as temperatures. Types 0, 1 and
// 11 to 16 are whatever the kernel module puts there; their names and units are those of the module of the simulated
// set (docs/trace-format.md), which a module of another make need not share.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "platform/vestra_api.h"

namespace vestra_stat {

struct Vital {
    const char *name;
    const char *unit;  // empty: a number
    int decimals;      // of its figures in a table
    bool module_says;  // the daemon hands on what the module sends, and does not know what it is
    const char *meaning;
};

extern const std::array<Vital, kVestraVitals> kVitals;  // by packet type

// The packet types that a word stands for: a type's number, a vital's name, or the beginning of names, in the order of
// their types. Empty when there are none.
std::vector<int> vitals_called(std::string_view word);

}  // namespace vestra_stat
