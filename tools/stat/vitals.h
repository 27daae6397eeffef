// vitals.h -- names and units of the seventeen vitals.
//
// The daemon computes types 2 to 4, 9 and 10 from the cores' counters, and takes 5 to 8 as temperatures. It does not know
// what types 0, 1 and 11 to 16 mean. Their names and units are those of the simulated module (docs/trace-format.md);
// another module may send other figures.
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
    bool from_module;  // the daemon passes on what the module sends, without knowing its meaning
    const char *meaning;
};

extern const std::array<Vital, kVestraVitals> kVitals;  // by packet type

// The packet types that a word selects, in ascending order: a type's number, a vital's name, or the beginning of one or
// more names. Empty if there are none.
std::vector<int> vitals_selected(std::string_view word);

}  // namespace vestra_stat
