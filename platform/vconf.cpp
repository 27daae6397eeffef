#include "platform/vconf.h"

#include <gio/gio.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/directory_watch.h"
#include "platform/fault.h"
#include "platform/files.h"
#include "platform/guarded.h"
#include "platform/places.h"

struct keynode_t {
    std::string name;
    int type = VCONF_TYPE_NONE;
    int number = 0;
    std::string text;
};

namespace {

constexpr size_t kValueLimit = size_t{64} * 1024;
constexpr std::string_view kIntHead = "int\n";
constexpr std::string_view kStringHead = "string\n";

struct Registration {
    unsigned id;
    std::string key;
    vconf_callback_fn callback;
    void *user_data;
};

std::mutex registrations_lock;  // guards the two below
std::vector<Registration> registrations;
unsigned last_id;

std::string key_path(const char *key) {
    return keys_directory() + "/" + encode_name(key);
}

// The value of `key`. The node has type VCONF_TYPE_NONE if there is no readable value.
keynode_t read_node(const char *key, bool quiet_when_missing) {
    keynode_t node;
    node.name = key;
    const auto contents = read_state_file(key_path(key), kValueLimit, quiet_when_missing);
    if (!contents) return node;
    const std::string_view value = *contents;
    if (value.substr(0, kIntHead.size()) == kIntHead) {
        std::string_view digits = value.substr(kIntHead.size());
        if (!digits.empty() && digits.back() == '\n') digits.remove_suffix(1);
        const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), node.number);
        if (parsed.ec == std::errc() && parsed.ptr == digits.data() + digits.size()) {
            node.type = VCONF_TYPE_INT;
        } else {
            node.number = 0;
        }
    } else if (value.substr(0, kStringHead.size()) == kStringHead) {
        node.text = value.substr(kStringHead.size());
        node.type = VCONF_TYPE_STRING;
    }
    if (node.type == VCONF_TYPE_NONE) PLATFORM_LOGW("the value of %s is malformed", key);
    return node;
}

bool still_registered(unsigned id) {
    const std::lock_guard<std::mutex> hold(registrations_lock);
    return std::any_of(registrations.begin(), registrations.end(), [id](const auto &r) { return r.id == id; });
}

// Called when a file of the directory was replaced or written. Main loop's thread. Callbacks run without a lock held.
void on_changed(const std::string &file) {
    std::vector<Registration> concerned;
    {
        const std::lock_guard<std::mutex> hold(registrations_lock);
        for (const Registration &registration : registrations) {
            if (encode_name(registration.key) == file) concerned.push_back(registration);
        }
    }
    for (const Registration &registration : concerned) {
        if (!still_registered(registration.id)) continue;
        keynode_t node = read_node(registration.key.c_str(), false);
        registration.callback(&node, registration.user_data);
    }
}

int write_value(const char *key, std::string_view head, std::string_view value) {
    if (value.size() > kValueLimit - head.size()) {
        PLATFORM_LOGW("the value for %s is too long", key);
        return -1;
    }
    return replace_state_file(key_path(key), std::string(head) += value) ? 0 : -1;
}

}  // namespace

int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data) {
    if (key == nullptr || cb == nullptr || platform_fault(FAULT_VCONF_NOTIFY)) return -1;
    return guarded(-1, [&] {
        const std::lock_guard<std::mutex> hold(registrations_lock);
        if (!watch_directory(keys_directory(), on_changed)) return -1;
        for (const Registration &known : registrations) {
            if (known.key == key && known.callback == cb) return -1;
        }
        registrations.push_back({++last_id, key, cb, user_data});
        return 0;
    });
}

int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb) {
    if (key == nullptr || platform_fault(FAULT_VCONF_IGNORE)) return -1;
    return guarded(-1, [&] {
        const std::lock_guard<std::mutex> hold(registrations_lock);
        const auto found = std::find_if(registrations.begin(), registrations.end(),
                                        [&](const auto &r) { return r.key == key && r.callback == cb; });
        if (found == registrations.end()) return -1;
        registrations.erase(found);
        return 0;
    });
}

int vconf_get_int(const char *key, int *value) {
    if (key == nullptr || value == nullptr || platform_fault(FAULT_VCONF_GET)) return -1;
    return guarded(-1, [&] {
        const keynode_t node = read_node(key, false);
        if (node.type != VCONF_TYPE_INT) return -1;
        *value = node.number;
        return 0;
    });
}

int vconf_set_int(const char *key, int value) {
    if (key == nullptr || platform_fault(FAULT_VCONF_SET)) return -1;
    return guarded(-1, [&] { return write_value(key, kIntHead, std::to_string(value)); });
}

char *vconf_get_str(const char *key) {
    if (key == nullptr || platform_fault(FAULT_VCONF_GET_STR)) return nullptr;
    return guarded(static_cast<char *>(nullptr), [&]() -> char * {
        const keynode_t node = read_node(key, false);
        return node.type == VCONF_TYPE_STRING ? strdup(node.text.c_str()) : nullptr;
    });
}

int vconf_set_str(const char *key, const char *value) {
    if (key == nullptr || value == nullptr || platform_fault(FAULT_VCONF_SET_STR)) return -1;
    return guarded(-1, [&] { return write_value(key, kStringHead, value); });
}

char *vconf_keynode_get_name(keynode_t *node) {
    return node == nullptr || platform_fault(FAULT_VCONF_NODE_NAME) ? nullptr : node->name.data();
}
int vconf_keynode_get_type(keynode_t *node) {
    return node == nullptr ? VCONF_TYPE_NONE : node->type;
}
int vconf_keynode_get_int(keynode_t *node) {
    return node == nullptr ? 0 : node->number;
}
char *vconf_keynode_get_str(keynode_t *node) {
    if (node == nullptr || node->type != VCONF_TYPE_STRING || platform_fault(FAULT_VCONF_NODE_STR)) return nullptr;
    return node->text.data();
}
