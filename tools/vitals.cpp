#include "tools/vitals.h"

namespace vestra_tools {

const std::array<Vital, VESTRA_API_VITALS> kVitals = {{
    {"context-switches", "context_switches", "Context switches", "per second", "1/s", 0, true,
     "context switches of the whole machine"},
    {"running-processes", "running_processes", "Running", "processes", "", 2, true,
     "processes running or ready to run"},
    {"cpu-total", "cpu_total", "CPU total", "%", "%", 2, false, "CPU time used, of all cores together"},
    {"cpu-system", "cpu_system", "CPU system", "%", "%", 2, false, "part of it in the kernel"},
    {"cpu-user", "cpu_user", "CPU user", "%", "%", 2, false, "part of it in programs"},
    {"temperature-core0", "temperature_core0", "Temperature core 0", "°C", "C", 1, false,
     "temperature of core 0, degrees Celsius"},
    {"temperature-core1", "temperature_core1", "Temperature core 1", "°C", "C", 1, false, "of core 1"},
    {"temperature-core2", "temperature_core2", "Temperature core 2", "°C", "C", 1, false, "of core 2"},
    {"temperature-core3", "temperature_core3", "Temperature core 3", "°C", "C", 1, false, "of core 3"},
    {"temperature-average", "temperature_average", "Temperature average", "°C", "C", 1, false,
     "of the four cores, whole degrees"},
    {"io-wait", "io_wait", "I/O wait", "%", "%", 2, false,
     "time that cores waited for storage; readings of 80 and more are ignored"},
    {"memory-used", "memory_used", "Memory used", "%", "%", 2, true, "memory in use: total less available"},
    {"swap-used", "swap_used", "Swap used", "%", "%", 2, true, "swap space in use"},
    {"load", "load", "Load average", "1 min", "", 2, true, "load average over one minute"},
    {"memory-free", "memory_free", "Free memory", "KiB", "KiB", 0, true, "memory that nothing uses"},
    {"page-cache", "page_cache", "Page cache", "KiB", "KiB", 0, true, "memory that holds files' pages"},
    {"memory-available", "memory_available", "Available memory", "KiB", "KiB", 0, true,
     "memory that programs could have"},
}};

}  // namespace vestra_tools
