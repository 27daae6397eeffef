// guarded.h -- keeps exceptions of the standard library (out of memory) inside the services' C functions.
#pragma once

#include <exception>

#include "platform/platform_log.h"

// Runs `body` and returns its result. If it throws, logs the exception and returns `fallback`.
template <typename Result, typename Body>
Result guarded(Result fallback, const Body &body) noexcept {
    try {
        return body();
    } catch (const std::exception &problem) {
        PLATFORM_LOGW("%s", problem.what());
        return fallback;
    }
}
