#include "tools/stat/vitals.h"

#include <charconv>

namespace vestra_stat {

const std::array<Vital, kVestraVitals> kVitals = {{
    {"context-switches", "1/s", 0, true, "context switches of the whole machine"},
    {"running-processes", "", 2, true, "processes running or ready to run"},
    {"cpu-total", "%", 2, false, "CPU time used, of all cores together"},
    {"cpu-system", "%", 2, false, "part of it in the kernel"},
    {"cpu-user", "%", 2, false, "part of it in programs"},
    {"temperature-core0", "C", 1, false, "temperature of core 0, degrees Celsius"},
    {"temperature-core1", "C", 1, false, "of core 1"},
    {"temperature-core2", "C", 1, false, "of core 2"},
    {"temperature-core3", "C", 1, false, "of core 3"},
    {"temperature-average", "C", 1, false, "of the four cores, whole degrees"},
    {"io-wait", "%", 2, false, "time that cores waited for storage; readings of 80 and more are ignored"},
    {"memory-used", "%", 2, true, "memory in use: total less available"},
    {"swap-used", "%", 2, true, "swap space in use"},
    {"load", "", 2, true, "load average over one minute"},
    {"memory-free", "KiB", 0, true, "memory that nothing uses"},
    {"page-cache", "KiB", 0, true, "memory that holds files' pages"},
    {"memory-available", "KiB", 0, true, "memory that programs could have"},
}};

std::vector<int> vitals_selected(std::string_view word) {
    std::vector<int> beginning;
    int number = -1;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error == std::errc() && end == word.data() + word.size()) {
        if (number >= 0 && number < kVestraVitals) beginning.push_back(number);
        return beginning;
    }
    for (int type = 0; type < kVestraVitals; ++type) {
        const std::string_view name = kVitals[static_cast<size_t>(type)].name;
        if (name == word) return {type};
        if (!word.empty() && name.substr(0, word.size()) == word) beginning.push_back(type);
    }
    return beginning;
}

}  // namespace vestra_stat
