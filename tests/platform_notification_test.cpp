#include "platform/notification.h"

#include <nlohmann/json.hpp>

#include "platform_env.h"

using nlohmann::json;
using Notification = PlatformTest;

namespace {

// The daemon's order of calls. The number of the first that failed, or 0.
int show(const char *text) {
    notification_h notice = notification_create(0);
    if (notice == nullptr) return 1;
    int failed = 0;
    if (notification_set_hide_timeout(notice, 30) != 0) {
        failed = 2;
    } else if (notification_set_auto_remove(notice, false) != 0) {
        failed = 3;
    } else if (notification_set_text(notice, 1, text, "CONTENT", -1) != 0) {
        failed = 4;
    } else if (notification_set_display_applist(notice, 0x10) != 0) {
        failed = 5;
    } else if (notification_post(notice) != 0) {
        failed = 6;
    }
    return notification_free(notice) != 0 ? 7 : failed;
}

}  // namespace

TEST_F(Notification, EachPostedNoticeIsOneLine) {
    EXPECT_EQ(show("VESTRA : USERKEY\nFile \"Dump\" Failed!!!"), 0);
    EXPECT_EQ(show("bytes \xff\xc3"), 0);
    const std::string spool = get("notifications.jsonl");
    const size_t end = spool.find('\n');
    ASSERT_EQ(spool.find('\n', end + 1), spool.size() - 1);
    const json first = json::parse(spool.substr(0, end));
    EXPECT_EQ(first["text"], "VESTRA : USERKEY\nFile \"Dump\" Failed!!!");
    EXPECT_EQ(first["hide_timeout"], 30);
    EXPECT_EQ(first["auto_remove"], false);
    EXPECT_EQ(first["applist"], 0x10);
    EXPECT_EQ(first["type"], 0);
    EXPECT_EQ(json::parse(spool.substr(end + 1))["text"], "bytes \xef\xbf\xbd\xef\xbf\xbd");
}

TEST_F(Notification, ASpoolThatCannotBeWrittenFailsThePost) {
    std::filesystem::create_directory(root_ / "notifications.jsonl");
    LogText log;
    EXPECT_EQ(show("text"), 6);
    EXPECT_NE(log.take().find("notifications.jsonl"), std::string::npos);
}

TEST_F(Notification, EachOperationFailsOnPurpose) {
    for (int step = 1; step <= 7; ++step) {
        platform_fail_nth(static_cast<platform_operation>(FAULT_NOTIFICATION_CREATE + step - 1), 1);
        EXPECT_EQ(show("text"), step);
        EXPECT_EQ(show("text"), 0);
    }
    EXPECT_LT(notification_post(nullptr), 0);
    EXPECT_LT(notification_free(nullptr), 0);
}
