// vestra_log.h -- the daemon's log macros.
//
// Every line starts with the same prefix: source file, operation and line number, then operation and line number again
// in the bracket that the set's log filters match. The arguments of a line below the threshold are not evaluated.
#pragma once

#include "platform/dlog.h"

#define VESTRA_LOG_TAG "VESTRA"
#define VESTRA_LOG_PREFIX "%s: %s(%d) > [Vestrad:%s:%d]"

// The operation that a line names: by default the function that logs it. Log filters match the operation, so a function
// that is a step of a longer one begins with LOGS_AS("operation"): a local variable that hides the enumerator.
enum OwnName { log_operation };
inline const char *operation_name(OwnName /*own*/, const char *function) {
    return function;
}
inline const char *operation_name(const char *operation, const char * /*function*/) {
    return operation;
}
#define LOGS_AS(operation) static constexpr char log_operation[] = operation

// `fmt` must be a string literal. Leaves errno alone: "%m" and the code after the line see the caller's error.
#define VESTRA_LOG(prio, fmt, ...)                                                                                   \
    do {                                                                                                             \
        if (dlog_wants(prio)) {                                                                                      \
            __dlog_print(LOG_ID_MAIN, (prio), VESTRA_LOG_TAG, VESTRA_LOG_PREFIX fmt, __FILE_NAME__,                  \
                         operation_name(log_operation, __func__), __LINE__, operation_name(log_operation, __func__), \
                         __LINE__, ##__VA_ARGS__);                                                                   \
        }                                                                                                            \
    } while (0)

#define LOGD(fmt, ...) VESTRA_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) VESTRA_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) VESTRA_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) VESTRA_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)
