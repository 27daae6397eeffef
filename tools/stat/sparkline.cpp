#include "tools/stat/sparkline.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vestra_stat {
namespace {

constexpr int kLevels = 8;
constexpr const char *kBlocks[kLevels] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                          "\u2585", "\u2586", "\u2587", "\u2588"};
constexpr const char *kAscii[kLevels] = {"_", ".", "-", "~", "=", "+", "*", "#"};

}  // namespace

std::string sparkline(const std::vector<double> &figures, bool utf8) {
    double least = std::numeric_limits<double>::infinity(), most = -least;
    for (const double figure : figures) {
        if (!std::isfinite(figure)) continue;
        least = std::min(least, figure);
        most = std::max(most, figure);
    }
    // Halved, so that the difference is finite. Rounding is no difference.
    const double range = most / 2 - least / 2;
    const bool level = range <= 1e-6 * std::max(std::fabs(most), std::fabs(least));
    const char *const *levels = utf8 ? kBlocks : kAscii;
    std::string text;
    for (const double figure : figures) {
        const int step =
            !std::isfinite(figure) || level ? 0 : static_cast<int>((figure / 2 - least / 2) / range * kLevels);
        text += std::isfinite(figure) ? levels[std::min(step, kLevels - 1)] : " ";
    }
    return text;
}

std::string sparkline(const std::vector<Second> &seconds, size_t type, int width, bool utf8) {
    const int each = (VESTRA_API_WINDOW_MAX + width) / width;  // ages 0 to 180
    std::vector<double> sum(static_cast<size_t>(width)), count(sum.size());
    for (const Second &second : seconds) {
        const double value = second.vitals[type];
        if (!std::isfinite(value)) continue;
        const size_t place = sum.size() - 1 - static_cast<size_t>(second.age / each);
        sum[place] += value / each;  // the sum of all cannot overflow
        count[place] += 1.0 / each;
    }
    for (size_t place = 0; place < sum.size(); ++place) sum[place] /= count[place];
    return sparkline(sum, utf8);
}

}  // namespace vestra_stat
