// Tells a source with a given rate when its next block is due.
#pragma once

#include <chrono>
#include <cstdint>

namespace vestra_set {

class Pace {
  public:
    // `rate` blocks per second; 0: one is always due.
    explicit Pace(double rate) : rate_(rate) {}

    // Number of blocks that became due since the last call; the first is due at once. One thread.
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
