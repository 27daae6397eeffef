#include "platform/key_combination.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
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

// Main loop's thread and the thread that registers; the set registers before its loop runs.
std::vector<std::pair<_KeyComb, KeyCombination_Handler>> handlers;

std::vector<std::string> waiting_presses() {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(state_path(kDirectory), ignored)) {
        if (entry.path().extension() == kSuffix && entry.path().filename().native()[0] != '.') {
            names.push_back(entry.path().native());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Takes a press away and reads it. Nothing when it was not one.
std::optional<_KeyComb> consume(const std::string &path) {
    const auto text = read_state_file(path, 32);
    if (unlink(path.c_str()) != 0) return std::nullopt;  // taken by another; also keeps a press from coming for ever
    _KeyComb combination = 0;
    const char *end = text ? text->data() + text->size() : nullptr;
    if (text && std::from_chars(text->data(), end, combination).ec == std::errc()) return combination;
    PLATFORM_LOGW("not a key press: %s", path.c_str());
    return std::nullopt;
}

void deliver_presses(const std::string & /*name*/) {
    for (const std::string &path : waiting_presses()) {
        const auto combination = consume(path);
        if (!combination) continue;
        for (const auto &[wanted, handler] : handlers) {
            if (wanted == *combination) handler(*combination, nullptr);
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
    static bool watching = false;
    if (platform_fault(FAULT_KEY_INITIALIZE)) return 0;
    if (!watching) watching = guarded(false, [] { return watch_state_directory(kDirectory, deliver_presses); });
    return watching ? 1 : 0;
}

int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    if (handler == nullptr || platform_fault(FAULT_KEY_ADD_HANDLER)) return 0;
    return guarded(0, [&] {
        const std::pair<_KeyComb, KeyCombination_Handler> entry(combination, handler);
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
