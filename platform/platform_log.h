// platform_log.h -- how the stand-ins say what is wrong with them.
#pragma once

#include "platform/dlog.h"

#define PLATFORM_LOG(prio, fmt, ...)                                                                              \
    do {                                                                                                          \
        if (dlog_wants(prio)) __dlog_print(LOG_ID_MAIN, (prio), "PLATFORM", "%s: " fmt, __func__, ##__VA_ARGS__); \
    } while (0)
#define PLATFORM_LOGW(fmt, ...) PLATFORM_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
