#include "tools/dump/vital_labels.h"

namespace vestra_dump {

const std::array<VitalLabel, kVitalCount> kVitalLabels = {{{"Context switches", "per second"},
                                                           {"Running", "processes"},
                                                           {"CPU total", "%"},
                                                           {"CPU system", "%"},
                                                           {"CPU user", "%"},
                                                           {"Temperature core 0", "°C"},
                                                           {"Temperature core 1", "°C"},
                                                           {"Temperature core 2", "°C"},
                                                           {"Temperature core 3", "°C"},
                                                           {"Temperature average", "°C"},
                                                           {"I/O wait", "%"},
                                                           {"Memory used", "%"},
                                                           {"Swap used", "%"},
                                                           {"Load average", "1 min"},
                                                           {"Free memory", "KiB"},
                                                           {"Page cache", "KiB"},
                                                           {"Available memory", "KiB"}}};

}  // namespace vestra_dump
