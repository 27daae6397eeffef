// key_file.h -- reads GLib key files of the services.
#pragma once

#include <glib.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/files.h"
#include "platform/platform_log.h"

struct KeyFileFree {
    void operator()(GKeyFile *file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

// Reads the key file at `path`, at most `limit` bytes. Returns null, with a log line, if it cannot be read.
// With `quiet_when_missing`, a missing file is not logged.
inline KeyFile read_key_file(const std::string &path, size_t limit, bool quiet_when_missing = false) {
    const auto text = read_state_file(path, limit, quiet_when_missing);
    if (!text) return nullptr;
    KeyFile file(g_key_file_new());
    GError *error = nullptr;
    if (g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE, &error)) return file;
    PLATFORM_LOGW("%s: %s", path.c_str(), error == nullptr ? "?" : error->message);
    g_clear_error(&error);
    return nullptr;
}

// The text stored under `name` in `group`. Returns nothing if there is none or if it is not
// valid text; *problem says which.
inline std::optional<std::string> key_file_text(GKeyFile *file, const char *group, const char *name,
                                                std::string *problem = nullptr) {
    GError *error = nullptr;
    char *found = g_key_file_get_string(file, group, name, &error);
    std::optional<std::string> text;
    if (found != nullptr) text = found;
    if (problem != nullptr && error != nullptr) *problem = error->message;
    g_clear_error(&error);
    g_free(found);
    return text;
}
