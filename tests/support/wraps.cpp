// The operations that the linker redirects, as CMakeLists.txt lists them, and the transcript that they write.
//
// Each has the C library's or the platform's own signature. The daemon calls them on all of its threads.

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <map>
#include <mutex>

#include "platform/dlog.h"
#include "support/daemon_env.h"
#include "vestra-daemon/vestra_log.h"

namespace vestra_test {

static std::mutex mutex;  // guards the three below
static Strings transcript;
static int waits;
static std::map<pthread_t, std::string> thread_names;

World &world() {
    static World instance;
    return instance;
}

Strings seen(std::string_view kinds) {
    const std::lock_guard<std::mutex> guard(mutex);
    Strings result;
    std::string last;
    int times = 0;
    for (const std::string &entry : transcript) {
        if (kinds.find(entry[0]) == std::string_view::npos) continue;
        times = entry == last ? times + 1 : 1;
        if (times == 1) result.emplace_back();
        result.back() = times == 1 ? entry : entry + " *" + std::to_string(times);
        last = entry;
    }
    return result;
}

void begin_transcript() {
    const std::lock_guard<std::mutex> guard(mutex);
    transcript.clear();
    waits = 0;
}

// Returns the number of waits so far.
static int note(std::string entry) {
    const std::lock_guard<std::mutex> guard(mutex);
    waits += entry[0] == 'w' ? 1 : 0;
    transcript.push_back(std::move(entry));
    return waits;
}

// Counts down to the call that fails.
static bool fails_now(int *fails_in) {
    return *fails_in > 0 && --*fails_in == 0;
}

extern "C" {

ssize_t __real_write(int fd, const void *data, size_t size);
int __real_fsync(int fd);
void *__real_malloc(size_t size);
pid_t __real_fork();
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument);
int __real_pthread_join(pthread_t thread, void **result);
int __real_vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data);
int __real_vconf_ignore_key_changed(const char *key, vconf_callback_fn callback);
int __real_KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler);
int __real_vestra_request_sem_lock_func(const char *caller, int n);

// Every line of the daemon begins with the five arguments of its prefix. A stand-in's lines are passed over.
int __wrap___dlog_print(log_id_t id, int priority, const char *tag, const char *format, ...) {
    constexpr size_t kPrefix = sizeof(VESTRA_LOG_PREFIX) - 1;
    const int error = errno;
    if (strcmp(tag, "VESTRA") != 0 || strncmp(format, VESTRA_LOG_PREFIX, kPrefix) != 0) return 0;
    va_list arguments;
    va_start(arguments, format);
    const std::string file = va_arg(arguments, const char *), function = va_arg(arguments, const char *);
    const std::string line = ":" + std::to_string(va_arg(arguments, int)) + "]";
    EXPECT_EQ(va_arg(arguments, const char *), function);
    EXPECT_EQ(":" + std::to_string(va_arg(arguments, int)) + "]", line);
    EXPECT_EQ(id, LOG_ID_MAIN);
    EXPECT_THAT(file, AnyOf("vestrad.cpp", "decoder.cpp", "vestra_ipc.cpp", "vestra_xml.cpp"));
    if (file == "vestra_xml.cpp") {
        EXPECT_THAT(function, AnyOf("GetVestraConfigInfo", "ToInt"));
    }
    char text[8192];
    errno = error;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(text, sizeof(text), format + kPrefix, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    std::string entry = std::to_string(priority) + " " + text;
    if (entry.back() == '\n') entry.pop_back();
    if (const size_t at = entry.find(line); at != std::string::npos) entry.replace(at, line.size(), ":LINE]");
    note(std::move(entry));
    errno = error;
    return 0;
}

static int wait(int64_t usec) {
    const int number = note("wait " + std::to_string(usec));
    world().clock_us += usec;
    if (world().on_wait) world().on_wait(number);
    return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
    return static_cast<unsigned>(wait(seconds * int64_t{1000000}));
}
int __wrap_usleep(useconds_t usec) {
    return wait(usec);
}
int __wrap_nanosleep(const timespec *pause, timespec * /*rest*/) {
    return wait(pause->tv_sec * int64_t{1000000} + pause->tv_nsec / 1000);
}

time_t __wrap_time(time_t * /*now*/) {
    return static_cast<time_t>(world().clock_us / 1000000);
}
int __wrap_gettimeofday(timeval *now, void * /*zone*/) {
    *now = {static_cast<time_t>(world().clock_us / 1000000), static_cast<suseconds_t>(world().clock_us % 1000000)};
    return 0;
}

static std::string path_of(int fd) {
    std::error_code none;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
}

static bool is_temporary_file(int fd) {
    return path_of(fd).rfind("/tmp/temp-vestra", 0) == 0;
}

ssize_t __wrap_write(int fd, const void *data, size_t size) {
    if (path_of(fd) == kControlNode) note("node " + std::string(static_cast<const char *>(data), size));
    if (!is_temporary_file(fd)) return __real_write(fd, data, size);
    if (world().on_write) world().on_write();
    if (!fails_now(&world().write_fails_in)) return __real_write(fd, data, std::min(size, world().write_most));
    errno = ENOSPC;
    return -1;
}

int __wrap_fsync(int fd) {
    if (is_temporary_file(fd)) note("sync");
    return __real_fsync(fd);
}

void *__wrap_malloc(size_t size) {
    if (world().malloc_fails_for == 0 || size != world().malloc_fails_for) return __real_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

pid_t __wrap_fork() {
    if (!world().fork_fails) return __real_fork();
    errno = EAGAIN;
    return -1;
}

static void *return_at_once(void * /*argument*/) {
    return nullptr;
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*)(void *), void *argument) {
    if (fails_now(&world().thread_fails_in)) return EAGAIN;
    return __real_pthread_create(thread, attributes, return_at_once, argument);
}

// The thread may have ended before it gets its name, so only the name is noted.
int __wrap_pthread_setname_np(pthread_t thread, const char *name) {
    note(std::string("call name ") + name);
    const std::lock_guard<std::mutex> guard(mutex);
    thread_names[thread] = name;
    return world().name_error;
}

int __wrap_pthread_join(pthread_t thread, void **result) {
    note("call join " + thread_names[thread] + (ghead_s != nullptr ? " with the chain still there" : ""));
    return __real_pthread_join(thread, result);
}

int __wrap_nice(int increment) {
    note("call nice " + std::to_string(increment));
    if (world().nice_result == -1) errno = EPERM;
    return world().nice_result;
}

int __wrap_vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data) {
    note(std::string("call notify ") + key);
    return __real_vconf_notify_key_changed(key, callback, user_data);
}

int __wrap_vconf_ignore_key_changed(const char *key, vconf_callback_fn callback) {
    note(std::string("call ignore ") + key);
    return __real_vconf_ignore_key_changed(key, callback);
}

int __wrap_KeyCombination_Add_Handler(_KeyComb combination, KeyCombination_Handler handler) {
    note("call combination " + std::to_string(combination));
    return __real_KeyCombination_Add_Handler(combination, handler);
}

int __wrap_vestra_request_sem_lock_func(const char *caller, int n) {
    EXPECT_STREQ(caller, "client_request_process");
    EXPECT_EQ(n, 6);
    return world().on_request ? world().on_request() : __real_vestra_request_sem_lock_func(caller, n);
}

}  // extern "C"

}  // namespace vestra_test
