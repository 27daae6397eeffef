// guarded.h -- keeps the standard library's exceptions (memory) out of the services' C functions.
#pragma once

#include <exception>

#include "platform/platform_log.h"

// Runs `body`; what it throws becomes a log line and `fallback`.
template <typename Result, typename Body>
Result guarded(Result fallback, const Body &body) noexcept {
    try {
        return body();
    } catch (const std::exception &problem) {
        PLATFORM_LOGW("%s", problem.what());
        return fallback;
    }
}
