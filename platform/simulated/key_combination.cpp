#include "platform/key_combination.h"

#include <glib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "platform/directory_watch.h"
#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/key_handlers.h"
#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"

namespace {

constexpr char kDirectory[] = "keys";
constexpr char kSuffix[] = ".press";
constexpr size_t kPressLimit = 32;  // bytes

std::vector<std::string> waiting_presses() {
    constexpr size_t kSuffixSize = sizeof(kSuffix) - 1;
    std::vector<std::string> paths;
    for (const std::string &name : list_directory(state_path(kDirectory)).value_or(std::vector<std::string>())) {
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
    if (!any_key_handlers()) return;
    for (const std::string &path : waiting_presses()) {
        if (const auto combination = consume(path)) call_key_handlers(*combination);
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
        if (!watch_directory(state_path(kDirectory), deliver_presses)) return 0;
        accept_key_handlers();
        return 1;
    });
}

int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    if (handler == nullptr || platform_fault(FAULT_KEY_ADD_HANDLER)) return 0;
    return guarded(0, [&] {
        if (!add_key_handler(combination, handler)) return 0;
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
