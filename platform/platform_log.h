// platform_log.h -- warnings of the platform services themselves, with their own tag.
#pragma once

#include "platform/dlog.h"

#define PLATFORM_LOGW(fmt, ...)                                                                          \
    do {                                                                                                 \
        if (dlog_wants(DLOG_WARN)) __dlog_print(LOG_ID_MAIN, DLOG_WARN, "PLATFORM", fmt, ##__VA_ARGS__); \
    } while (0)
