#include "platform/key_combination.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/directory_watch.h"
#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/state_dir.h"

namespace {

constexpr char kDirectory[] = "keys";
constexpr char kSuffix[] = ".press";
constexpr size_t kPressLimit = 32;  // bytes

using Registration = std::pair<_KeyComb, KeyCombination_Handler>;

std::mutex handlers_lock;  // guards the two below; not held while a handler runs
std::vector<Registration> handlers;
bool connected;

std::vector<Registration> current_handlers() {
    const std::lock_guard<std::mutex> hold(handlers_lock);
    return handlers;
}

std::vector<std::string> waiting_presses() {
    constexpr size_t kSuffixSize = sizeof(kSuffix) - 1;
    std::vector<std::string> paths;
    for (const std::string &name : list_state_directory(kDirectory).value_or(std::vector<std::string>())) {
        const bool press =
            name.size() > kSuffixSize && name.compare(name.size() - kSuffixSize, kSuffixSize, kSuffix) == 0;
        if (press) paths.push_back(state_path(std::string(kDirectory) + "/" + name));
    }
    return paths;
}

// Reads a press and removes its file. Returns nothing if it is not a press, or if the file cannot be removed: it would
// be delivered again and again.
std::optional<_KeyComb> consume(const std::string &path) {
    auto text = read_state_file(path, kPressLimit, true);
    if (remove(path.c_str()) != 0) {
        if (errno != ENOENT) PLATFORM_LOGW("cannot remove %s (%d:%m)", path.c_str(), errno);
        return std::nullopt;
    }
    if (text && !text->empty() && text->back() == '\n') text->pop_back();
    _KeyComb combination = 0;
    if (text) {
        const char *end = text->data() + text->size();
        const auto parsed = std::from_chars(text->data(), end, combination);
        if (parsed.ec == std::errc() && parsed.ptr == end) return combination;
    }
    PLATFORM_LOGW("not a key press, removed: %s", path.c_str());
    return std::nullopt;
}

// Main loop's thread.
void deliver_presses(const std::string & /*name*/) {
    if (current_handlers().empty()) return;
    for (const std::string &path : waiting_presses()) {
        const auto combination = consume(path);
        if (!combination) continue;
        for (const auto &[key, handler] : current_handlers()) {
            if (key == *combination) handler(*combination, nullptr);
        }
    }
}

gboolean deliver_early_presses(gpointer /*unused*/) {
    guarded(0, [] {
        deliver_presses({});
        return 0;
    });
    return G_SOURCE_REMOVE;
}

}  // namespace

int KeyCombination_Initialize(void) {
    if (platform_fault(FAULT_KEY_INITIALIZE)) return 0;
    return guarded(0, [] {
        const std::lock_guard<std::mutex> hold(handlers_lock);
        connected = watch_state_directory(kDirectory, deliver_presses);
        return connected ? 1 : 0;
    });
}

int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    if (handler == nullptr || platform_fault(FAULT_KEY_ADD_HANDLER)) return 0;
    return guarded(0, [&] {
        const std::lock_guard<std::mutex> hold(handlers_lock);
        if (!connected) {
            PLATFORM_LOGW("no handler for %d: not initialised", combination);
            return 0;
        }
        const Registration entry(combination, handler);
        if (std::find(handlers.begin(), handlers.end(), entry) == handlers.end()) handlers.push_back(entry);
        g_idle_add(deliver_early_presses, nullptr);
        return 1;
    });
}

int key_combination_drop(_KeyComb combination) {
    static std::atomic<unsigned> serial{0};
    return guarded(-1, [&] {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        char name[96];
        snprintf(name, sizeof(name), "%s/%012lld%09ld-%d-%06u%s", kDirectory, static_cast<long long>(now.tv_sec),
                 now.tv_nsec, static_cast<int>(getpid()), serial++, kSuffix);
        return replace_state_file(state_path(name), std::to_string(combination)) ? 0 : -1;
    });
}
