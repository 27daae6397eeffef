#include "tools/view/recording.h"

#include <algorithm>
#include <string_view>

namespace vestra_view {

constexpr int64_t kNs = 1'000'000'000;

size_t Recording::index_of(int64_t time_ns) const {
    size_t low = 0, high = size();  // the first second after it is in [low, high]
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (second(middle).second <= time_ns / kNs) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low > 0 ? low - 1 : 0;
}

Axis Recording::axis(size_t columns) const {
    const int64_t first = second(0).second;
    // Not below 1, even if the file of the index can no longer be read.
    return {first, std::max<int64_t>(second(size() - 1).second - first + 1, 1), columns};
}

static int64_t divided_up(int64_t a, int64_t b) {
    return (a + b - 1) / b;
}

size_t Axis::column_of(int64_t second) const {
    const auto all = static_cast<int64_t>(columns);
    const int64_t place = (std::clamp(second, first, first + seconds - 1) - first) * all;
    return static_cast<size_t>(all > seconds ? divided_up(place, seconds) : place / seconds);
}

Axis::Part Axis::part(size_t column) const {
    const auto all = static_cast<int64_t>(columns), place = static_cast<int64_t>(column) * seconds;
    if (all > seconds) return {place / all, place / all + 1};
    return {divided_up(place, all), divided_up(place + seconds, all)};
}

std::optional<size_t> find_peak(size_t size, const std::function<double(size_t)> &value, double middle, size_t index,
                                bool forward) {
    const auto is_high = [&](size_t at) { return value(at) > middle; };
    const size_t last = forward ? size - 1 : 0;
    // From the beginning of the stretch that the place is in, or its end.
    size_t at = index;
    if (is_high(index)) {
        while (forward ? at > 0 && is_high(at - 1) : at + 1 < size && is_high(at + 1)) forward ? --at : ++at;
    }
    for (;; forward ? ++at : --at) {
        if (is_high(at)) {
            size_t top = at;
            for (; is_high(at); forward ? ++at : --at) {
                if (forward ? value(at) > value(top) : value(at) >= value(top)) top = at;
                if (at == last) break;
            }
            if (forward ? top > index : top < index) return top;
        }
        if (at == last) return std::nullopt;
    }
}

bool low_tells(size_t vital) {
    const std::string_view column = vestra_tools::kVitals[vital].column;
    return column == "memory_free" || column == "page_cache" || column == "memory_available";
}

}  // namespace vestra_view
