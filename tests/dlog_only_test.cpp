// The daemon with a log service that has __dlog_print and nothing else, as on a set. This program links the daemon and
// every other stand-in, and fails to link when one of them needs more of the log service.

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/dlog.h"
#include "vestra-daemon/decoder.h"

static char lines[4096];

int __dlog_print(log_id_t /*id*/, int prio, const char * /*tag*/, const char *fmt, ...) {
    const size_t used = strlen(lines);
    va_list arguments;
    va_start(arguments, fmt);
    const int head = snprintf(lines + used, sizeof(lines) - used, "%d ", prio);
    vsnprintf(lines + used + head, sizeof(lines) - used - static_cast<size_t>(head), fmt, arguments);
    va_end(arguments);
    return 0;
}

int main() {
    unsigned char block[4] = {};
    const bool decoded = decode_file(block, sizeof(block)) == -1 && decode_file(nullptr, 0) == -1;
    fputs(lines, stdout);
    const bool debug_line = strstr(lines, "3 decoder.cpp: decode_file(") == lines;
    const bool error_line = strstr(lines, "\n6 decoder.cpp: decode_file(") != nullptr;
    return &dlog_threshold == nullptr && decoded && debug_line && error_line ? 0 : 1;
}
