#include "platform/fault.h"

#include <atomic>

static constexpr int kAlways = -1;

// Calls left until one fails; 0: none fails.
static std::atomic<int> countdown[FAULT_OPERATIONS];

void platform_fail_nth(platform_operation operation, int nth) {
    countdown[operation] = nth > 0 ? nth : 0;
}

void platform_fail_always(platform_operation operation) {
    countdown[operation] = kAlways;
}

void platform_faults_reset() {
    for (auto &left : countdown) left = 0;
}

bool platform_fault(platform_operation operation) {
    int left = countdown[operation].load(std::memory_order_relaxed);
    do {
        if (left == 0) return false;
        if (left == kAlways) return true;
    } while (!countdown[operation].compare_exchange_weak(left, left - 1));
    return left == 1;
}
