// history.h -- recovers single seconds from the statistics of windows.
//
// The daemon answers for windows, not for seconds. But the windows of N and N-1 seconds differ in few seconds, usually
// one. If n figures are in the shorter window, and the averages are a and b, then the figure of that second is
// b * (n + 1) - a * n. The variances show whether the assumption holds: with a wrong n, or with two more figures instead
// of one, they do not fit.
//
// Averages are floats, so a recovered figure may be wrong by up to 2^-24 * (b * (n + 1) + a * n), which is at most
// 2.2e-5 of the average. A maximum or minimum that only the longer window has is the figure itself. Otherwise the figure
// is the number with the fewest decimals in this range. So integers and short decimals are often exact, and other
// figures are wrong by up to twice the above.
#pragma once

#include <array>
#include <vector>

#include "client/vestra_api.h"

namespace vestra_stat {

// Answers for a window and for one that is a second longer. Both are from one question, so they belong together, even if
// the newest second changed since another question.
struct WindowPair {
    vestra_api_data shorter, longer;
};

// By packet type, then by seconds of the longer window, less one.
using WindowPairs = std::array<std::array<WindowPair, VESTRA_API_WINDOW_MAX>, VESTRA_API_VITALS>;

struct Second {
    // 0: the newest second. Else its last sample is more than age - 1 s and at most age s older than the first sample of
    // the newest second.
    int age = 0;
    std::array<double, VESTRA_API_VITALS> vitals = {};  // NaN: unknown
};

// The known seconds, newest first. None if the newest has no figures. What the windows cannot tell:
//   - The daemon's averages leave out figures of 0 and below; here they are all 0, except in the newest second.
//   - A second in which no figure is above 0 is left out like one without data.
//   - While a vital has had only one figure above 0, one more of it cannot be told from a 0. It is taken for one more; but
//     if there were zeros since, or if it is a share of time (cpu-*, io-wait), it is unknown. An older, different figure
//     shows how many there were: if all or none, the guesses are replaced; else they become unknown.
//   - Two seconds whose last samples are less than 1 s apart may be in the same step. Both are left out.
//   - After a figure that is not finite, or whose square does not fit in a float, the vital is unknown.
std::vector<Second> recover(const WindowPairs &pairs);

}  // namespace vestra_stat
