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

}  // namespace vestra_stat
