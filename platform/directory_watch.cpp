#include "platform/directory_watch.h"

#include <gio/gio.h>
#include <sys/stat.h>

#include <map>
#include <mutex>

#include "platform/guarded.h"

namespace {

using Handler = void (*)(const std::string &name);

struct Watch {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    GFileMonitor *monitor = nullptr;
};

std::mutex watches_lock;           // guards the next
std::map<Handler, Watch> watches;  // by what is called

void on_event(GFileMonitor * /*monitor*/, GFile *file, GFile *other, GFileMonitorEvent event, gpointer handler) {
    GFile *changed = nullptr;
    if (event == G_FILE_MONITOR_EVENT_RENAMED) changed = other;
    if (event == G_FILE_MONITOR_EVENT_MOVED_IN || event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT) changed = file;
    if (changed == nullptr) return;
    char *name = g_file_get_basename(changed);
    if (name != nullptr && name[0] != '.') {  // temporary files begin with a dot
        guarded(0, [&] {
            reinterpret_cast<Handler>(handler)(name);
            return 0;
        });
    }
    g_free(name);
}

GFileMonitor *start_monitor(const std::string &path, Handler changed) {
    GFile *directory = g_file_new_for_path(path.c_str());
    GError *error = nullptr;
    GFileMonitor *monitor = g_file_monitor_directory(directory, G_FILE_MONITOR_WATCH_MOVES, nullptr, &error);
    g_object_unref(directory);
    if (monitor == nullptr) {
        PLATFORM_LOGW("cannot watch %s: %s", path.c_str(), error == nullptr ? "?" : error->message);
        g_clear_error(&error);
        return nullptr;
    }
    g_file_monitor_set_rate_limit(monitor, 0);
    g_signal_connect(monitor, "changed", G_CALLBACK(on_event), reinterpret_cast<gpointer>(changed));
    return monitor;
}

}  // namespace

bool watch_directory(const std::string &path, Handler changed) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        PLATFORM_LOGW("no directory %s", path.c_str());
        return false;
    }
    const std::lock_guard<std::mutex> hold(watches_lock);
    Watch &watch = watches[changed];
    const bool same = watch.path == path && watch.device == info.st_dev && watch.inode == info.st_ino;
    if (same && watch.monitor != nullptr) return true;
    GFileMonitor *monitor = start_monitor(path, changed);
    if (monitor == nullptr) return false;
    if (watch.monitor != nullptr) {
        g_file_monitor_cancel(watch.monitor);
        g_object_unref(watch.monitor);
    }
    watch = {path, info.st_dev, info.st_ino, monitor};
    return true;
}
