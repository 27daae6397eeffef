#include "tools/stat/vitals.h"

#include <charconv>

namespace vestra_stat {

std::vector<int> vitals_selected(std::string_view word) {
    std::vector<int> beginning;
    int number = -1;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error == std::errc() && end == word.data() + word.size()) {
        if (number >= 0 && number < VESTRA_API_VITALS) beginning.push_back(number);
        return beginning;
    }
    for (int type = 0; type < VESTRA_API_VITALS; ++type) {
        const std::string_view name = kVitals[static_cast<size_t>(type)].name;
        if (name == word) return {type};
        if (!word.empty() && name.substr(0, word.size()) == word) beginning.push_back(type);
    }
    return beginning;
}

}  // namespace vestra_stat
