#include "platform/notice.h"

#include <gio/gio.h>

#include <cstdlib>
#include <memory>

#include "platform/key_file.h"
#include "platform/places.h"
#include "platform/platform_log.h"

namespace {

constexpr int kAnswerLimit = 3000;  // ms
constexpr size_t kFileLimit = size_t{64} * 1024;

// Of the bus with the notification service; empty where there is none.
std::string bus_address() {
    const KeyFile file = read_key_file(system_info_file(), kFileLimit);
    const auto configured = file == nullptr ? std::nullopt : key_file_text(file.get(), "notification", "bus");
    if (configured && !configured->empty()) return *configured;
    const char *session = getenv("DBUS_SESSION_BUS_ADDRESS");
    return session == nullptr ? "" : session;
}

GVariant *call_parameters(const notification_s &notice) {
    const std::unique_ptr<char, decltype(&g_free)> body(
        g_utf8_make_valid(notice.text.data(), static_cast<gssize>(notice.text.size())), g_free);
    const int timeout = notice.hide_timeout > 0 && notice.hide_timeout < 1'000'000 ? notice.hide_timeout * 1000 : -1;
    return g_variant_new("(susssasa{sv}i)", "vestrad", 0U, "", "vestrad", body.get(), nullptr, nullptr, timeout);
}

}  // namespace

bool show_notice(const notification_s &notice) {
    const std::string address = bus_address();
    if (address.empty()) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "PLATFORM", "notice: %s", notice.text.c_str());
        return true;
    }
    GError *error = nullptr;
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *bus = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
    if (bus != nullptr) {
        constexpr char kName[] = "org.freedesktop.Notifications";
        GVariant *answer = g_dbus_connection_call_sync(bus, kName, "/org/freedesktop/Notifications", kName, "Notify",
                                                       call_parameters(notice), G_VARIANT_TYPE("(u)"),
                                                       G_DBUS_CALL_FLAGS_NONE, kAnswerLimit, nullptr, &error);
        if (answer != nullptr) g_variant_unref(answer);
        g_dbus_connection_close_sync(bus, nullptr, nullptr);
        g_object_unref(bus);
    }
    if (error == nullptr) return true;
    PLATFORM_LOGW("notice: %s (not shown: %s)", notice.text.c_str(), error->message);
    g_error_free(error);
    return false;
}
