// The operations that the linker redirects, as CMakeLists.txt lists them.
//
// Each has the C library's or the platform's own signature. The daemon calls them on all of its threads.

#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/dlog.h"
#include "platform/key_combination.h"
#include "platform/vconf.h"
#include "platform/vestra_api.h"
#include "support/seen.h"
#include "vestra-daemon/vestra_log.h"

using vestra_test::seen;
using vestra_test::world;

using Guard = std::lock_guard<std::mutex>;

extern "C" {

unsigned __real_sleep(unsigned seconds);
int __real_usleep(useconds_t usec);
int __real_nanosleep(const timespec *pause, timespec *rest);
int __real_gettimeofday(timeval *now, void *zone);
ssize_t __real_write(int fd, const void *data, size_t size);
int __real_fsync(int fd);
void *__real_malloc(size_t size);
pid_t __real_fork();
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument);
int __real_pthread_setname_np(pthread_t thread, const char *name);
int __real_vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data);
int __real_vconf_ignore_key_changed(const char *key, vconf_callback_fn callback);
int __real_KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler);

/* ------------------------------ Log ------------------------------ */

// Every line of the daemon begins with the five arguments of its prefix; the tests are told the function and the text.
int __wrap___dlog_print(log_id_t id, int priority, const char *tag, const char *format, ...) {
    const int error = errno;
    EXPECT_EQ(id, LOG_ID_MAIN);
    if (strcmp(tag, "VESTRA") != 0) return 0;  // a stand-in's
    va_list arguments;
    va_start(arguments, format);
    vestra_test::LogLine line{priority, "", ""};
    constexpr size_t kPrefix = sizeof(VESTRA_LOG_PREFIX) - 1;
    if (strncmp(format, VESTRA_LOG_PREFIX, kPrefix) == 0) {
        format += kPrefix;
        EXPECT_THAT(va_arg(arguments, const char *), ::testing::EndsWith(".cpp"));
        line.function = va_arg(arguments, const char *);
        const int number = va_arg(arguments, int);
        EXPECT_EQ(va_arg(arguments, const char *), line.function);
        EXPECT_EQ(va_arg(arguments, int), number);
    }
    char text[8192];
    errno = error;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(text, sizeof(text), format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    line.text = text;
    if (!line.text.empty() && line.text.back() == '\n') line.text.pop_back();
    {
        const Guard guard(seen().mutex);
        seen().log.push_back(line);
    }
    errno = error;
    return 0;
}

/* ------------------------------ Time ------------------------------ */

// True when the wait is over already, because it was only counted.
static bool counted(int64_t usec) {
    size_t number;
    {
        const Guard guard(seen().mutex);
        seen().waits.push_back(usec);
        number = seen().waits.size();
    }
    if (!world().real_waits && world().clock_us >= 0) world().clock_us += usec;
    if (world().on_wait) world().on_wait(number);
    return !world().real_waits;
}

unsigned __wrap_sleep(unsigned seconds) {
    return counted(static_cast<int64_t>(seconds) * 1000000) ? 0 : __real_sleep(seconds);
}

int __wrap_usleep(useconds_t usec) {
    return counted(usec) ? 0 : __real_usleep(usec);
}

int __wrap_nanosleep(const timespec *pause, timespec *rest) {
    return counted(pause->tv_sec * int64_t{1000000} + pause->tv_nsec / 1000) ? 0 : __real_nanosleep(pause, rest);
}

int __wrap_gettimeofday(timeval *now, void *zone) {
    const int64_t clock = world().clock_us;
    if (clock < 0) return __real_gettimeofday(now, zone);
    now->tv_sec = static_cast<time_t>(clock / 1000000);
    now->tv_usec = static_cast<suseconds_t>(clock % 1000000);
    return 0;
}

/* ------------------------------ Files ------------------------------ */

static bool is_temporary_file(int fd) {
    char link[64], path[PATH_MAX];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, sizeof(path) - 1);
    if (length < 0) return false;
    path[length] = '\0';
    return strncmp(path, "/tmp/temp-vestra", strlen("/tmp/temp-vestra")) == 0;
}

ssize_t __wrap_write(int fd, const void *data, size_t size) {
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode)) {
        const Guard guard(seen().mutex);
        seen().node_writes.emplace_back(static_cast<const char *>(data), size);
    }
    if (!is_temporary_file(fd)) return __real_write(fd, data, size);
    int number;
    {
        const Guard guard(seen().mutex);
        number = ++seen().dump_writes;
    }
    if (world().on_write) world().on_write(number);
    if (number == world().write_fails_at) {
        errno = world().write_error;
        return -1;
    }
    return __real_write(fd, data, std::min(size, world().write_most));
}

int __wrap_fsync(int fd) {
    if (is_temporary_file(fd)) {
        const Guard guard(seen().mutex);
        ++seen().fsyncs;
    }
    return __real_fsync(fd);
}

void *__wrap_malloc(size_t size) {
    if (world().malloc_fails_for != 0 && size == world().malloc_fails_for) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

/* ------------------------------ Threads and priority ------------------------------ */

static void *return_at_once(void *) {
    return nullptr;
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument) {
    int number;
    {
        const Guard guard(seen().mutex);
        number = ++seen().threads;
    }
    if (number == world().thread_fails_at) return EAGAIN;
    return __real_pthread_create(thread, attributes, world().idle_threads ? return_at_once : body, argument);
}

pid_t __wrap_fork() {
    if (!world().fork_fails) return __real_fork();
    errno = EAGAIN;
    return -1;
}

static void note(std::string call) {
    const Guard guard(seen().mutex);
    seen().calls.push_back(std::move(call));
}

// An idle thread may have ended before it gets its name, so only the name is noted then.
int __wrap_pthread_setname_np(pthread_t thread, const char *name) {
    note(std::string("name ") + name);
    return world().idle_threads ? world().name_error : __real_pthread_setname_np(thread, name);
}

int __wrap_nice(int increment) {
    note("nice " + std::to_string(increment));
    if (world().nice_result == -1) errno = world().nice_error;
    return world().nice_result;
}

/* ------------------------------ Registrations ------------------------------ */

int __wrap_vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data) {
    note(std::string("notify ") + key);
    return __real_vconf_notify_key_changed(key, callback, user_data);
}

int __wrap_vconf_ignore_key_changed(const char *key, vconf_callback_fn callback) {
    note(std::string("ignore ") + key);
    return __real_vconf_ignore_key_changed(key, callback);
}

int __wrap_KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    note("combination " + std::to_string(combination));
    return __real_KeyCombination_Add_Handler(combination, handler);
}

}  // extern "C"
