// vital_labels.h -- the vitals as people are shown them.
#pragma once

#include <array>

#include "tools/dump/vitals.h"

namespace vestra_dump {

struct VitalLabel {
    const char *name;
    const char *unit;
};

// By packet type.
extern const std::array<VitalLabel, kVitalCount> kVitalLabels;

}  // namespace vestra_dump
