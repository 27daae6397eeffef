#include "platform/directory_watch.h"

#include <gio/gio.h>

#include "platform/guarded.h"
#include "platform/state_dir.h"

namespace {

using Handler = void (*)(const std::string &name);

void on_event(GFileMonitor * /*monitor*/, GFile *file, GFile *other, GFileMonitorEvent event, gpointer handler) {
    GFile *changed = nullptr;
    if (event == G_FILE_MONITOR_EVENT_RENAMED) changed = other;
    if (event == G_FILE_MONITOR_EVENT_MOVED_IN || event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT) changed = file;
    if (changed == nullptr) return;
    char *name = g_file_get_basename(changed);
    if (name != nullptr && name[0] != '.') {  // a point begins the names of files in the making
        guarded(0, [&] {
            reinterpret_cast<Handler>(handler)(name);
            return 0;
        });
    }
    g_free(name);
}

}  // namespace

bool watch_state_directory(const char *relative, Handler changed) {
    const std::string path = state_path(relative);
    if (!g_file_test(path.c_str(), G_FILE_TEST_IS_DIR)) {
        PLATFORM_LOGW("no directory %s", path.c_str());
        return false;
    }
    GFile *directory = g_file_new_for_path(path.c_str());
    GError *error = nullptr;
    GFileMonitor *monitor = g_file_monitor_directory(directory, G_FILE_MONITOR_WATCH_MOVES, nullptr, &error);
    g_object_unref(directory);
    if (monitor == nullptr) {
        PLATFORM_LOGW("cannot watch %s: %s", path.c_str(), error == nullptr ? "?" : error->message);
        g_clear_error(&error);
        return false;
    }
    g_file_monitor_set_rate_limit(monitor, 0);
    g_signal_connect(monitor, "changed", G_CALLBACK(on_event), reinterpret_cast<gpointer>(changed));
    return true;
}
