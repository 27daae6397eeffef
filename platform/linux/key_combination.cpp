#include "platform/key_combination.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <libevdev/libevdev.h>
#include <libudev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "platform/guarded.h"
#include "platform/key_file.h"
#include "platform/key_handlers.h"
#include "platform/linux/key_sequences.h"

namespace {

constexpr char kKeysFile[] = "/etc/vestrad/keys.conf";
constexpr char kGroup[] = "combinations";
constexpr size_t kFileLimit = size_t{64} * 1024;

// An input device that has a key of a combination.
struct Keyboard {
    int fd = -1;
    libevdev *device = nullptr;
    guint source = 0;
    std::set<int> down;  // keys as of the newest event that was taken: while it catches up, libevdev knows more

    Keyboard() = default;
    Keyboard(const Keyboard &) = delete;
    Keyboard &operator=(const Keyboard &) = delete;
    ~Keyboard() {
        if (source != 0) g_source_remove(source);
        libevdev_free(device);
        if (fd >= 0) close(fd);
    }
};

// Made at the start and never ended; below, only the main loop's thread uses them.
struct Service {
    KeySequences sequences;
    udev *context = nullptr;
    udev_monitor *monitor = nullptr;
    std::map<std::string, std::unique_ptr<Keyboard>> keyboards;  // by the name of the node
};
Service *service;

void read_combinations(KeySequences *sequences) {
    const KeyFile file = read_key_file(kKeysFile, kFileLimit);
    if (file == nullptr) return;
    const std::unique_ptr<char *, decltype(&g_strfreev)> names(
        g_key_file_get_keys(file.get(), kGroup, nullptr, nullptr), g_strfreev);
    for (char **name = names.get(); name != nullptr && *name != nullptr; ++name) {
        int combination = 0;
        const char *end = *name + strlen(*name);
        const auto parsed = std::from_chars(*name, end, combination);
        std::string problem = "not a number";
        if (parsed.ec == std::errc() && parsed.ptr == end) {
            const auto text = key_file_text(file.get(), kGroup, *name, &problem);
            if (text) problem = sequences->add(combination, *text);
        }
        if (!problem.empty()) PLATFORM_LOGW("%s: %s: %s", kKeysFile, *name, problem.c_str());
    }
    if (sequences->codes().empty()) PLATFORM_LOGW("%s: no combination, so no key is heard", kKeysFile);
}

bool is_held(int code) {
    return std::any_of(service->keyboards.begin(), service->keyboards.end(),
                       [&](const auto &keyboard) { return keyboard.second->down.count(code) != 0; });
}

void take(Keyboard *keyboard, const input_event &event) {
    if (event.type != EV_KEY) return;
    if (event.value == 0) keyboard->down.erase(event.code);
    if (event.value != 1) return;
    keyboard->down.insert(event.code);
    const int64_t time_us = static_cast<int64_t>(event.input_event_sec) * 1'000'000 + event.input_event_usec;
    for (const int combination : service->sequences.press(event.code, time_us, is_held)) {
        call_key_handlers(combination);
    }
}

// Handlers may take minutes. Meanwhile the kernel drops presses; which keys are down it then tells anew.
gboolean on_input(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
    auto *keyboard = static_cast<Keyboard *>(data);
    int result = LIBEVDEV_READ_STATUS_SUCCESS;
    unsigned flags = LIBEVDEV_READ_FLAG_NORMAL;
    for (;;) {
        input_event event = {};
        result = libevdev_next_event(keyboard->device, flags, &event);
        if (result == -EAGAIN && flags == LIBEVDEV_READ_FLAG_SYNC) {
            flags = LIBEVDEV_READ_FLAG_NORMAL;
        } else if (result == LIBEVDEV_READ_STATUS_SYNC && flags == LIBEVDEV_READ_FLAG_NORMAL) {
            flags = LIBEVDEV_READ_FLAG_SYNC;
        } else if (result < 0) {
            break;
        } else {
            guarded(0, [&] {
                take(keyboard, event);
                return 0;
            });
        }
    }
    if (result == -EAGAIN || result == -EINTR) return G_SOURCE_CONTINUE;
    const auto gone = std::find_if(service->keyboards.begin(), service->keyboards.end(),
                                   [&](const auto &known) { return known.second.get() == keyboard; });
    if (gone == service->keyboards.end()) return G_SOURCE_REMOVE;
    keyboard->source = 0;  // ends with this call
    service->keyboards.erase(gone);
    return G_SOURCE_REMOVE;
}

void add_keyboard(const char *node) {
    if (service->keyboards.count(node) != 0) return;
    auto keyboard = std::make_unique<Keyboard>();
    keyboard->fd = open(node, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (keyboard->fd < 0) {
        if (errno != ENOENT && errno != ENODEV) PLATFORM_LOGW("cannot open %s (%d:%m)", node, errno);
        return;
    }
    if (libevdev_new_from_fd(keyboard->fd, &keyboard->device) < 0) return;  // it has just been pulled
    bool needed = false;
    for (const int code : service->sequences.codes()) {
        int value = 0;
        if (libevdev_fetch_event_value(keyboard->device, EV_KEY, static_cast<unsigned>(code), &value) == 0) continue;
        needed = true;
        if (value != 0) keyboard->down.insert(code);
    }
    if (!needed) return;  // a mouse would wake us with every movement
    libevdev_set_clock_id(keyboard->device, CLOCK_MONOTONIC);
    keyboard->source =
        g_unix_fd_add(keyboard->fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_input, keyboard.get());
    service->keyboards.emplace(node, std::move(keyboard));
}

void take_device(udev_device *device) {
    const char *node = udev_device_get_devnode(device);
    const char *name = udev_device_get_sysname(device);
    const char *action = udev_device_get_action(device);
    if (node == nullptr || name == nullptr || strncmp(name, "event", 5) != 0) return;
    if (action != nullptr && strcmp(action, "remove") == 0) {
        service->keyboards.erase(node);
    } else if (action == nullptr || strcmp(action, "add") == 0) {
        add_keyboard(node);
    }
}

gboolean on_monitor(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/) {
    while (udev_device *device = udev_monitor_receive_device(service->monitor)) {
        guarded(0, [&] {
            take_device(device);
            return 0;
        });
        udev_device_unref(device);
    }
    return G_SOURCE_CONTINUE;
}

// Where udev runs, a node is complete when it has told of it.
void watch_devices() {
    const char *source = access("/run/udev/control", F_OK) == 0 ? "udev" : "kernel";
    service->monitor = udev_monitor_new_from_netlink(service->context, source);
    if (service->monitor == nullptr ||
        udev_monitor_filter_add_match_subsystem_devtype(service->monitor, "input", nullptr) < 0 ||
        udev_monitor_enable_receiving(service->monitor) < 0) {
        PLATFORM_LOGW("keyboards that are plugged later are not heard (%d:%m)", errno);
        return;
    }
    g_unix_fd_add(udev_monitor_get_fd(service->monitor), G_IO_IN, on_monitor, nullptr);
}

void find_devices() {
    const std::unique_ptr<udev_enumerate, decltype(&udev_enumerate_unref)> input(udev_enumerate_new(service->context),
                                                                                 udev_enumerate_unref);
    if (input == nullptr || udev_enumerate_add_match_subsystem(input.get(), "input") < 0 ||
        udev_enumerate_scan_devices(input.get()) < 0) {
        PLATFORM_LOGW("cannot list the input devices (%d:%m)", errno);
        return;
    }
    udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(input.get())) {
        udev_device *device = udev_device_new_from_syspath(service->context, udev_list_entry_get_name(entry));
        if (device == nullptr) continue;
        take_device(device);
        udev_device_unref(device);
    }
}

}  // namespace

int KeyCombination_Initialize(void) {
    return guarded(0, [] {
        if (service == nullptr) {
            auto started = std::make_unique<Service>();
            read_combinations(&started->sequences);
            started->context = udev_new();
            service = started.release();
            if (service->context != nullptr && !service->sequences.codes().empty()) {
                watch_devices();
                find_devices();
            }
        }
        accept_key_handlers();
        return 1;
    });
}

int KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    if (handler == nullptr) return 0;
    return guarded(0, [&] { return add_key_handler(combination, handler) ? 1 : 0; });
}
