// vitals.h -- names and units of the seventeen vitals, for all tools.
//
// The daemon computes types 2 to 4, 9 and 10 from the cores' counters, and takes 5 to 8 as temperatures. It does not know
// what types 0, 1 and 11 to 16 mean. Their names and units are those of the simulated module (docs/trace-format.md);
// another module may send other figures.
#pragma once

#include <array>

#include "client/vestra_api.h"

namespace vestra_tools {

struct Vital {
    const char *name;        // on command lines
    const char *column;      // of tables; key in JSON
    const char *label;       // for people
    const char *unit;        // beside the label
    const char *short_unit;  // ASCII; empty: a number
    int decimals;            // of its figures in a table
    bool from_module;        // the daemon passes on what the module sends, without knowing its meaning
    const char *meaning;
};

extern const std::array<Vital, VESTRA_API_VITALS> kVitals;  // by packet type

}  // namespace vestra_tools
