// notice.h -- a notice, and what an implementation of the platform does with one that is posted.
#pragma once

#include <string>

struct notification_s {
    int type = 0;
    int hide_timeout = 0;  // s
    bool auto_remove = true;
    int applist = 0;
    std::string text;  // any bytes
};

// Shows it. False, with a log line, if that is not possible. Any thread.
bool show_notice(const notification_s &notice);
