#include "platform/system_info.h"

#include <glib.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/state_dir.h"

namespace {
constexpr size_t kFileLimit = 64 * 1024;

struct KeyFileFree {
    void operator()(GKeyFile *file) const { g_key_file_free(file); }
};
}  // namespace

int system_info_get_custom_string(const char *key, char **value) {
    if (key == nullptr || value == nullptr || platform_fault(FAULT_SYSTEM_INFO)) return -1;
    return guarded(-1, [&] {
        const std::string name = key;
        const size_t slash = name.rfind('/');
        if (slash == std::string::npos) return -1;
        const auto text = read_state_file(state_path("system_info.ini"), kFileLimit);
        const std::unique_ptr<GKeyFile, KeyFileFree> file(g_key_file_new());
        if (!text || !g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE, nullptr)) {
            PLATFORM_LOGW("no system information");
            return -1;
        }
        char *found =
            g_key_file_get_string(file.get(), name.substr(0, slash).c_str(), name.c_str() + slash + 1, nullptr);
        if (found == nullptr) return -1;
        *value = strdup(found);  // from malloc, whatever GLib's allocator is
        g_free(found);
        return *value == nullptr ? -1 : 0;
    });
}
