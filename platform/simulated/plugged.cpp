#include "platform/plugged.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/guarded.h"
#include "platform/key_file.h"
#include "platform/simulated/remote.h"
#include "platform/simulated/state_dir.h"

namespace {

constexpr char kDirectory[] = "usb";
constexpr char kGroup[] = "device";
constexpr size_t kEntryLimit = 8192;
constexpr uint32_t kLastOrder = 999999999;

// A device's file, NNNN-LABEL.
struct Entry {
    uint32_t order;
    std::string label;  // encoded
    std::string path;
};

std::optional<Entry> parse_entry(const std::string &name) {
    Entry entry = {};
    const char *end = name.data() + name.size();
    const auto parsed = std::from_chars(name.data(), end, entry.order);
    if (parsed.ec != std::errc() || parsed.ptr == end || *parsed.ptr != '-') return std::nullopt;
    entry.label = std::string(parsed.ptr + 1, end);
    entry.path = state_path(std::string(kDirectory) + "/" + name);
    return entry;
}

// The entries in order of plugging. Returns nothing, with a log line, if the directory cannot be read.
std::optional<std::vector<Entry>> plugged_entries() {
    const auto names = list_directory(state_path(kDirectory));
    if (!names) return std::nullopt;
    std::vector<Entry> entries;
    for (const std::string &name : *names) {
        if (auto entry = parse_entry(name)) {
            entries.push_back(std::move(*entry));
        } else {
            PLATFORM_LOGW("not a device: %s", name.c_str());
        }
    }
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return a.order != b.order ? a.order < b.order : a.label < b.label;
    });
    return entries;
}

// Reads an entry's device. Returns nothing if it is of another class than `device_class`, or cannot be read.
std::optional<usb_device_s> read_entry(const Entry &entry, int device_class) {
    const KeyFile file = read_key_file(entry.path, kEntryLimit);
    if (file == nullptr) return std::nullopt;
    GError *error = nullptr;
    const int found = g_key_file_get_integer(file.get(), kGroup, "class", &error);
    if (error != nullptr) {
        PLATFORM_LOGW("%s: %s", entry.path.c_str(), error->message);
        g_clear_error(&error);
        return std::nullopt;
    }
    if (found != device_class) return std::nullopt;
    return usb_device_s{key_file_text(file.get(), kGroup, "mount").value_or("")};
}

std::string entry_text(const char *mount, int device_class) {
    const KeyFile file(g_key_file_new());
    g_key_file_set_integer(file.get(), kGroup, "class", device_class);
    if (mount != nullptr) g_key_file_set_string(file.get(), kGroup, "mount", mount);
    gsize length = 0;
    const std::unique_ptr<char, decltype(&g_free)> data(g_key_file_to_data(file.get(), &length, nullptr), g_free);
    return {data.get(), length};
}

}  // namespace

std::optional<std::vector<usb_device_s>> plugged_devices(int device_class) {
    const auto entries = plugged_entries();
    if (!entries) return std::nullopt;
    std::vector<usb_device_s> devices;
    for (const Entry &entry : *entries) {
        if (auto device = read_entry(entry, device_class)) devices.push_back(std::move(*device));
    }
    return devices;
}

int usb_device_plug(const char *label, const char *mount, int device_class) {
    if (label == nullptr || *label == '\0') return -1;
    return guarded(-1, [&] {
        const auto entries = plugged_entries();
        if (!entries) return -1;
        const uint32_t last = entries->empty() ? 0 : entries->back().order;
        if (last >= kLastOrder) {
            PLATFORM_LOGW("no number left after %s", entries->back().path.c_str());
            return -1;
        }
        char number[32];
        snprintf(number, sizeof(number), "%s/%04u-", kDirectory, last + 1);
        return replace_state_file(state_path(number + encode_name(label)), entry_text(mount, device_class)) ? 0 : -1;
    });
}

int usb_device_unplug(const char *label) {
    if (label == nullptr) return -1;
    return guarded(-1, [&] {
        const auto entries = plugged_entries();
        if (!entries) return -1;
        const std::string encoded = encode_name(label);
        int result = -1;
        for (const Entry &entry : *entries) {
            if (entry.label != encoded) continue;
            if (unlink(entry.path.c_str()) != 0) {
                PLATFORM_LOGW("cannot unplug %s (%d:%m)", entry.path.c_str(), errno);
                return -1;
            }
            result = 0;
        }
        return result;
    });
}
