#include "platform/notice.h"

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/key_file.h"
#include "platform/places.h"
#include "platform/platform_log.h"

namespace {

constexpr auto kAnswerLimit = std::chrono::seconds(3);
constexpr size_t kFileLimit = size_t{64} * 1024;
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kServiceName[] = "org.freedesktop.Notifications";

// Of the bus with the notification service; empty where there is none.
std::string bus_address() {
    const KeyFile file = read_key_file(system_info_file(), kFileLimit, true);
    const auto configured = file == nullptr ? std::nullopt : key_file_text(file.get(), "notification", "bus");
    if (configured && !configured->empty()) return *configured;
    const char *session = secure_getenv("DBUS_SESSION_BUS_ADDRESS");
    return session == nullptr ? "" : session;
}

// The bus of one notice. The main loop waits for it, so all of it together has only kAnswerLimit. GLib would wait without
// a limit for a bus that does not let us in, and much longer for its first answer.
class Bus {
  public:
    Bus() = default;
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    ~Bus() {
        if (connection_ != nullptr) {
            g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
            g_object_unref(connection_);
        }
        g_clear_error(&error_);
    }

    bool open(const std::string &address) {
        const std::unique_ptr<GCancellable, decltype(&g_object_unref)> limit(g_cancellable_new(), g_object_unref);
        std::mutex lock;
        std::condition_variable opened;
        bool is_opened = false;
        std::thread timer([&] {
            std::unique_lock<std::mutex> hold(lock);
            const bool in_time = opened.wait_for(hold, kAnswerLimit, [&] { return is_opened; });
            if (!in_time) g_cancellable_cancel(limit.get());
        });
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, limit.get(), &error_);
        {
            const std::lock_guard<std::mutex> hold(lock);
            is_opened = true;
        }
        opened.notify_one();
        timer.join();
        return connection_ != nullptr && call(kBusName, "/org/freedesktop/DBus", "Hello", nullptr, "(s)");
    }

    // Sinks the parameters. The interface has the service's name.
    bool call(const char *service, const char *path, const char *method, GVariant *parameters,
              const char *answer_type) {
        const auto left = static_cast<int>(std::max<int64_t>((end_ - g_get_monotonic_time()) / 1000, 1));
        GVariant *answer =
            g_dbus_connection_call_sync(connection_, service, path, service, method, parameters,
                                        G_VARIANT_TYPE(answer_type), G_DBUS_CALL_FLAGS_NONE, left, nullptr, &error_);
        if (answer != nullptr) g_variant_unref(answer);
        return answer != nullptr;
    }

    const char *problem() const {
        if (g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_CANCELLED)) return "the bus does not answer";
        return error_ == nullptr ? "?" : error_->message;
    }

  private:
    const int64_t end_ = g_get_monotonic_time() + std::chrono::microseconds(kAnswerLimit).count();  // us
    GDBusConnection *connection_ = nullptr;
    GError *error_ = nullptr;
};

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
    Bus bus;
    if (bus.open(address) &&
        bus.call(kServiceName, "/org/freedesktop/Notifications", "Notify", call_parameters(notice), "(u)")) {
        return true;
    }
    PLATFORM_LOGW("notice: %s (not shown: %s)", notice.text.c_str(), bus.problem());
    return false;
}
