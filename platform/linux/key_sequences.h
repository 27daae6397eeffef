// key_sequences.h -- finds combinations of keys among presses.
//
// A combination is one or more alternatives, separated by ';'. An alternative is a sequence of steps, separated by
// blanks: each step at most 3 s after the one before, and no other key between them. A step is one key or several,
// joined by '+', that are held at the same time, in any order; other keys may be held meanwhile. Keys have the kernel's
// names, in upper or lower case; "KEY_" may be left out:
//     LEFTCTRL+LEFTSHIFT+F11;MUTE 8 7 MUTE
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class KeySequences {
  public:
    // Adds all alternatives of a combination, or none: then the result says what is wrong. Empty is success.
    std::string add(int combination, std::string_view text);

    // The codes of all keys that a combination has.
    const std::set<int> &codes() const { return codes_; }

    // A key was pressed. `held` tells whether another one is down. Returns the combinations that are complete with it.
    std::vector<int> press(int code, int64_t time_us, const std::function<bool(int)> &held);

  private:
    using Step = std::set<int>;
    struct Progress {
        size_t done;  // steps
        int64_t time_us;
    };
    struct Sequence {
        int combination = 0;
        std::vector<Step> steps;
        std::vector<Progress> begun;  // all ways in which the newest presses are its begin
    };

    static std::string parse(std::string_view text, Sequence *sequence);
    static bool advance(Sequence *sequence, int code, int64_t time_us, const std::function<bool(int)> &held);

    std::vector<Sequence> sequences_;
    std::set<int> codes_;
};
