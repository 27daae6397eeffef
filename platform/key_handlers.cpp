#include "platform/key_handlers.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/platform_log.h"

namespace {

using Registration = std::pair<_KeyComb, KeyCombination_Handler>;

std::mutex handlers_lock;  // guards the two below; not held while a handler runs
std::vector<Registration> handlers;
bool accepting;

}  // namespace

void accept_key_handlers() {
    const std::lock_guard<std::mutex> hold(handlers_lock);
    accepting = true;
}

bool add_key_handler(_KeyComb combination, KeyCombination_Handler handler) {
    const std::lock_guard<std::mutex> hold(handlers_lock);
    if (!accepting) {
        PLATFORM_LOGW("no handler for %d: not initialised", combination);
        return false;
    }
    const Registration entry(combination, handler);
    if (std::find(handlers.begin(), handlers.end(), entry) == handlers.end()) handlers.push_back(entry);
    return true;
}

bool any_key_handlers() {
    const std::lock_guard<std::mutex> hold(handlers_lock);
    return !handlers.empty();
}

void call_key_handlers(_KeyComb combination) {
    std::vector<Registration> current;
    {
        const std::lock_guard<std::mutex> hold(handlers_lock);
        current = handlers;
    }
    for (const auto &[key, handler] : current) {
        if (key == combination) handler(combination, nullptr);
    }
}
