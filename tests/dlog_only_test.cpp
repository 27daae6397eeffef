// The daemon with a log service that has __dlog_print and nothing else, as on a set. This program links the daemon and
// every other stand-in, and fails to link when one of them needs more of the log service.

#include <cstdarg>
#include <cstdio>

#include "platform/dlog.h"
#include "vestra-daemon/decoder.h"

int __dlog_print(log_id_t /*id*/, int prio, const char * /*tag*/, const char *fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    printf("%d ", prio);
    vprintf(fmt, arguments);
    va_end(arguments);
    return 0;
}

int main() {
    unsigned char block[4] = {};
    decode_file(block, sizeof(block));  // a debug line
    decode_file(nullptr, 0);            // an error line
    puts(&dlog_threshold == nullptr ? "no threshold" : "a threshold");
}
