// dlog.h -- the set's log service.
//
// The set promises: one call, one line in the log, tagged; errno is as it was; "%m" in the format is the caller's
// errno. The stand-in: one line is one write() to the log file (O_APPEND) or to standard error:
//     2026-11-24 21:30:53.123Z I 4711:4712 VESTRA: text
// wall-clock time (UTC), priority letter, process and thread id, tag, text. A text is cut at 1919 bytes, a tag at 64,
// and the whole line, whose control characters are written as \xNN so that nobody can forge a line, at 4096; one line
// end at the text's end is dropped. Environment, read once when the program is loaded: VESTRA_DLOG_LEVEL (3..6, or
// debug, info, warning, error; default info) and VESTRA_DLOG_FILE (default, and when it cannot be opened: standard
// error). Differs from the set: there the threshold is the service's own.
#pragma once

extern "C" {

typedef int log_id_t;
enum { LOG_ID_MAIN = 0 };
enum { DLOG_DEBUG = 3, DLOG_INFO = 4, DLOG_WARN = 5, DLOG_ERROR = 6 };

// Lowest priority that is written. Set at load; dlog_set_threshold changes it. Read without a lock.
extern int dlog_threshold;

// True when a line of this priority would be written: what a caller asks before it evaluates arguments.
inline bool dlog_wants(int prio) {
    return prio >= dlog_threshold;
}

// Writes one line. Returns the bytes of the text, 0 for a line below the threshold, negative when it could not be
// written. Any thread, also a forked child; no allocation, no lock.
int __dlog_print(log_id_t id, int prio, const char *tag, const char *fmt, ...) __attribute__((format(printf, 4, 5)));

// For tests and tools.
void dlog_set_threshold(int prio);

}  // extern "C"
