#include "platform/notification.h"

#include <new>

#include "platform/fault.h"
#include "platform/guarded.h"
#include "platform/notice.h"

static constexpr int kContentText = 1;

notification_h notification_create(int type) {
    if (platform_fault(FAULT_NOTIFICATION_CREATE)) return nullptr;
    auto *notification = new (std::nothrow) notification_s;
    if (notification != nullptr) notification->type = type;
    return notification;
}

int notification_set_hide_timeout(notification_h notification, int seconds) {
    if (notification == nullptr || platform_fault(FAULT_NOTIFICATION_HIDE_TIMEOUT)) return -1;
    notification->hide_timeout = seconds;
    return 0;
}

int notification_set_auto_remove(notification_h notification, bool auto_remove) {
    if (notification == nullptr || platform_fault(FAULT_NOTIFICATION_AUTO_REMOVE)) return -1;
    notification->auto_remove = auto_remove;
    return 0;
}

int notification_set_text(notification_h notification, int text_type, const char *text, const char * /*key*/,
                          int /*args_type*/, ...) {
    if (notification == nullptr || text == nullptr || platform_fault(FAULT_NOTIFICATION_TEXT)) return -1;
    return guarded(-1, [&] {
        if (text_type == kContentText) notification->text = text;
        return 0;
    });
}

int notification_set_display_applist(notification_h notification, int applist) {
    if (notification == nullptr || platform_fault(FAULT_NOTIFICATION_APPLIST)) return -1;
    notification->applist = applist;
    return 0;
}

int notification_post(notification_h notification) {
    if (notification == nullptr || platform_fault(FAULT_NOTIFICATION_POST)) return -1;
    return guarded(-1, [&] { return show_notice(*notification) ? 0 : -1; });
}

int notification_free(notification_h notification) {
    const bool failed = notification == nullptr || platform_fault(FAULT_NOTIFICATION_FREE);
    delete notification;
    return failed ? -1 : 0;
}
