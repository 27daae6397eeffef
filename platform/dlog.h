// dlog.h -- the set's log service.
//
// The set promises __dlog_print and nothing else: each call writes one tagged line and preserves errno; "%m" in the
// format is the caller's errno.
//
// Both of ours: one line is one write() to the log file (O_APPEND) or to standard error:
//     2026-11-24 21:30:53.123Z I 4711:4712 VESTRA: text
// That is wall-clock time (UTC), priority letter, process and thread id, tag, text. Where systemd's journal reads
// standard error, it has the time and the process already, and takes the priority from the line's begin (7, 6, 4, 3):
//     <6>VESTRA: text
// Limits: 1919 bytes of text, 64 of tag, 4096 for the whole line. Control characters are written as \xNN, so a text
// cannot forge a line. One line end at the end of the text is dropped.
//
// Environment, with systemd's JOURNAL_STREAM, read once when the program is loaded, and ignored by set-user-ID
// programs:
//     VESTRA_DLOG_LEVEL   3..6, or debug, info, warning, error; default info
//     VESTRA_DLOG_FILE    a path; default standard error, also if the file cannot be opened
// Without either, nothing is written.
//
// Differs from the set: there the service sets the threshold.
#pragma once

extern "C" {

typedef int log_id_t;
enum { LOG_ID_MAIN = 0 };
enum { DLOG_DEBUG = 3, DLOG_INFO = 4, DLOG_WARN = 5, DLOG_ERROR = 6 };

// Writes one line. Returns the number of bytes of text, 0 for a line below the threshold, or a negative value if it
// could not be written. Any thread, also in a forked child; allocates nothing and takes no lock.
int __dlog_print(log_id_t id, int prio, const char *tag, const char *fmt, ...) __attribute__((format(printf, 4, 5)));

/* ------------------------------ Ours only ------------------------------ */

// Lowest priority that is written. Set when the program is loaded, changed by dlog_set_threshold, read without a lock.
// Weak: a program also links with a service that has only __dlog_print, and then hands over every line.
extern int dlog_threshold __attribute__((weak));

// True if a line of this priority would be written. Callers check it before they evaluate a line's arguments.
inline bool dlog_wants(int prio) {
    return &dlog_threshold == nullptr || prio >= dlog_threshold;
}

// For tests and tools.
void dlog_set_threshold(int prio);

}  // extern "C"
