#include "platform/usb_device.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/state_dir.h"

struct usb_device_s {
    std::string mount;
};

struct usb_device_list_s {
    std::vector<usb_device_s> devices;
};

namespace {

namespace fs = std::filesystem;

constexpr char kDirectory[] = "usb";
constexpr char kGroup[] = "device";
constexpr size_t kEntryLimit = 8192;

struct KeyFileFree {
    void operator()(GKeyFile *file) const { g_key_file_free(file); }
};

// The entries' file names in order of plugging. Nothing when the directory cannot be read.
std::optional<std::vector<std::string>> entry_names() {
    std::error_code error;
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(state_path(kDirectory), error)) {
        std::string name = entry.path().filename().native();
        if (name[0] != '.') names.push_back(std::move(name));
    }
    if (error) {
        PLATFORM_LOGW("cannot list %s: %s", state_path(kDirectory).c_str(), error.message().c_str());
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string entry_path(const std::string &name) {
    return state_path(std::string(kDirectory) + "/" + name);
}

// The device behind an entry when it is one of `device_class`.
std::optional<usb_device_s> read_entry(const std::string &name, int device_class) {
    const auto text = read_state_file(entry_path(name), kEntryLimit);
    const std::unique_ptr<GKeyFile, KeyFileFree> file(g_key_file_new());
    if (!text || !g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE, nullptr)) {
        PLATFORM_LOGW("no device entry: %s", name.c_str());
        return std::nullopt;
    }
    if (g_key_file_get_integer(file.get(), kGroup, "class", nullptr) != device_class) return std::nullopt;
    usb_device_s device;
    char *mount = g_key_file_get_string(file.get(), kGroup, "mount", nullptr);
    if (mount != nullptr) device.mount = mount;
    g_free(mount);
    return device;
}

// Label of an entry named NNNN-LABEL.
std::string_view label_of(std::string_view name) {
    const size_t dash = name.find('-');
    return dash == std::string_view::npos ? std::string_view() : name.substr(dash + 1);
}

}  // namespace

int usb_device_init(void) {
    return platform_fault(FAULT_USB_INIT) ? -1 : 0;
}
int usb_device_fini(void) {
    return 0;
}

int usb_device_get_device_list(int device_class, usb_device_list_h *list) {
    if (list == nullptr || platform_fault(FAULT_USB_LIST)) return -1;
    return guarded(-1, [&] {
        const auto names = entry_names();
        if (!names) return -1;
        auto found = std::make_unique<usb_device_list_s>();
        for (const std::string &name : *names) {
            if (auto device = read_entry(name, device_class)) found->devices.push_back(std::move(*device));
        }
        *list = found.release();
        return 0;
    });
}

int usb_device_list_get_first(usb_device_list_h list, usb_device_h *device) {
    if (list == nullptr || device == nullptr || list->devices.empty() || platform_fault(FAULT_USB_FIRST)) return -1;
    return guarded(-1, [&] {
        *device = new usb_device_s(list->devices.front());
        return 0;
    });
}

const char *usb_device_get_mountpath(usb_device_h device) {
    if (device == nullptr || device->mount.empty() || platform_fault(FAULT_USB_MOUNTPATH)) return nullptr;
    return device->mount.c_str();
}

void free_usb_device_h(usb_device_h device) {
    delete device;
}
void usb_device_free_device_list(usb_device_list_h list) {
    delete list;
}

int usb_device_plug(const char *label, const char *mount, int device_class) {
    if (label == nullptr || *label == '\0') return -1;
    return guarded(-1, [&] {
        const auto names = entry_names();
        if (!names) return -1;
        const int order = names->empty() ? 1 : std::atoi(names->back().c_str()) + 1;
        char number[16];
        snprintf(number, sizeof(number), "%04d-", order);
        std::string text = "[device]\nclass=" + std::to_string(device_class) + "\n";
        if (mount != nullptr) text += "mount=" + std::string(mount) + "\n";
        return replace_state_file(entry_path(number + encode_name(label)), text) ? 0 : -1;
    });
}

int usb_device_unplug(const char *label) {
    if (label == nullptr) return -1;
    return guarded(-1, [&] {
        const auto names = entry_names();
        if (!names) return -1;
        int result = -1;
        for (const std::string &name : *names) {
            if (label_of(name) == encode_name(label) && unlink(entry_path(name).c_str()) == 0) result = 0;
        }
        return result;
    });
}
