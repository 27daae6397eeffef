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
    double least = std::numeric_limits<double>::infinity(), most = -least;
    for (size_t place = 0; place < sum.size(); ++place) {
        if (count[place] == 0) continue;
        sum[place] /= count[place];
        least = std::min(least, sum[place]);
        most = std::max(most, sum[place]);
    }
    const char *const *levels = utf8 ? kBlocks : kAscii;
    std::string text;
    for (size_t place = 0; place < sum.size(); ++place) {
        if (count[place] == 0) {
            text += ' ';
            continue;
        }
        // Halved, so that the difference is finite. Rounding is no difference.
        const double range = most / 2 - least / 2;
        const bool level = range <= 1e-6 * std::max(std::fabs(most), std::fabs(least));
        const int step = level ? 0 : static_cast<int>((sum[place] / 2 - least / 2) / range * kLevels);
        text += levels[std::min(step, kLevels - 1)];
    }
    return text;
}

}  // namespace vestra_stat
