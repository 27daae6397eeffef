// vestra_log.h -- the daemon's log macros.
//
// Every line carries the same prefix: the source file's base name, the function and the line, then function and line
// once more in the bracket that the set's log filters look for. A line below the platform log's threshold costs one
// compare: its arguments are not evaluated.
#pragma once

#include "platform/dlog.h"

#define VESTRA_LOG_TAG "VESTRA"
#define VESTRA_LOG_PREFIX "%s: %s(%d) > [Vestrad:%s:%d]"

// The operation that a line names: the function it stands in. A source that splits an operation into steps defines this
// anew in front of them, because log filters go by the operation's name, and back behind them.
#define VESTRA_LOG_OPERATION __func__

// `fmt` must be a string literal. errno is left as it was, so that "%m" and what follows see the caller's error.
#define VESTRA_LOG(prio, fmt, ...)                                                                       \
    do {                                                                                                 \
        if (dlog_wants(prio)) {                                                                          \
            __dlog_print(LOG_ID_MAIN, (prio), VESTRA_LOG_TAG, VESTRA_LOG_PREFIX fmt, __FILE_NAME__,      \
                         VESTRA_LOG_OPERATION, __LINE__, VESTRA_LOG_OPERATION, __LINE__, ##__VA_ARGS__); \
        }                                                                                                \
    } while (0)

#define LOGD(fmt, ...) VESTRA_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) VESTRA_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) VESTRA_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) VESTRA_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)
