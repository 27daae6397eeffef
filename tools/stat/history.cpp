#include "tools/stat/history.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>

namespace vestra_stat {
namespace {

constexpr double kRounding = 0x1p-24;  // relative error of a float
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

// What the daemon answers for the window with only the figure in `now`, the answer for window 0.
vestra_api_data as_window(vestra_api_data now) {
    const double value = now.average;
    now.average = value > 0 ? static_cast<float>(value) : kUnknown;
    now.variance = static_cast<float>((value - now.average) * (value - now.average));
    return now;
}

bool equal(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

// The number with the fewest decimals among those that differ from `value` by at most `error`.
double shortest(double value, double error) {
    for (const double scale : {1.0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9}) {
        const double rounded = std::round(value * scale) / scale;
        if (std::fabs(rounded - value) <= error) return rounded;
    }
    return value;
}

// The longer window, if it has one figure more than the shorter one, which has `count`.
class OneMore {
  public:
    OneMore(double count, const WindowPair &pair) : before_(pair.shorter), after_(pair.longer) {
        const double old = count > 0 ? before_.average : 0, now = after_.average;
        value_ = now * (count + 1) - old * count;
        error_ = kRounding * (now * (count + 1) + old * count);
        const double variance = count > 0 ? before_.variance : 0, shift = now - old, distance = value_ - now;
        const double expected = (count * (variance + shift * shift) + distance * distance) / (count + 1);
        const double mean_error = kRounding * old;
        const double tolerance =
            (count * (2 * mean_error * std::fabs(shift) + mean_error * mean_error + kRounding * variance) +
             2 * std::fabs(distance) * error_ + error_ * error_) /
                (count + 1) +
            kRounding * after_.variance + static_cast<double>(FLT_MIN);
        misfit_ = std::fabs(expected - after_.variance) / (2 * tolerance);
    }

    // Above 1: the assumption is wrong.
    double misfit() const { return value_ > -error_ ? misfit_ : std::numeric_limits<double>::infinity(); }

    double value() const {
        const auto is_it = [this](double extreme) { return std::fabs(extreme - value_) <= 2 * error_; };
        if (after_.maximum > before_.maximum && is_it(after_.maximum)) return after_.maximum;
        if (after_.minimum < before_.minimum && is_it(after_.minimum)) return after_.minimum;
        return shortest(value_, error_);
    }

  private:
    const vestra_api_data &before_, &after_;
    double value_, error_, misfit_;
};

// The count up to `most` with which the longer window has one figure more; `count` if possible, -1 if there is none.
int fitting_count(int count, int most, const WindowPair &pair) {
    if (OneMore(count, pair).misfit() <= 1) return count;
    for (int other = 1; other <= most; ++other) {
        if (OneMore(other, pair).misfit() <= 1) return other;
    }
    return -1;
}

// The share of time that the daemon computes from counters: often 0, and rarely the same twice.
bool is_share_of_time(size_t type) {
    return (type >= 2 && type <= 4) || type == 10;
}

// One vital, from the newest second back.
struct Track {
    int count = 0;              // figures above 0 until now
    bool certain = true;        // the count
    bool lost = false;          // nothing is known from here on
    bool had_zero = false;      // in a second that is known
    int first_guess = -1;       // place in the result of the first guess, see guess(); -1: none
    int count_before = 0;       // the count before that guess
    int guesses = 0;            // since then
    double guessed = kUnknown;  // the figure, if it was not 0

    // All figures are so much alike that one more of them changes neither average nor variance.
    bool level(const vestra_api_data &window) const {
        const double spread = (count + 1) * 2 * kRounding * window.average;
        return count > 0 && window.variance <= std::max(spread * spread, static_cast<double>(FLT_MIN));
    }

    // A second is there, but this vital's answers are the same: the figure is 0 or, if all are alike, one more of these.
    // Returns it, or unknown where neither is much more likely.
    double guess(const vestra_api_data &window, size_t type, int added, int place) {
        if (first_guess < 0) {
            first_guess = place;
            count_before = count;
            guesses = 0;
            guessed = window.maximum == window.minimum ? window.maximum
                                                       : shortest(window.average, kRounding * window.average);
        }
        certain = false;
        guesses += added;
        if (had_zero || is_share_of_time(type)) return kUnknown;
        count += added;
        return added == 1 ? guessed : kUnknown;
    }

    // Finds the count that fits, and with it what the guessed figures are.
    void settle(const WindowPair &pair, size_t type, int most, std::vector<Second> *seconds) {
        const int best = fitting_count(count, most, pair);
        if (best < 0) return;
        const bool unique = OneMore(best - 1, pair).misfit() > 1 && OneMore(best + 1, pair).misfit() > 1;
        if (first_guess >= 0 && (unique || best != count)) {
            const double figure = best == count_before ? 0 : best == count_before + guesses ? guessed : kUnknown;
            for (size_t at = static_cast<size_t>(first_guess); at < seconds->size(); ++at) {
                (*seconds)[at].vitals[type] = figure;
            }
            had_zero = had_zero || figure == 0;
        }
        count = best;
        certain = unique;
        if (certain) first_guess = -1;
    }
};

bool same(const WindowPair &pair) {
    return equal(pair.shorter.average, pair.longer.average) && equal(pair.shorter.variance, pair.longer.variance);
}

// How many seconds the longer windows, of `age` seconds, have more: 0, 1 or 2.
int seconds_added(const std::array<Track, VESTRA_API_VITALS> &tracks,
                  const std::array<WindowPair, VESTRA_API_VITALS> &pairs, int age) {
    int one = 0, two = 0;
    for (size_t type = 0; type < tracks.size(); ++type) {
        const Track &track = tracks[type];
        if (track.lost || same(pairs[type])) continue;
        const bool fits = fitting_count(track.count, track.certain ? 0 : age, pairs[type]) >= 0;
        ++(fits ? one : two);
    }
    if (one + two == 0) return 0;
    return two > one ? 2 : 1;
}

}  // namespace

std::vector<Second> recover(const WindowPairs &pairs) {
    std::array<Track, VESTRA_API_VITALS> tracks;
    std::vector<Second> seconds(1);
    seconds.reserve(VESTRA_API_WINDOW_MAX + 1);
    for (size_t type = 0; type < tracks.size(); ++type) {
        seconds[0].vitals[type] = pairs[type][0].shorter.average;
        tracks[type].count = seconds[0].vitals[type] > 0 ? 1 : 0;
        tracks[type].had_zero = tracks[type].count == 0;
    }
    const auto &newest = seconds[0].vitals;
    if (std::all_of(newest.begin(), newest.end(), [](double value) { return value == 0; })) return {};

    for (int age = 1; age <= VESTRA_API_WINDOW_MAX; ++age) {
        std::array<WindowPair, VESTRA_API_VITALS> step;
        bool varied = false;  // some figures are different, so one more would be seen
        for (size_t type = 0; type < tracks.size(); ++type) {
            step[type] = pairs[type][static_cast<size_t>(age - 1)];
            if (age == 1) step[type].shorter = as_window(step[type].shorter);
            Track &track = tracks[type];
            const vestra_api_data &window = step[type].longer;
            const bool counts = track.count > 0 || !same(step[type]);
            const bool usable = std::isfinite(window.average) && std::isfinite(window.variance);
            track.lost = track.lost || (counts && !usable);
            varied = varied || (!track.lost && track.count > 0 && !track.level(window));
        }
        const int added = seconds_added(tracks, step, age);
        Second second;
        second.age = age;
        for (size_t type = 0; type < tracks.size(); ++type) {
            Track &track = tracks[type];
            const WindowPair &pair = step[type];
            double &value = second.vitals[type];
            value = kUnknown;
            if (track.lost) continue;
            if (added == 0) {
                track.certain = track.certain && (varied || track.count == 0);
            } else if (!same(pair)) {
                if (!track.certain && added == 1) track.settle(pair, type, age, &seconds);
                const OneMore more(track.count, pair);
                const bool fits = more.misfit() <= 1;
                track.first_guess = -1;
                if (fits && added == 1) value = more.value();
                // With two seconds more, what fits one figure more may be one of them and a 0.
                track.certain = track.certain && fits == (added == 1);
                track.count += added;
            } else if (track.level(pair.longer)) {
                value = track.guess(pair.longer, type, added, static_cast<int>(seconds.size()));
            } else if (added == 2) {
                track.certain = false;  // two zeros, or one figure as far above the average as the other below
            } else {
                value = 0;
                track.had_zero = true;
            }
        }
        if (added == 1) seconds.push_back(second);
    }
    return seconds;
}

}  // namespace vestra_stat
