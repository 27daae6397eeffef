#include "platform/system_info.h"

#include <cstring>
#include <string>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/key_file.h"
#include "platform/places.h"

static constexpr size_t kFileLimit = size_t{64} * 1024;

int system_info_get_custom_string(const char *key, char **value) {
    if (key == nullptr || value == nullptr || platform_fault(FAULT_SYSTEM_INFO)) return -1;
    return guarded(-1, [&] {
        const std::string name = key;
        const size_t slash = name.rfind('/');
        if (slash == std::string::npos) {
            PLATFORM_LOGW("a key without a group: %s", key);
            return -1;
        }
        const KeyFile file = read_key_file(system_info_file(), kFileLimit);
        if (file == nullptr) return -1;
        std::string problem;
        const auto text = key_file_text(file.get(), name.substr(0, slash).c_str(), name.c_str() + slash + 1, &problem);
        if (!text) {
            PLATFORM_LOGW("%s: %s", key, problem.c_str());
            return -1;
        }
        char *copy = strdup(text->c_str());  // the caller frees it with free(), whatever GLib allocates with
        if (copy == nullptr) return -1;
        *value = copy;
        return 0;
    });
}
