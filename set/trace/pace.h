// When a source that hands out so many blocks a second has the next one due.
#pragma once

#include <chrono>
#include <cstdint>

namespace vestra_set {

class Pace {
  public:
    // `rate` blocks a second; 0: one is due whenever it is asked for.
    explicit Pace(double rate) : rate_(rate) {}

    // How many have come due since it was last asked; the first is due at once. One thread.
    uint64_t take() {
        if (rate_ <= 0) return 1;
        const auto now = std::chrono::steady_clock::now();
        if (taken_ == 0) start_ = now;
        const auto due = 1 + static_cast<uint64_t>(std::chrono::duration<double>(now - start_).count() * rate_);
        const uint64_t count = due - taken_;
        taken_ = due;
        return count;
    }

  private:
    const double rate_;
    uint64_t taken_ = 0;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace vestra_set
