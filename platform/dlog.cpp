#include "platform/dlog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

static constexpr size_t kTextSize = 1920;  // formatted text, terminator included
static constexpr size_t kLineSize = 4096;  // a whole line with control characters escaped; one atomic append
static constexpr size_t kTagKept = 64;     // bytes of a tag that are written

int dlog_threshold = DLOG_INFO;
static int log_descriptor = STDERR_FILENO;  // -1 for none; constant after load, as the next
static bool to_journal;                     // systemd's journal reads the descriptor

static int threshold_from_environment() {
    const char *level = secure_getenv("VESTRA_DLOG_LEVEL");
    if (level == nullptr) return DLOG_INFO;
    static const struct {
        const char *name;
        int prio;
    } kLevels[] = {{"debug", DLOG_DEBUG}, {"info", DLOG_INFO}, {"warning", DLOG_WARN}, {"error", DLOG_ERROR},
                   {"3", DLOG_DEBUG},     {"4", DLOG_INFO},    {"5", DLOG_WARN},       {"6", DLOG_ERROR}};
    for (const auto &known : kLevels) {
        if (strcmp(level, known.name) == 0) return known.prio;
    }
    return DLOG_INFO;
}

// systemd names the device and inode of the stream that it gave to the service; a stream that took its place is
// another.
static bool is_journal(int descriptor) {
    const char *stream = secure_getenv("JOURNAL_STREAM");
    if (stream == nullptr) return false;
    char *end = nullptr;
    const uint64_t device = strtoull(stream, &end, 10);
    if (*end != ':') return false;
    const uint64_t inode = strtoull(end + 1, &end, 10);
    struct stat info;
    return *end == '\0' && fstat(descriptor, &info) == 0 && info.st_dev == device && info.st_ino == inode;
}

// When the program is loaded, not at the first line: threads and forked children find everything in place.
[[gnu::constructor]] static void read_environment() {
    dlog_threshold = threshold_from_environment();
    const char *path = secure_getenv("VESTRA_DLOG_FILE");
    if (path != nullptr && *path != '\0') {
        const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
        if (fd >= 0) log_descriptor = fd;
    }
    // Without standard error its number goes to another file, which must not get the log.
    if (log_descriptor == STDERR_FILENO && fcntl(STDERR_FILENO, F_GETFD) < 0) log_descriptor = -1;
    to_journal = is_journal(log_descriptor);
}

void dlog_set_threshold(int prio) {
    dlog_threshold = prio;
}

// Appends `text`, with control characters escaped. Returns the new length, which leaves room for a line end.
static size_t append_escaped(char *line, size_t used, const char *text, size_t length) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < length && used + 5 < kLineSize; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte != 0x7f) {
            line[used++] = text[i];
            continue;
        }
        line[used++] = '\\';
        line[used++] = 'x';
        line[used++] = kHex[byte >> 4];
        line[used++] = kHex[byte & 15];
    }
    return used;
}

struct UtcTime {
    int year, month, day, hour, minute, second;
};

// Computed here because the C library's conversion takes a lock, which may be held in a forked child.
static UtcTime utc_time(time_t seconds) {
    const int64_t days = seconds / 86400;
    const auto of_day = static_cast<int>(seconds % 86400);
    // Days since 0000-03-01 in eras of 400 years: the leap day is then the last day of a year.
    const int64_t shifted = days + 719468;
    const int64_t era = shifted / 146097;
    const int64_t day_of_era = shifted % 146097;
    const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month = (5 * day_of_year + 2) / 153;  // 0 = March
    UtcTime utc;
    utc.day = static_cast<int>(day_of_year - (153 * month + 2) / 5 + 1);
    utc.month = static_cast<int>(month < 10 ? month + 3 : month - 9);
    utc.year = static_cast<int>(year_of_era + era * 400 + (utc.month <= 2 ? 1 : 0));
    utc.hour = of_day / 3600;
    utc.minute = of_day / 60 % 60;
    utc.second = of_day % 60;
    return utc;
}

// Writes what comes before the tag. Returns its length.
static size_t begin_line(char (&line)[kLineSize], int prio) {
    const int known = prio >= DLOG_DEBUG && prio <= DLOG_ERROR ? prio - DLOG_DEBUG : -1;
    int head = 0;
    if (to_journal) {
        // syslog's debug, info, warning and error; the journal has time and process itself.
        head = snprintf(line, sizeof(line), "<%c>", known < 0 ? '5' : "7643"[known]);
    } else {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        const UtcTime utc = utc_time(now.tv_sec);
        head = snprintf(line, sizeof(line), "%04d-%02d-%02d %02d:%02d:%02d.%03dZ %c %d:%d ", utc.year, utc.month,
                        utc.day, utc.hour, utc.minute, utc.second, static_cast<int>(now.tv_nsec / 1000000),
                        known < 0 ? '?' : "DIWE"[known], static_cast<int>(getpid()),
                        static_cast<int>(syscall(SYS_gettid)));
    }
    return static_cast<size_t>(std::max(head, 0));
}

int __dlog_print(log_id_t /*id*/, int prio, const char *tag, const char *fmt, ...) {
    if (!dlog_wants(prio)) return 0;
    const int saved = errno;

    char text[kTextSize];
    va_list arguments;
    va_start(arguments, fmt);
    const int formatted = vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    if (formatted < 0) {
        errno = saved;
        return -1;
    }
    size_t length = std::min(static_cast<size_t>(formatted), sizeof(text) - 1);
    if (length > 0 && text[length - 1] == '\n') --length;

    char line[kLineSize];
    size_t used = begin_line(line, prio);
    if (tag != nullptr) used = append_escaped(line, used, tag, strnlen(tag, kTagKept));
    line[used++] = ':';
    line[used++] = ' ';
    used = append_escaped(line, used, text, length);
    line[used++] = '\n';
    const ssize_t written = write(log_descriptor, line, used);
    errno = saved;
    return written < 0 ? -1 : static_cast<int>(length);
}
